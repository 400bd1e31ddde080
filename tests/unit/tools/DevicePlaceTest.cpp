#include "tools/tarnreg/DevicePlace.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>

#include "tests/support/EnvironmentVariable.h"
#include "tests/support/TempDir.h"
#include "tools/tarnreg/Failure.h"

namespace {

using TarnReg::devicePlace;
using TarnReg::Options;

class DevicePlace : public testing::Test {
protected:
   std::string failure(const Options& options) {
      try {
         devicePlace(options);
      } catch (const TarnReg::Failure& error) {
         return std::to_string(static_cast<int>(error.code())) + ": " + error.what();
      }
      return "none";
   }

   const TestSupport::EnvironmentVariable noBoard{"TARN_BOARD", std::nullopt};
   TestSupport::TempDir dir;
   std::string board = dir.write("b.toml", "[devices.fpga]\n"
                                           "list = 'fpga.csv'\n"
                                           "transport = 'pci:./bar'\n"
                                           "[devices.cpld]\n"
                                           "list = 'cpld.csv'\n"
                                           "transport = 'mock:'\n");
};

TEST_F(DevicePlace, IsWhatFileAndTransportSay) {
   Options options;
   options.file = "l.csv";
   EXPECT_EQ(devicePlace(options).list, "l.csv");
   EXPECT_EQ(devicePlace(options).url.text(), "mock:");
   options.transport = "i2c:/dev/i2c-3@0x50";
   EXPECT_EQ(devicePlace(options).url.text(), "i2c:/dev/i2c-3@0x50");
   options.transport = "usb:";
   EXPECT_TRUE(failure(options).starts_with("2: transport 'usb:' is not known"));
   options.board = board;
   options.transport = "mock:";
   EXPECT_EQ(devicePlace(options).list, "l.csv") << "a board file alone says nothing of the device";
}

TEST_F(DevicePlace, IsWhatTheBoardFileSaysOfTheDevice) {
   Options options;
   options.device = "fpga";
   options.board = board;
   EXPECT_EQ(devicePlace(options).list, dir.path("fpga.csv"));
   EXPECT_EQ(devicePlace(options).url.text(), "pci:./bar");
   options.device = "cpdl";
   EXPECT_EQ(failure(options), "3: " + board + " has no device cpdl; there is cpld, fpga");
   options.board = dir.write("empty.toml", "");
   EXPECT_EQ(failure(options), "3: " + options.board + " has no device cpdl; it has none");
}

TEST_F(DevicePlace, TheEnvironmentNamesTheBoardFileUnlessTheCommandLineDoes) {
   Options options;
   options.device = "fpga";
   EXPECT_EQ(failure(options), "2: --board is needed: the board file");
   const TestSupport::EnvironmentVariable named("TARN_BOARD", board);
   EXPECT_EQ(devicePlace(options).list, dir.path("fpga.csv"));
   options.board = dir.path("no.toml");
   EXPECT_EQ(failure(options), "1: " + options.board + ": No such file or directory");
}

TEST_F(DevicePlace, ACommandLineThatSaysTooLittleOrTooMuchIsRefused) {
   EXPECT_EQ(failure({}), "2: --file is needed: the register list of the device; or --device, of a "
                          "board file");
   Options options;
   options.device = "fpga";
   options.board = board;
   options.file = "l.csv";
   const std::string both =
      "2: --device goes without --file and --transport: the board file says both";
   EXPECT_EQ(failure(options), both);
   options.file.clear();
   options.transport = "mock:";
   EXPECT_EQ(failure(options), both);
}

TEST_F(DevicePlace, ABadBoardFileIsAFailureWithItsPlace) {
   Options options;
   options.device = "fpga";
   options.board = dir.write("bad.toml", "[devices.fpga]\nlist = 3\n");
   EXPECT_EQ(failure(options), "1: " + options.board + ":2:8: 'list' must be a string");
}

} // namespace
