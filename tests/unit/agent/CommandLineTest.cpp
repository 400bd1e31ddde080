// The command line of tarn-shadowd.

#include "agent/CommandLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace Agent {
namespace {

std::optional<ExitCode> parse(std::vector<const char*> words, Arguments& arguments) {
   words.insert(words.begin(), "tarn-shadowd");
   return parseCommandLine(static_cast<int>(words.size()), words.data(), arguments);
}

TEST(ShadowCommandLine, TakesEveryOption) {
   Arguments arguments;
   EXPECT_EQ(
      parse({"--board", "b.toml", "--core", "a", "--core", "b", "--metrics", "[::1]:9100",
             "--trace", "3", "--log", "syslog", "--check", "--group", "root", "--others-read"},
            arguments),
      std::nullopt);
   EXPECT_EQ(arguments.boardFile, "b.toml");
   EXPECT_THAT(arguments.cores, testing::ElementsAre("a", "b"));
   EXPECT_EQ(arguments.metrics, "[::1]:9100");
   EXPECT_EQ(arguments.traceLevels, "*=3");
   EXPECT_EQ(arguments.log, Board::LogTarget::systemLog);
   EXPECT_TRUE(arguments.check);
   EXPECT_EQ(arguments.group, 0u);
   EXPECT_TRUE(arguments.othersRead);
}

TEST(ShadowCommandLine, WhatIsNotSaidIsLeftToTheFile) {
   Arguments arguments;
   EXPECT_EQ(parse({"--board", "b.toml"}, arguments), std::nullopt);
   EXPECT_TRUE(arguments.cores.empty());
   EXPECT_EQ(arguments.metrics, std::nullopt);
   EXPECT_EQ(arguments.traceLevels, std::nullopt);
   EXPECT_EQ(arguments.log, std::nullopt);
   EXPECT_FALSE(arguments.check);
   EXPECT_EQ(arguments.group, std::nullopt);
   EXPECT_FALSE(arguments.othersRead);
}

TEST(ShadowCommandLine, AWrongOneIsAnErrorOfUsage) {
   Arguments arguments;
   testing::internal::CaptureStderr();
   EXPECT_EQ(parse({}, arguments), ExitCode::usage) << "there is no board file";
   EXPECT_EQ(parse({"--board", "b", "--log", "file"}, arguments), ExitCode::usage);
   EXPECT_EQ(parse({"--board", "b", "--metrics", "x"}, arguments), ExitCode::usage);
   EXPECT_EQ(parse({"--board", "b", "more"}, arguments), ExitCode::usage);
   EXPECT_THAT(testing::internal::GetCapturedStderr(),
               testing::HasSubstr("'file' is no place for the log: stderr, syslog"));
}

TEST(ShadowCommandLine, HelpAndVersionAreNoErrors) {
   Arguments arguments;
   testing::internal::CaptureStdout();
   EXPECT_EQ(parse({"--help"}, arguments), ExitCode::ok);
   EXPECT_EQ(parse({"--version"}, arguments), ExitCode::ok);
   EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::HasSubstr("tarn-shadowd "));
}

} // namespace
} // namespace Agent
