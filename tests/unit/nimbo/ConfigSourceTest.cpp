#include "nimbo/ConfigSource.h"

#include <optional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board/FileError.h"
#include "nimbo/ConfigValues.h"
#include "nimbo/UsageError.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/TempDir.h"

namespace Nimbo {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using TestSupport::EnvironmentVariable;

class ConfigSourceTest : public testing::Test {
protected:
   /// What the file, if there is one, and the command line give.
   Config read(const std::string& text = "") {
      if (!text.empty()) {
         arguments.configFile = dir.write("b.toml", text);
      }
      return ConfigSource(arguments).read();
   }

   /// The text of the error, and whether it is one of usage.
   std::string failure(const std::string& text = "") {
      try {
         read(text);
      } catch (const UsageError& error) {
         return "usage: " + std::string(error.what());
      } catch (const std::exception& error) {
         std::string what = error.what();
         const std::size_t file = what.find(dir.path());
         return file == std::string::npos ? what : what.erase(file, dir.path().size() + 1);
      }
      return "none";
   }

   const TestSupport::TempDir dir;
   const EnvironmentVariable noDirectory{"NM_SOCKET_DIR", std::nullopt};
   const EnvironmentVariable noFile{"NM_SOCKET_FILE", std::nullopt};
   Arguments arguments;
};

const std::string bus = "[nimbod.buses.fans]\nnumber = 3\ndevice = \"/dev/i2c-7\"\n";
const std::string simulated =
   "[simulate.i2c.a]\nbus = \"/dev/i2c-7\"\naddress = 0x50\nkind = \"block\"\n"
   "[simulate.i2c.b]\nbus = \"/dev/i2c-3\"\naddress = 0x50\nkind = \"block\"\n"
   "[simulate.i2c.c]\nbus = \"/dev/i2c-7\"\naddress = 0x51\nkind = \"block\"\n";

TEST_F(ConfigSourceTest, WithoutAFileTheDefaultsCount) {
   arguments.buses = {busFrom("3=/dev/i2c-7")};
   const Config config = read();
   EXPECT_EQ(config.socketPath(), "/var/run/platform/smbus");
   EXPECT_EQ(config.socketMode, 0660u);
   EXPECT_THAT(config.allowedUsers, IsEmpty());
   EXPECT_THAT(config.allowedGroups, IsEmpty());
   EXPECT_EQ(config.maxConnections, 256u);
   EXPECT_EQ(config.metrics, "");
   EXPECT_THAT(config.buses, ElementsAre(busFrom("3=/dev/i2c-7")));
   EXPECT_THAT(config.simulated.i2c, IsEmpty());
}

TEST_F(ConfigSourceTest, TheEnvironmentSaysWhereClientsLook) {
   const EnvironmentVariable otherDirectory("NM_SOCKET_DIR", "/env");
   const EnvironmentVariable otherFile("NM_SOCKET_FILE", "name");
   EXPECT_EQ(read(bus).socketPath(), "/env/name");
   EXPECT_EQ(read("nimbod.socket_file = \"f\"\n" + bus).socketPath(), "/env/f");
   EXPECT_EQ(read("nimbod.socket_dir = \"/file\"\n" + bus).socketPath(), "/file/name");
   arguments.socketDirectory = "/line";
   EXPECT_EQ(read("nimbod.socket_dir = \"/file\"\n" + bus).socketPath(), "/line/name");
}

TEST_F(ConfigSourceTest, TheCommandLineComesBeforeTheFile) {
   const std::string text = "[nimbod]\nsocket_dir = \"/x\"\nsocket_file = \"y\"\n"
                            "socket_mode = \"0600\"\nallow_users = [1]\nallow_groups = [2]\n"
                            "max_connections = 3\nmetrics = \"4\"\ntrace = 5\nlog = \"syslog\"\n" +
                            bus;
   Config config = read(text);
   EXPECT_EQ(config.socketPath(), "/x/y");
   EXPECT_EQ(config.maxConnections, 3u);
   arguments.socketDirectory = "/a";
   arguments.socketFile = "b";
   arguments.socketMode = 0666;
   arguments.allowedUsers = std::vector<uid_t>{6};
   arguments.allowedGroups = std::vector<gid_t>{};
   arguments.maxConnections = 7;
   arguments.metrics = "8";
   arguments.traceLevels = "*=9";
   arguments.log = Board::LogTarget::standardError;
   config = read(text);
   EXPECT_EQ(config.socketPath(), "/a/b");
   EXPECT_EQ(config.socketMode, 0666u);
   EXPECT_THAT(config.allowedUsers, ElementsAre(6));
   EXPECT_THAT(config.allowedGroups, IsEmpty());
   EXPECT_EQ(config.maxConnections, 7u);
   EXPECT_EQ(config.metrics, "8");
   EXPECT_EQ(config.traceLevels, "*=9");
   EXPECT_EQ(config.log, Board::LogTarget::standardError);
}

TEST_F(ConfigSourceTest, BusesOfTheCommandLineReplaceThoseOfTheFile) {
   arguments.buses = {busFrom("1=/dev/i2c-1"), busFrom("2=/dev/i2c-1")};
   EXPECT_THAT(read(bus).buses, ElementsAre(busFrom("1=/dev/i2c-1"), busFrom("2=/dev/i2c-1")));
}

TEST_F(ConfigSourceTest, TwoBusesOfOneNumberOnTheCommandLineAreRefused) {
   arguments.buses = {busFrom("1=/dev/i2c-1"), busFrom("1=/dev/i2c-2")};
   EXPECT_EQ(failure(), "usage: --bus: there are two buses 1");
}

TEST_F(ConfigSourceTest, ToSimulateWithoutNamingABusIsToServeAllUnderTheirNumbers) {
   arguments.simulate = true;
   const Config config = read(simulated);
   BusConfig three = busFrom("3=/dev/i2c-3");
   BusConfig seven = busFrom("7=/dev/i2c-7");
   three.simulated = seven.simulated = true;
   EXPECT_THAT(config.buses, ElementsAre(three, seven));
   EXPECT_THAT(config.simulated.i2c, SizeIs(3));
}

TEST_F(ConfigSourceTest, TheFileMayAskForThatItself) {
   EXPECT_THAT(read("nimbod.simulate = true\n" + simulated).buses, SizeIs(2));
}

TEST_F(ConfigSourceTest, ASimulatedBusWithoutANumberHasToBeGivenOne) {
   arguments.simulate = true;
   const std::string text =
      "[simulate.i2c.a]\nbus = \"/dev/i2c-128\"\naddress = 0x50\nkind = \"block\"\n";
   EXPECT_EQ(failure(text), "the simulated /dev/i2c-128 has no number from 0 to 127: give it one "
                            "with --bus or in a table [nimbod.buses.NAME]");
   arguments.buses = {busFrom("3=/dev/i2c-128")};
   EXPECT_EQ(failure(text), "none");
}

TEST_F(ConfigSourceTest, ToSimulateMakesTheNamedBusesSimulated) {
   arguments.simulate = true;
   Config config = read(bus + simulated);
   ASSERT_THAT(config.buses, SizeIs(1));
   EXPECT_TRUE(config.buses[0].simulated);
   arguments.buses = {busFrom("9=/dev/i2c-3")};
   config = read(bus + simulated);
   ASSERT_THAT(config.buses, SizeIs(1));
   EXPECT_EQ(config.buses[0].number, 9);
   EXPECT_TRUE(config.buses[0].simulated);
}

TEST_F(ConfigSourceTest, OneSimulatedBusAmongOthersBringsTheBoard) {
   const Config config = read(
      bus + "simulate = true\n[nimbod.buses.x]\nnumber = 4\ndevice = \"/dev/i2c-9\"\n" + simulated);
   EXPECT_TRUE(config.buses.at(0).simulated);
   EXPECT_FALSE(config.buses.at(1).simulated);
   EXPECT_THAT(config.simulated.i2c, SizeIs(3));
}

TEST_F(ConfigSourceTest, WhatIsNotSimulatedIsNotRead) {
   EXPECT_THAT(read(bus + "[simulate]\nusb = 1\n").simulated.i2c, IsEmpty());
}

TEST_F(ConfigSourceTest, SimulatingNeedsAFileThatSaysWhat) {
   arguments.simulate = true;
   EXPECT_EQ(failure(), "usage: --simulate needs --config: the file that says what to simulate");
   EXPECT_EQ(failure(bus), "b.toml:1:1: there is no [simulate] table: nothing to simulate");
   EXPECT_EQ(failure("[simulate.spi.l]\ndevice = \"/dev/spidev0.0\"\n"),
             "b.toml: no I2C bus is simulated");
   arguments.buses = {busFrom("9=/dev/i2c-9")};
   EXPECT_EQ(failure(simulated),
             "usage: --bus: '/dev/i2c-9' is not simulated on the board; there is /dev/i2c-3, "
             "/dev/i2c-7");
}

TEST_F(ConfigSourceTest, NothingToServeIsAnError) {
   const std::string none =
      "there is no bus to serve: neither --bus nor a table [nimbod.buses.NAME] names one";
   EXPECT_EQ(failure(), none);
   EXPECT_EQ(failure("[nimbod]\n" + simulated), none);
}

TEST_F(ConfigSourceTest, TheSocketsPathHasToFit) {
   arguments.buses = {busFrom("3=/dev/i2c-7")};
   arguments.socketFile = "s";
   arguments.socketDirectory = "/" + std::string(104, 'd');
   EXPECT_EQ(read().socketPath().size(), 107u);
   arguments.socketFile = "ss";
   EXPECT_EQ(failure(), "the socket's path is 108 bytes long, of which a socket can have 107: /" +
                           std::string(104, 'd') + "/ss");
   arguments.socketDirectory = "";
   EXPECT_EQ(failure(), "the socket's directory has no name");
}

TEST_F(ConfigSourceTest, TheEnvironmentsNameIsChecked) {
   const EnvironmentVariable otherFile("NM_SOCKET_FILE", "a/b");
   EXPECT_EQ(failure(bus), "'a/b' is no name of a file in the socket's directory");
}

TEST_F(ConfigSourceTest, TheSampleBoardCanBeServed) {
   arguments.configFile = TARN_SOURCE_DIR "/examples/switch-board.toml";
   ASSERT_THAT(read().buses, SizeIs(1));
   EXPECT_FALSE(read().buses[0].simulated);
   arguments.simulate = true;
   EXPECT_TRUE(read().buses.at(0).simulated);
   EXPECT_EQ(read().buses.at(0).number, 3);
}

TEST_F(ConfigSourceTest, ReadsAnewWhatHasChanged) {
   arguments.configFile = dir.write("b.toml", bus);
   const ConfigSource source(arguments);
   EXPECT_EQ(source.read().buses.at(0).device, "/dev/i2c-7");
   dir.write("b.toml", "[nimbod.buses.x]\nnumber = 1\ndevice = \"/dev/i2c-1\"\n");
   EXPECT_THAT(source.read().buses,
               ElementsAre(BusConfig{.name = "x", .number = 1, .device = "/dev/i2c-1"}));
   dir.write("b.toml", "nimbod = 1\n");
   EXPECT_THROW((void)source.read(), Board::FileError);
   dir.write("b.toml", bus);
   EXPECT_EQ(source.read().buses.at(0).device, "/dev/i2c-7");
}

} // namespace
} // namespace Nimbo
