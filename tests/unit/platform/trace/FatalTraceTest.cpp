#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "platform/entity/Fatal.h"
#include "platform/trace/CaptureScope.h"
#include "platform/trace/Line.h"
#include "platform/trace/Sink.h"
#include "platform/trace/Trace.h"

namespace {

using Platform::fatalAssertion;
using Platform::Trace::levelsAre;
using Platform::Trace::Record;
using Platform::Trace::Sink;
using Platform::Trace::sinkIs;

// Keeps what it is given to itself until it is flushed.
class BufferedSink : public Sink {
public:
   void write(const Record& record) override {
      _text += "buffered " + std::to_string(record.level) + ' ' +
               Platform::Trace::lineBody(record) + '\n';
   }
   void flush() override { std::fputs(_text.c_str(), stderr); }

private:
   std::string _text;
};

class AssertingSink : public Sink {
public:
   void write(const Record& record) override {
      if (record.text == "throw") {
         throw std::runtime_error("thrown");
      }
      fatalAssertion("sink", "write", "inner");
   }
};

class FatalTraceTest : public testing::Test {
protected:
   FatalTraceTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

using FatalTraceDeathTest = FatalTraceTest;

TEST_F(FatalTraceDeathTest, AssertionIsARecordOfLevelZeroBesidesTheLineOnStandardError) {
   EXPECT_DEATH(fatalAssertion("room/Class", "function", "it holds"),
                "room/Class: function: assertion failed: it holds\n"
                ".*Z 0 room/Class function: assertion failed: it holds\n");
}

TEST_F(FatalTraceDeathTest, RecordIsFlushedBeforeTheEnd) {
   EXPECT_DEATH(
      {
         sinkIs(std::make_shared<BufferedSink>());
         fatalAssertion("room/Class", "function", "it holds");
      },
      "buffered 0 room/Class function: assertion failed: it holds\n");
}

TEST_F(FatalTraceDeathTest, RecordIsWrittenEvenWhenAllIsOff) {
   EXPECT_DEATH(
      {
         levelsAre("*=off");
         sinkIs(std::make_shared<BufferedSink>());
         fatalAssertion("room/Class", "function", "it holds");
      },
      "buffered 0 room/Class function: assertion failed: it holds\n");
}

TEST_F(FatalTraceDeathTest, WithoutASinkTheProcessStillAborts) {
   EXPECT_EXIT(
      {
         sinkIs(nullptr);
         fatalAssertion("room/Class", "function", "it holds");
      },
      testing::KilledBySignal(SIGABRT), "room/Class: function: assertion failed: it holds\n");
}

TEST_F(FatalTraceDeathTest, AssertionInsideASinkDoesNotCallTheSinkAgain) {
   EXPECT_EXIT(
      {
         sinkIs(std::make_shared<AssertingSink>());
         TARN_TRACE_SOURCE(source, "test/fatal");
         TARN_TRACE(source, 0, "f", "text");
      },
      testing::KilledBySignal(SIGABRT), "sink: write: assertion failed: inner\n");
}

} // namespace
