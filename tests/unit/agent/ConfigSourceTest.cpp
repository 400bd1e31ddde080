// What the [shadow] table of a board file and the command line say together.

#include "agent/ConfigSource.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/UsageError.h"
#include "board/FileError.h"

namespace Agent {
namespace {

using std::chrono::milliseconds;

constexpr const char* devices = "[devices.fpga]\nlist = \"fpga.csv\"\ntransport = \"mock:\"\n"
                                "[devices.cpld]\nlist = \"cpld.csv\"\ntransport = \"mock:\"\n";

Config read(const std::string& shadow, Arguments arguments = {}) {
   arguments.boardFile = "dir/board.toml";
   return configFrom(devices + shadow, arguments);
}

std::string refusal(const std::string& shadow) {
   try {
      read(shadow);
   } catch (const Board::FileError& error) {
      return error.what();
   }
   return "accepted";
}

std::vector<std::string> names(const Config& config) {
   std::vector<std::string> all;
   for (const auto& core : config.cores) {
      all.push_back(core.name);
   }
   return all;
}

TEST(ShadowConfig, NamesTheDevicesThatAreCores) {
   const Config config = read("[shadow]\ncores = [\"cpld\", \"fpga\"]\n");
   EXPECT_THAT(names(config), testing::ElementsAre("cpld", "fpga"));
   EXPECT_EQ(config.cores[0].list, "dir/cpld.csv");
   EXPECT_EQ(config.settings.checkInterval, milliseconds(1000));
   EXPECT_EQ(config.settings.retryFirst, milliseconds(500));
   EXPECT_EQ(config.settings.retryMost, milliseconds(30'000));
   EXPECT_EQ(config.settings.keptOperations, 1024u);
   EXPECT_EQ(config.settings.auditInterval, milliseconds(60'000));
   EXPECT_EQ(config.settings.access.group, std::nullopt);
   EXPECT_FALSE(config.settings.access.othersRead);
   EXPECT_EQ(config.metrics, "");
   EXPECT_EQ(config.traceLevels, "");
   EXPECT_EQ(config.log, Board::LogTarget::standardError);
}

TEST(ShadowConfig, TakesEveryKey) {
   const Config config =
      read("[shadow]\ncores = [\"fpga\"]\ncheck_interval_ms = 0\nretry_first_ms = 1\n"
           "retry_most_ms = 2\nanswer_timeout_ms = 3\nkept_operations = 4\naudit_interval_ms = "
           "5\ngroup = 7\nothers_read = true\nmetrics = \"9100\"\n"
           "trace = 7\nlog = \"syslog\"\n");
   EXPECT_EQ(config.settings.checkInterval, milliseconds(0));
   EXPECT_EQ(config.settings.retryFirst, milliseconds(1));
   EXPECT_EQ(config.settings.retryMost, milliseconds(2));
   EXPECT_EQ(config.settings.answerTimeout, milliseconds(3));
   EXPECT_EQ(config.settings.keptOperations, 4u);
   EXPECT_EQ(config.settings.auditInterval, milliseconds(5));
   EXPECT_EQ(config.settings.access.group, 7u);
   EXPECT_TRUE(config.settings.access.othersRead);
   EXPECT_EQ(config.metrics, "9100");
   EXPECT_EQ(config.traceLevels, "*=7");
   EXPECT_EQ(config.log, Board::LogTarget::systemLog);
}

TEST(ShadowConfig, TheCommandLineGoesFirst) {
   Arguments arguments;
   arguments.cores = {"cpld"};
   arguments.metrics = "9200";
   arguments.group = 8;
   arguments.othersRead = true;
   arguments.log = Board::LogTarget::standardError;
   const Config config =
      read("[shadow]\ncores = [\"fpga\"]\nmetrics = \"9100\"\nlog = \"syslog\"\n", arguments);
   EXPECT_THAT(names(config), testing::ElementsAre("cpld"));
   EXPECT_EQ(config.metrics, "9200");
   EXPECT_EQ(config.settings.access.group, 8u);
   EXPECT_TRUE(config.settings.access.othersRead);
   EXPECT_EQ(config.log, Board::LogTarget::standardError);
}

TEST(ShadowConfig, NeedsNoTableIfTheCommandLineNamesCores) {
   Arguments arguments;
   arguments.cores = {"fpga"};
   EXPECT_THAT(names(read("", arguments)), testing::ElementsAre("fpga"));
}

TEST(ShadowConfig, WithoutCoresThereIsNothingToDo) {
   EXPECT_THROW(read(""), UsageError);
   EXPECT_THROW(read("[shadow]\ncores = []\n"), UsageError);
   Arguments arguments;
   arguments.cores = {"none"};
   EXPECT_THROW(read("", arguments), UsageError);
   arguments.cores = {"fpga", "fpga"};
   EXPECT_THROW(read("", arguments), UsageError);
}

TEST(ShadowConfig, WhatIsWrongIsSaidWithItsPlace) {
   EXPECT_EQ(refusal("[shadow]\ncores = [\"none\"]\n"),
             "dir/board.toml:8:10: there is no device 'none' in dir/board.toml");
   EXPECT_EQ(refusal("[shadow]\ncores = [\"fpga\", \"fpga\"]\n"),
             "dir/board.toml:8:18: core 'fpga' is named twice");
   EXPECT_EQ(refusal("[shadow]\ncores = \"fpga\"\n"),
             "dir/board.toml:8:9: 'cores' must be an array of names of devices");
   for (const char* line :
        {"retry_first_ms = 0", "retry_most_ms = 499", "check_interval_ms = -1",
         "kept_operations = 0", "log = \"file\"", "trace = \"x\"", "metrics = \"nowhere\"",
         "unknown = 1", "answer_timeout_ms = 0", "audit_interval_ms = -1",
         "group = \"no-such-group\"", "group = 1.5", "others_read = 1"}) {
      EXPECT_THAT(refusal(std::string("[shadow]\ncores = [\"fpga\"]\n") + line + "\n"),
                  testing::StartsWith("dir/board.toml:9:"))
         << line;
   }
   EXPECT_THROW(configFrom("shadow = 1\n", {}), Board::FileError);
}

} // namespace
} // namespace Agent
