#include "nimbo/CommandLine.h"

#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "nimbo/ConfigValues.h"

namespace Nimbo {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class NimbodCommandLine : public testing::Test {
protected:
   std::optional<ExitCode> parse(std::vector<const char*> words) {
      words.insert(words.begin(), "nimbod");
      testing::internal::CaptureStdout();
      testing::internal::CaptureStderr();
      const auto code = parseCommandLine(static_cast<int>(words.size()), words.data(), arguments);
      out = testing::internal::GetCapturedStdout();
      err = testing::internal::GetCapturedStderr();
      return code;
   }

   Arguments arguments;
   std::string out;
   std::string err;
};

TEST_F(NimbodCommandLine, SaysNothingUnlessAsked) {
   EXPECT_EQ(parse({}), std::nullopt);
   EXPECT_EQ(arguments.configFile, "");
   EXPECT_THAT(arguments.buses, IsEmpty());
   EXPECT_FALSE(arguments.simulate || arguments.check || arguments.socketDirectory ||
                arguments.socketFile || arguments.socketMode || arguments.allowedUsers ||
                arguments.allowedGroups || arguments.maxConnections || arguments.metrics ||
                arguments.traceLevels || arguments.log);
   EXPECT_EQ(out + err, "");
}

TEST_F(NimbodCommandLine, TakesEveryOption) {
   EXPECT_EQ(parse({"--config",
                    "b.toml",
                    "--bus",
                    "3=/dev/i2c-7",
                    "--bus",
                    "0x4=/dev/i2c-8",
                    "--simulate",
                    "--socket-dir",
                    "/run/x",
                    "--socket-file=y",
                    "--socket-mode",
                    "600",
                    "--allow-user",
                    "root",
                    "--allow-user",
                    "1000",
                    "--allow-group",
                    "4",
                    "--max-connections",
                    "9",
                    "--metrics",
                    "[::1]:9100",
                    "--trace",
                    "5",
                    "--log",
                    "syslog",
                    "--check"}),
             std::nullopt)
      << err;
   EXPECT_EQ(arguments.configFile, "b.toml");
   EXPECT_THAT(arguments.buses, ElementsAre(busFrom("3=/dev/i2c-7"), busFrom("4=/dev/i2c-8")));
   EXPECT_TRUE(arguments.simulate);
   EXPECT_EQ(arguments.socketDirectory, "/run/x");
   EXPECT_EQ(arguments.socketFile, "y");
   EXPECT_EQ(arguments.socketMode, 0600u);
   EXPECT_THAT(*arguments.allowedUsers, ElementsAre(0, 1000));
   EXPECT_THAT(*arguments.allowedGroups, ElementsAre(4));
   EXPECT_EQ(arguments.maxConnections, 9u);
   EXPECT_EQ(arguments.metrics, "[::1]:9100");
   EXPECT_EQ(arguments.traceLevels, "*=5");
   EXPECT_EQ(arguments.log, Board::LogTarget::systemLog);
   EXPECT_TRUE(arguments.check);
}

TEST_F(NimbodCommandLine, AFilesNameMayBeInBrackets) {
   EXPECT_EQ(parse({"-c", "[b]", "--socket-dir", "[d]"}), std::nullopt);
   EXPECT_EQ(arguments.configFile, "[b]");
   EXPECT_EQ(arguments.socketDirectory, "[d]");
}

TEST_F(NimbodCommandLine, TraceTakesSourcesToo) {
   EXPECT_EQ(parse({"--trace", "nimbo/*=8,*=1"}), std::nullopt);
   EXPECT_EQ(arguments.traceLevels, "nimbo/*=8,*=1");
}

TEST_F(NimbodCommandLine, WrongUseIsToldOnStandardError) {
   const std::vector<std::pair<std::vector<const char*>, std::string>> cases{
      {{"--nonsense"}, "--nonsense"},
      {{"word"}, "word"},
      {{"--bus"}, "--bus"},
      {{"--bus", "128=/dev/i2c-1"},
       "--bus: '128=/dev/i2c-1' is no bus: NUMBER=DEVICE, with a number from 0 to 127"},
      {{"--bus", "1=i2c-1"},
       "--bus: the device of bus 1 must be an absolute path, as /dev/i2c-3 is"},
      {{"--bus", "1=/dev/i2c-1", "2=/dev/i2c-2"}, "2=/dev/i2c-2"},
      {{"--socket-mode", "9"}, "--socket-mode: '9' is no mode of a socket: octal, as in \"0660\""},
      {{"--socket-file", "a/b"},
       "--socket-file: 'a/b' is no name of a file in the socket's directory"},
      {{"--allow-user", "no-such-user"}, "--allow-user: there is no user 'no-such-user'"},
      {{"--allow-group", "no-such-group"}, "--allow-group: there is no group 'no-such-group'"},
      {{"--max-connections", "0"}, "--max-connections: '0' is no number from 1 to 65536"},
      {{"--max-connections", "-5"}, "--max-connections: '-5' is no number from 1 to 65536"},
      {{"--max-connections", "many"}, "--max-connections: 'many' is no number from 1 to 65536"},
      {{"--metrics", "host:1"}, "--metrics: address 'host:1'"},
      {{"--trace", "10"}, "--trace: bad trace level '10'"},
      {{"--log", "file"}, "--log: 'file' is no place for the log: stderr, syslog"},
      {{"--config", "a", "--config", "b"}, "--config"},
   };
   for (const auto& [words, text] : cases) {
      EXPECT_EQ(parse(words), ExitCode::usage) << text;
      EXPECT_EQ(out, "") << text;
      EXPECT_THAT(err, testing::StartsWith("nimbod: error: "));
      EXPECT_THAT(err, HasSubstr(text));
      EXPECT_THAT(err, HasSubstr("\nRun nimbod --help for the command line.\n"));
   }
}

TEST_F(NimbodCommandLine, HelpAndVersionGoToStandardOutput) {
   EXPECT_EQ(parse({"--help"}), ExitCode::ok);
   for (const char* option :
        {"--config", "--bus", "--simulate", "--socket-dir", "--socket-file", "--socket-mode",
         "--allow-user", "--allow-group", "--max-connections", "--metrics", "--trace", "--log",
         "--check", "--version", "NM_SOCKET_DIR", "Exit codes"}) {
      EXPECT_THAT(out, HasSubstr(option));
   }
   EXPECT_EQ(err, "");
   EXPECT_EQ(parse({"--version"}), ExitCode::ok);
   EXPECT_THAT(out, testing::MatchesRegex("nimbod [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

} // namespace
} // namespace Nimbo
