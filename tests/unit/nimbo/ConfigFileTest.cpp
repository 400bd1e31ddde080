#include "nimbo/ConfigFile.h"

#include <chrono>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board/BoardFile.h"
#include "board/FileError.h"
#include "board/SimulatedBoardParser.h"
#include "tests/support/TempDir.h"

namespace Nimbo {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

Config configOf(const std::string& text, bool simulate = false) {
   Config config;
   ConfigFile(text, "b.toml").readInto(config, simulate);
   return config;
}

std::string failureOf(const std::string& text, bool simulate = false) {
   try {
      configOf(text, simulate);
   } catch (const Board::FileError& error) {
      return error.what();
   }
   return "none";
}

const std::string bus = "[nimbod.buses.fans]\nnumber = 3\ndevice = \"/dev/i2c-7\"\n";
const std::string simulated =
   "[simulate.i2c.a]\nbus = \"/dev/i2c-7\"\naddress = 0x50\nkind = \"block\"\n";

TEST(ConfigFile, SetsEverythingThatItSays) {
   const Config config = configOf("[nimbod]\n"
                                  "socket_dir = \"/run/x\"\n"
                                  "socket_file = \"y\"\n"
                                  "socket_mode = \"0600\"\n"
                                  "socket_owner = \"root\"\n"
                                  "socket_group = 7\n"
                                  "allow_users = [\"root\", 1000, \"1001\"]\n"
                                  "allow_groups = [4]\n"
                                  "max_connections = 12\n"
                                  "metrics = \"9100\"\n"
                                  "trace = \"nimbo/*=5\"\n"
                                  "log = \"syslog\"\n"
                                  "stop_timeout_ms = 700\n" +
                                  bus);
   EXPECT_EQ(config.socketPath(), "/run/x/y");
   EXPECT_EQ(config.socketMode, 0600u);
   EXPECT_EQ(config.socketOwner, 0u);
   EXPECT_EQ(config.socketGroup, 7u);
   EXPECT_THAT(config.allowedUsers, ElementsAre(0, 1000, 1001));
   EXPECT_THAT(config.allowedGroups, ElementsAre(4));
   EXPECT_EQ(config.maxConnections, 12u);
   EXPECT_EQ(config.metrics, "9100");
   EXPECT_EQ(config.traceLevels, "nimbo/*=5");
   EXPECT_EQ(config.log, Board::LogTarget::systemLog);
   EXPECT_EQ(config.stopTimeout, std::chrono::milliseconds(700));
   EXPECT_THAT(config.buses,
               ElementsAre(BusConfig{.name = "fans", .number = 3, .device = "/dev/i2c-7"}));
}

TEST(ConfigFile, LeavesAloneWhatItDoesNotSay) {
   Config config;
   config.socketDirectory = "/here";
   config.allowedUsers = {5};
   config.metrics = "1";
   config.maxConnections = 9;
   ConfigFile(bus, "b.toml").readInto(config, false);
   EXPECT_EQ(config.socketPath(), "/here/smbus");
   EXPECT_THAT(config.allowedUsers, ElementsAre(5));
   EXPECT_EQ(config.metrics, "1");
   EXPECT_EQ(config.maxConnections, 9u);
   EXPECT_FALSE(config.socketOwner || config.socketGroup);
   EXPECT_EQ(config.socketMode, 0660u);
   EXPECT_EQ(config.stopTimeout, std::chrono::seconds(5));
   EXPECT_EQ(config.log, Board::LogTarget::standardError);
   EXPECT_EQ(config.traceLevels, "");
}

TEST(ConfigFile, EmptyListsAllowEverybodyAgain) {
   Config config;
   config.allowedUsers = {5};
   ConfigFile("[nimbod]\nallow_users = []\n", "b.toml").readInto(config, false);
   EXPECT_THAT(config.allowedUsers, IsEmpty());
}

TEST(ConfigFile, ATraceLevelNeedsNoQuotes) {
   EXPECT_EQ(configOf("nimbod.trace = 7\n").traceLevels, "*=7");
   EXPECT_EQ(failureOf("nimbod.trace = 10\n"), "b.toml:1:16: 'trace' must be from 0x0 to 0x9");
}

TEST(ConfigFile, ABusHasAllThatItsTableSays) {
   const Config config = configOf(bus + "controller = 2047\npci = \"0000:03:00.1\"\n"
                                        "timeout_ms = 50\nretries = 0\n");
   const BusConfig expected{.name = "fans",
                            .number = 3,
                            .pciBdf = 0x301,
                            .controller = 2047,
                            .device = "/dev/i2c-7",
                            .timeout = std::chrono::milliseconds(50),
                            .retries = 0};
   EXPECT_THAT(config.buses, ElementsAre(expected));
}

TEST(ConfigFile, BusesComeInTheOrderOfTheirNames) {
   const Config config = configOf(bus + "[nimbod.buses.a]\nnumber = 4\ndevice = \"/dev/i2c-8\"\n");
   ASSERT_EQ(config.buses.size(), 2u);
   EXPECT_EQ(config.buses[0].name, "a");
   EXPECT_EQ(config.buses[1].name, "fans");
}

TEST(ConfigFile, ABusThatIsSimulatedHasToBeOnTheBoard) {
   const Config config = configOf(bus + "simulate = true\n" + simulated);
   ASSERT_EQ(config.buses.size(), 1u);
   EXPECT_TRUE(config.buses[0].simulated);
   EXPECT_EQ(failureOf(bus + "simulate = true\n"),
             "b.toml:1:1: there is no [simulate] table: nothing to simulate");
   EXPECT_EQ(
      failureOf("[nimbod.buses.x]\nnumber = 1\ndevice = \"other\"\nsimulate = true\n" + simulated),
      "b.toml:3:10: 'other' is not simulated on the board; there is /dev/i2c-7");
   EXPECT_EQ(failureOf(bus + "simulate = true\n[simulate.spi.l]\ndevice = \"/dev/spidev0.0\"\n"),
             "b.toml:3:10: '/dev/i2c-7' is not simulated on the board; no I2C bus is");
}

TEST(ConfigFile, AllBusesAreSimulatedIfThatIsAskedFor) {
   EXPECT_TRUE(configOf(bus + simulated, true).buses.at(0).simulated);
   EXPECT_TRUE(configOf(bus + "simulate = false\n" + simulated, true).buses.at(0).simulated);
   EXPECT_TRUE(configOf("nimbod.simulate = true\n" + bus + simulated).buses.at(0).simulated);
   EXPECT_FALSE(configOf(bus + simulated).buses.at(0).simulated);
   Config config;
   EXPECT_TRUE(ConfigFile("nimbod.simulate = true\n", "b.toml").readInto(config, false));
   EXPECT_TRUE(ConfigFile("nimbod.simulate = false\n", "b.toml").readInto(config, true));
   EXPECT_FALSE(ConfigFile("[nimbod]\n", "b.toml").readInto(config, false));
   EXPECT_TRUE(ConfigFile("", "b.toml").readInto(config, true));
}

TEST(ConfigFile, MistakesInWhatIsSimulatedAreItsOwn) {
   EXPECT_EQ(failureOf(bus + simulated + "adress = 1\n", true),
             "b.toml:8:1: [simulate.i2c.a] has no key 'adress'");
   EXPECT_EQ(failureOf(bus + "[simulate]\nusb = 1\n"), "none") << "nobody needs it";
}

TEST(ConfigFile, SaysWhereAMistakeIs) {
   EXPECT_EQ(failureOf("nimbod = 3\n"), "b.toml:1:10: 'nimbod' must be a table");
   EXPECT_EQ(failureOf("[nimbod]\nsocketdir = \"x\"\n"),
             "b.toml:2:1: [nimbod] has no key 'socketdir'");
   EXPECT_EQ(failureOf("[nimbod]\nsocket_dir = 3\n"), "b.toml:2:14: 'socket_dir' must be a string");
   EXPECT_EQ(failureOf("[nimbod]\nsocket_dir = \"\"\n"),
             "b.toml:2:14: 'socket_dir' must not be empty");
   EXPECT_EQ(failureOf("[nimbod]\nsocket_file = \"a/b\"\n"),
             "b.toml:2:15: 'a/b' is no name of a file in the socket's directory");
   EXPECT_EQ(failureOf("[nimbod]\nsocket_mode = 660\n"),
             "b.toml:2:15: 'socket_mode' must be a string");
   EXPECT_EQ(failureOf("[nimbod]\nsocket_mode = \"888\"\n"),
             "b.toml:2:15: '888' is no mode of a socket: octal, as in \"0660\"");
   EXPECT_EQ(failureOf("[nimbod]\nsocket_owner = \"nobody such\"\n"),
             "b.toml:2:16: there is no user 'nobody such'");
   EXPECT_EQ(failureOf("[nimbod]\nsocket_group = true\n"),
             "b.toml:2:16: 'socket_group' must be a name or a number");
   EXPECT_EQ(failureOf("[nimbod]\nallow_users = \"root\"\n"),
             "b.toml:2:15: 'allow_users' must be an array of names and numbers");
   EXPECT_EQ(failureOf("[nimbod]\nallow_users = [0, -1]\n"), "b.toml:2:19: there is no user '-1'");
   EXPECT_EQ(failureOf("[nimbod]\nallow_groups = [1.5]\n"),
             "b.toml:2:17: 'allow_groups' must be a name or a number");
   EXPECT_EQ(failureOf("[nimbod]\nmax_connections = 0\n"),
             "b.toml:2:19: 'max_connections' must be from 0x1 to 0x10000");
   EXPECT_EQ(failureOf("[nimbod]\nmetrics = \"x\"\n"),
             "b.toml:2:11: address 'x': expected a port, 0 to 65535, at the end");
   EXPECT_EQ(failureOf("[nimbod]\nlog = \"file\"\n"),
             "b.toml:2:7: 'file' is no place for the log: stderr, syslog");
   EXPECT_EQ(failureOf("[nimbod]\nsimulate = 1\n"),
             "b.toml:2:12: 'simulate' must be true or false");
   EXPECT_EQ(failureOf("[nimbod]\nbuses = 1\n"),
             "b.toml:2:9: 'nimbod.buses' must be a table of buses");
   EXPECT_EQ(failureOf("nimbod.buses.a = 1\n"), "b.toml:1:18: 'a' must be a table");
}

TEST(ConfigFile, SaysWhereAMistakeInABusIs) {
   EXPECT_EQ(failureOf(bus + "bus = 1\n"), "b.toml:4:1: [nimbod.buses.fans] has no key 'bus'");
   EXPECT_EQ(failureOf("[nimbod.buses.a]\n"),
             "b.toml:1:1: [nimbod.buses.a] needs the key 'number'");
   EXPECT_EQ(failureOf("[nimbod.buses.a]\nnumber = 1\n"),
             "b.toml:1:1: [nimbod.buses.a] needs the key 'device'");
   EXPECT_EQ(failureOf("[nimbod.buses.a]\nnumber = 128\ndevice = \"/x\"\n"),
             "b.toml:2:10: 'number' must be from 0x0 to 0x7f");
   EXPECT_EQ(failureOf("[nimbod.buses.a]\nnumber = 127\ndevice = \"i2c-3\"\n"),
             "b.toml:3:10: 'device' must be an absolute path, as \"/dev/i2c-3\" is");
   EXPECT_EQ(failureOf(bus + "controller = 2048\n"),
             "b.toml:4:14: 'controller' must be from 0x0 to 0x7ff");
   EXPECT_EQ(failureOf(bus + "pci = \"3\"\n"),
             "b.toml:4:7: '3' is no PCI function: of the form \"0000:03:00.0\"");
   EXPECT_EQ(failureOf(bus + "timeout_ms = 15\n"),
             "b.toml:4:14: 'timeout_ms' must be a multiple of 10");
   EXPECT_EQ(failureOf(bus + "timeout_ms = 0\n"),
             "b.toml:4:14: 'timeout_ms' must be from 0xa to 0xea60");
   EXPECT_EQ(failureOf(bus + "retries = 101\n"), "b.toml:4:11: 'retries' must be from 0x0 to 0x64");
   EXPECT_EQ(failureOf("[nimbod.buses.\"a b\"]\n"),
             "b.toml:1:15: 'a b' is no name for a bus: up to 64 letters, digits, '_', '-' and '.'");
   EXPECT_EQ(failureOf("[nimbod.buses." + std::string(65, 'x') + "]\n").substr(0, 15),
             "b.toml:1:15: 'x");
}

TEST(ConfigFile, TwoBusesThatARequestCannotTellApartAreRefused) {
   const std::string twin = "[nimbod.buses.leds]\nnumber = 3\ndevice = \"/dev/i2c-8\"\n";
   EXPECT_EQ(
      failureOf(bus + twin),
      "b.toml:5:10: a request for bus 3 could be for 'fans' as well as for 'leds': they need "
      "different numbers, controllers or PCI functions");
   EXPECT_NE(failureOf(bus + "controller = 1\n" + twin + "controller = 1\n"), "none");
   EXPECT_NE(failureOf(bus + "pci = \"03:00.0\"\n" + twin + "pci = \"0000:03:00.0\"\n"), "none");
   EXPECT_EQ(failureOf(bus + twin + "controller = 1\n"), "none");
   EXPECT_EQ(failureOf(bus + "controller = 0\n" + twin + "controller = 1\n"), "none");
   EXPECT_EQ(failureOf(bus + "pci = \"03:00.0\"\n" + twin + "controller = 1\n"), "none");
}

TEST(ConfigFile, ANameCannotBeGivenTwice) {
   EXPECT_NE(failureOf(bus + bus).find("b.toml:4:"), std::string::npos);
}

TEST(ConfigFile, TooManyBusesAreRefused) {
   std::string text;
   for (int i = 0; i < 257; ++i) {
      text += "[nimbod.buses.b" + std::to_string(i) +
              "]\nnumber = 0\ndevice = \"/x\"\ncontroller = " + std::to_string(i) + "\n";
   }
   EXPECT_NE(failureOf(text).find("more than 256 buses"), std::string::npos);
}

TEST(ConfigFile, LeavesTheTablesOfOtherProgramsAlone) {
   EXPECT_EQ(configOf("title = 1\n[devices.x]\nlist = 3\n" + bus).buses.size(), 1u);
}

TEST(ConfigFile, OtherProgramsLeaveItsTableAlone) {
   const std::string text =
      bus + simulated + "[devices.x]\nlist = \"l.csv\"\ntransport = \"mock:\"\n";
   EXPECT_EQ(Board::simulatedBoardFromText(text, "b.toml").i2c.size(), 1u);
   EXPECT_EQ(Board::BoardFile(text, "b.toml").devices().size(), 1u);
}

TEST(ConfigFile, HostileTextIsAnErrorAndNoMore) {
   EXPECT_NE(failureOf(std::string(100000, '[')), "none");
   EXPECT_NE(failureOf(std::string("\0\xff\xfe", 3)), "none");
   EXPECT_NE(failureOf("[nimbod.buses.\"\\u001b[31m\"]\n").find("'?[31m'"), std::string::npos);
   EXPECT_NE(failureOf("[nimbod]\nsocket_owner = \"\\u001b[31m\"\n").find("'?[31m'"),
             std::string::npos);
   const std::string whole = bus + "pci = \"03:00.0\"\nsimulate = true\n" + simulated;
   for (std::size_t cut = 0; cut < whole.size(); ++cut) {
      failureOf(whole.substr(0, cut));
   }
}

TEST(ConfigFile, AFileMustBeARegularOne) {
   EXPECT_THROW(ConfigFile("/dev/zero"), Board::FileError);
   EXPECT_THROW(ConfigFile("/nonexistent/board.toml"), Board::FileError);
}

} // namespace
} // namespace Nimbo
