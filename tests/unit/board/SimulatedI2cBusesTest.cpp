#include "board/SimulatedI2cBuses.h"

#include <cerrno>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "board/SimulatedBoardParser.h"
#include "tests/support/TempDir.h"

namespace Board {
namespace {

SimulatedI2cBuses busesOf(const std::string& text, const std::string& path = "b.toml") {
   return simulatedI2cBuses(simulatedBoardFromText(text, path));
}

std::string device(const std::string& name, const std::string& bus, int address,
                   const std::string& rest = "kind = \"word\"\n") {
   return "[simulate.i2c." + name + "]\nbus = \"" + bus +
          "\"\naddress = " + std::to_string(address) + "\n" + rest;
}

/// Reads `size` bytes from where the device's pointer is. The errno, or 0.
int readFrom(Hardware::SimulatedI2cBus& bus, std::uint8_t address, std::size_t size,
             std::vector<std::uint8_t>& bytes) {
   std::vector<Hardware::I2cMessage> messages(1);
   messages[0].address = address;
   messages[0].isRead = true;
   messages[0].bytes.resize(size);
   const int error = bus.transfer(messages);
   bytes = messages[0].bytes;
   return error;
}

TEST(SimulatedI2cBuses, OneABusWithEachDeviceInItsPlace) {
   const SimulatedI2cBuses buses =
      busesOf(device("a", "/dev/i2c-3", 0x50) + device("b", "/dev/i2c-3", 0x51) +
              device("c", "/dev/i2c-7", 0x50, "kind = \"bytes\"\n"));
   ASSERT_EQ(buses.size(), 2u);
   const auto& three = buses.at("/dev/i2c-3");
   const auto& seven = buses.at("/dev/i2c-7");
   ASSERT_TRUE(three->device(0x50) && three->device(0x51) && seven->device(0x50));
   EXPECT_FALSE(three->device(0x52));
   EXPECT_FALSE(seven->device(0x51));
   EXPECT_EQ(three->device(0x50)->kind(), Hardware::SimulatedI2cKind::word);
   EXPECT_EQ(seven->device(0x50)->kind(), Hardware::SimulatedI2cKind::bytes);
}

TEST(SimulatedI2cBuses, BoardWithoutI2cHasNone) {
   EXPECT_TRUE(busesOf("[simulate.pci.a]\nfunction = \"0000:03:00.0\"\nsize = 64\n").empty());
}

TEST(SimulatedI2cBuses, DevicesHaveTheirNamesAndValues) {
   const TestSupport::TempDir dir;
   std::ofstream(dir.path("list.csv")) << "number,name,type,writeable,width\n"
                                          "2,SCRATCH,scratch,true,32\n";
   const SimulatedI2cBuses buses =
      busesOf(device("a", "/dev/i2c-3", 0x50,
                     "kind = \"block\"\naddress_unit = 4\nlist = \"list.csv\"\n"
                     "values = { SCRATCH = 0x01020304, 0 = 5 }\n"),
              dir.path("b.toml"));
   const auto found = buses.at("/dev/i2c-3")->device(0x50);
   EXPECT_EQ(found->addressUnit(), 4u);
   EXPECT_EQ(found->addressOf("SCRATCH"), 2u);
   EXPECT_EQ(found->registerAt(2), 0x01020304u);
   EXPECT_EQ(found->registerAt(0), 5u);
   EXPECT_TRUE(found->journal().empty()) << "setting it up is nothing that the bus did";
}

TEST(SimulatedI2cBuses, DevicesHaveTheirFaultsDelayAndPresence) {
   const SimulatedI2cBuses buses =
      busesOf(device("a", "/dev/i2c-3", 0x50,
                     "kind = \"bytes\"\ndelay_us = 7\nvalues = { 0 = 0x0f }\n"
                     "faults = [{ kind = \"eio\", first = 2, count = 1 }, "
                     "{ kind = \"wrong\", first = 3, mask = 0xf0 }]\n") +
              device("gone", "/dev/i2c-3", 0x51, "kind = \"bytes\"\npresent = false\n"));
   Hardware::SimulatedI2cBus& bus = *buses.at("/dev/i2c-3");
   EXPECT_EQ(bus.device(0x50)->faults().delay().count(), 7);
   std::vector<std::uint8_t> bytes;
   EXPECT_EQ(readFrom(bus, 0x50, 1, bytes), 0);
   EXPECT_EQ(bytes, std::vector<std::uint8_t>{0x0f});
   EXPECT_EQ(readFrom(bus, 0x50, 1, bytes), EIO);
   EXPECT_EQ(readFrom(bus, 0x50, 1, bytes), 0);
   EXPECT_EQ(bytes[0] & 0xf0, 0xf0) << "inverted";
   EXPECT_EQ(readFrom(bus, 0x51, 1, bytes), ENXIO);
   bus.device(0x51)->faults().lostIs(false);
   EXPECT_EQ(readFrom(bus, 0x51, 1, bytes), 0);
}

TEST(SimulatedI2cBuses, EachCallMakesItsOwn) {
   const SimulatedBoard board = simulatedBoardFromText(device("a", "/dev/i2c-3", 0x50), "b.toml");
   const SimulatedI2cBuses first = simulatedI2cBuses(board);
   const SimulatedI2cBuses second = simulatedI2cBuses(board);
   first.at("/dev/i2c-3")->device(0x50)->registerIs(1, 2);
   EXPECT_EQ(second.at("/dev/i2c-3")->device(0x50)->registerAt(1), 0u);
}

} // namespace
} // namespace Board
