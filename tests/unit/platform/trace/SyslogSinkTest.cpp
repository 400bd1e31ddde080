#include "platform/trace/SyslogSink.h"

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

namespace {

struct Message {
   int priority;
   std::string text;

   friend bool operator==(const Message&, const Message&) = default;
};

std::vector<Message> messages;
std::string openedAs;
int openedFacility = -1;
int openedOptions = -1;
int closed = 0;

void messageAdd(int priority, const char* format, std::va_list arguments) {
   char text[1024];
   std::vsnprintf(text, sizeof text, format, arguments);
   messages.push_back({priority, text});
}

} // namespace

// These stand in front of the C library's for the whole test program: no system log is needed, and
// none gets lines from tests. Visible, or the
// library would not find them.
#pragma GCC visibility push(default)
extern "C" {

void openlog(const char* ident, int options, int facility) {
   openedAs = ident;
   openedOptions = options;
   openedFacility = facility;
}

void closelog() {
   ++closed;
}

void syslog(int priority, const char* format, ...) {
   std::va_list arguments;
   va_start(arguments, format);
   messageAdd(priority, format, arguments);
   va_end(arguments);
}

// What syslog is called in a build with _FORTIFY_SOURCE.
void __syslog_chk(int priority, int, const char* format, ...) {
   std::va_list arguments;
   va_start(arguments, format);
   messageAdd(priority, format, arguments);
   va_end(arguments);
}
}
#pragma GCC visibility pop

namespace {

using Platform::Trace::SyslogSink;
using testing::ElementsAre;

TEST(SyslogSink, OpensTheLogUnderItsNameForDaemonsWithTheProcessId) {
   const SyslogSink sink("nimbod");
   EXPECT_EQ(openedAs, "nimbod");
   EXPECT_EQ(openedFacility, LOG_DAEMON);
   EXPECT_EQ(openedOptions, LOG_PID);
}

TEST(SyslogSink, ClosesTheLogAtItsEnd) {
   const int before = closed;
   {
      const SyslogSink sink("test");
      EXPECT_EQ(closed, before);
   }
   EXPECT_EQ(closed, before + 1);
}

TEST(SyslogSink, SendsTheEscapedBodyWithASeverityForTheLevel) {
   messages.clear();
   SyslogSink sink("test");
   for (const int level : {0, 1, 3, 4, 9}) {
      sink.write({"s", "f", level, "100%s\n", {}});
   }
   const std::string text = "s f: 100%s\\n";
   EXPECT_THAT(messages,
               ElementsAre(Message{LOG_ERR, text}, Message{LOG_INFO, text}, Message{LOG_INFO, text},
                           Message{LOG_DEBUG, text}, Message{LOG_DEBUG, text}));
}

} // namespace
