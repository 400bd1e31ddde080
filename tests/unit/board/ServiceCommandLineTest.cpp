// The command line that every daemon has.

#include "board/ServiceCommandLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace Board {
namespace {

using Outcome = ServiceCommandLine::Outcome;
using Times = ServiceCommandLine::Times;
using testing::ElementsAre;
using testing::HasSubstr;

class ServiceCommandLineTest : public testing::Test {
protected:
   Outcome parse(std::vector<const char*> words) {
      ServiceCommandLine line("daemon", "Does much.", "The foot.", "1.2");
      line.option(
         "--file,-f", "FILE", "A file", [this](const std::string& text) { files.push_back(text); },
         needed ? Times::needed : Times::once);
      line.option(
         "--all", "ONE", "Some",
         [this](const std::string& text) {
            if (text == "bad") {
               throw std::invalid_argument("it is bad");
            }
            all.push_back(text);
         },
         Times::many);
      line.flag("--flag", flag, "A flag");
      line.serviceOptions(arguments);
      words.insert(words.begin(), "daemon");
      testing::internal::CaptureStdout();
      testing::internal::CaptureStderr();
      const Outcome outcome = line.parse(static_cast<int>(words.size()), words.data());
      out = testing::internal::GetCapturedStdout();
      err = testing::internal::GetCapturedStderr();
      return outcome;
   }

   bool needed = false;
   std::vector<std::string> files;
   std::vector<std::string> all;
   bool flag = false;
   ServiceArguments arguments;
   std::string out;
   std::string err;
};

TEST_F(ServiceCommandLineTest, TakesWhatEveryDaemonHas) {
   EXPECT_EQ(parse({"--metrics", "[::1]:9100", "--trace", "3", "--log", "syslog", "--check"}),
             Outcome::parsed);
   EXPECT_EQ(arguments.metrics, "[::1]:9100");
   EXPECT_EQ(arguments.traceLevels, "*=3");
   EXPECT_EQ(arguments.log, LogTarget::systemLog);
   EXPECT_TRUE(arguments.check);
   EXPECT_EQ(out + err, "");
}

TEST_F(ServiceCommandLineTest, WordsInBracketsAreWords) {
   EXPECT_EQ(parse({"-f", "[a]", "--all", "[b]", "--all", "c", "--flag"}), Outcome::parsed);
   EXPECT_THAT(files, ElementsAre("[a]"));
   EXPECT_THAT(all, ElementsAre("[b]", "c"));
   EXPECT_TRUE(flag);
   EXPECT_EQ(arguments.metrics, std::nullopt);
}

TEST_F(ServiceCommandLineTest, WhatIsWrongIsToldWithTheOption) {
   EXPECT_EQ(parse({"--all", "[bad"}), Outcome::parsed);
   EXPECT_EQ(parse({"--all", "bad"}), Outcome::wrong);
   EXPECT_EQ(err, "daemon: error: --all: it is bad\nRun daemon --help for the command line.\n");
   EXPECT_EQ(parse({"--log", "file"}), Outcome::wrong);
   EXPECT_THAT(err, HasSubstr("--log: 'file' is no place for the log: stderr, syslog"));
   EXPECT_EQ(parse({"[more]"}), Outcome::wrong);
   EXPECT_THAT(err, HasSubstr("[more]"));
   EXPECT_EQ(out, "");
}

TEST_F(ServiceCommandLineTest, WhatMayBeSaidOnceIsNotSaidTwice) {
   EXPECT_EQ(parse({"-f", "a", "--file", "b"}), Outcome::wrong);
   EXPECT_EQ(parse({"--metrics", "1", "--metrics", "2"}), Outcome::wrong);
}

TEST_F(ServiceCommandLineTest, WhatIsNeededIsMissed) {
   EXPECT_EQ(parse({}), Outcome::parsed);
   needed = true;
   EXPECT_EQ(parse({}), Outcome::wrong);
   EXPECT_THAT(err, HasSubstr("--file FILE is needed: a file\n"));
}

TEST_F(ServiceCommandLineTest, HelpAndVersionAreTold) {
   EXPECT_EQ(parse({"--version"}), Outcome::told);
   EXPECT_EQ(out, "daemon 1.2\n");
   EXPECT_EQ(parse({"--help"}), Outcome::told);
   EXPECT_THAT(out, HasSubstr("Does much."));
   EXPECT_THAT(out, HasSubstr("--metrics ADDRESS:PORT"));
   EXPECT_THAT(out, HasSubstr("The foot."));
   EXPECT_EQ(err, "");
}

} // namespace
} // namespace Board
