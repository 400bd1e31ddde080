#include "board/SimulatedBoardParser.h"

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "board/FileError.h"
#include "tests/support/TempDir.h"

namespace Board {
namespace {

std::string failureOf(const std::string& text) {
   try {
      simulatedBoardFromText(text, "b.toml");
   } catch (const FileError& error) {
      return error.what();
   }
   return "none";
}

const std::string i2c =
   "[simulate.i2c.a]\nbus = \"/dev/i2c-3\"\naddress = 0x50\nkind = \"block\"\n";
const std::string pci = "[simulate.pci.a]\nfunction = \"0000:03:00.0\"\nsize = 64\n";

TEST(SimulatedBoardParser, ReadsAnI2cDevice) {
   const SimulatedBoard board =
      simulatedBoardFromText(i2c + "address_unit = 4\ndelay_us = 7\npresent = false\n"
                                   "values = { 0x10 = 0xffffffff, 17 = 2 }\n"
                                   "faults = [{ kind = \"wrong\", direction = \"read\", "
                                   "first = 2, count = 3, mask = 1 }]\n",
                             "b.toml");
   ASSERT_EQ(board.i2c.size(), 1u);
   const I2cSpec& spec = board.i2c[0];
   EXPECT_EQ(spec.name, "a");
   EXPECT_EQ(spec.bus, "/dev/i2c-3");
   EXPECT_EQ(spec.address, 0x50);
   EXPECT_EQ(spec.kind, Hardware::SimulatedI2cKind::block);
   EXPECT_EQ(spec.addressUnit, 4u);
   EXPECT_EQ(spec.delay.count(), 7);
   EXPECT_FALSE(spec.present);
   ASSERT_EQ(spec.values.size(), 2u);
   ASSERT_EQ(spec.faults.size(), 1u);
   EXPECT_EQ(spec.faults[0].kind, Hardware::FaultKind::wrongBytes);
   EXPECT_EQ(spec.faults[0].direction, Hardware::FaultDirection::read);
   EXPECT_EQ(spec.faults[0].first, 2u);
   EXPECT_EQ(spec.faults[0].count, 3u);
   EXPECT_EQ(spec.faults[0].xorMask, 1);
}

TEST(SimulatedBoardParser, ReadsSpiAndPciDevices) {
   const SimulatedBoard board = simulatedBoardFromText(
      pci + "resource = 2\nvendor = 0x1af4\ndevice = 0x1110\nvalues = { 0x3c = 1 }\n"
            "[simulate.spi.b]\ndevice = \"/dev/spidev12.3\"\nvalues = { 0xff = 0xffff }\n",
      "b.toml");
   ASSERT_EQ(board.pci.size(), 1u);
   EXPECT_EQ(board.pci[0].function, "0000:03:00.0");
   EXPECT_EQ(board.pci[0].resource, 2u);
   EXPECT_EQ(board.pci[0].size, 64u);
   EXPECT_EQ(board.pci[0].vendor, 0x1af4u);
   ASSERT_EQ(board.spi.size(), 1u);
   EXPECT_EQ(board.spi[0].controller, 12u);
}

TEST(SimulatedBoardParser, LeavesTheTablesOfOtherProgramsAlone) {
   EXPECT_EQ(
      simulatedBoardFromText("title = 1\n[devices.x]\nlist = 3\n" + i2c, "b.toml").i2c.size(), 1u);
}

TEST(SimulatedBoardParser, NamesOfAListStandForAddresses) {
   const TestSupport::TempDir dir;
   const std::string list = dir.path("list.csv");
   std::ofstream(list) << "number,name,type,writeable,width\n2,SCRATCH,scratch,true,32\n";
   const std::string named = "list = \"list.csv\"\nvalues = { SCRATCH = 5 }\n";
   const std::string file = dir.path("b.toml");
   EXPECT_EQ(simulatedBoardFromText(i2c + named, file).i2c[0].values.at(0).first, 2u);
   EXPECT_EQ(simulatedBoardFromText(pci + named, file).pci[0].values.at(0).first, 8u);
   EXPECT_THROW(simulatedBoardFromText(i2c + "list = \"list.csv\"\nvalues = { OTHER = 5 }\n", file),
                FileError);
   EXPECT_THROW(simulatedBoardFromText(i2c + "list = \"none.csv\"\n", file), FileError);
   std::ofstream(list) << "number,name,type,writeable,width\n2,X[3:0],scratch,true,32\n";
   EXPECT_THROW(simulatedBoardFromText(i2c + "list = \"list.csv\"\n", file), FileError);
}

TEST(SimulatedBoardParser, SaysWhereAMistakeIs) {
   EXPECT_EQ(failureOf(i2c + "adress = 1\n"), "b.toml:5:1: [simulate.i2c.a] has no key 'adress'");
   EXPECT_EQ(failureOf("[simulate.i2c.a]\n"), "b.toml:1:1: [simulate.i2c.a] needs the key 'bus'");
   EXPECT_EQ(failureOf(i2c + "delay_us = \"x\"\n"), "b.toml:5:12: 'delay_us' must be an integer");
   EXPECT_EQ(failureOf(i2c + "present = 1\n"), "b.toml:5:11: 'present' must be true or false");
   EXPECT_EQ(failureOf(i2c + "values = { x = 1 }\n"),
             "b.toml:5:12: 'x' is no register address, and there is no list");
   EXPECT_EQ(failureOf(i2c + "values = { 0x10000 = 1 }\n"),
             "b.toml:5:12: there is no register at 0x10000");
   EXPECT_EQ(failureOf(i2c + "values = { 0x10 = 0x100000000 }\n"),
             "b.toml:5:19: '0x10' must be from 0x0 to 0xffffffff");
   EXPECT_EQ(failureOf(i2c + "values = { 0x10 = 1, 16 = 1 }\n").substr(0, 9), "b.toml:5:");
   EXPECT_EQ(failureOf(pci + "values = { 2 = 1 }\n"), "b.toml:4:12: 0x2 is no multiple of 4");
   EXPECT_EQ(failureOf("[simulate]\nusb = 1\n"), "b.toml:2:1: [simulate] has no key 'usb'");
   EXPECT_EQ(failureOf(i2c + "faults = [{ kind = \"rust\" }]\n"),
             "b.toml:5:20: 'rust' is no kind of fault: nak, eio, timeout, short, wrong");
   EXPECT_EQ(failureOf(i2c + "faults = [{ kind = \"nak\", mask = 1 }]\n"),
             "b.toml:5:27: a fault has no key 'mask'");
}

TEST(SimulatedBoardParser, RefusesWhatIsNoPlaceForADevice) {
   for (const char* bus : {"/dev/null", "/dev/i2c-", "/dev/i2c-03", "/dev/i2c-3/..", "i2c-3",
                           "/dev/i2c-99999999999999999999"}) {
      const std::string text =
         "[simulate.i2c.a]\nbus = \"" + std::string(bus) + "\"\naddress = 0x50\nkind = \"block\"\n";
      EXPECT_EQ(failureOf(text), "b.toml:2:7: 'bus' must be of the form \"/dev/i2c-N\"") << bus;
   }
   for (const char* device : {"/dev/spidev0", "/dev/spidev0.", "/dev/spidev0.0x"}) {
      EXPECT_NE(failureOf("[simulate.spi.a]\ndevice = \"" + std::string(device) + "\"\n"), "none");
   }
   for (const char* function : {"03:00.0", "0000:03:00.8", "0000:03:00.0/", "0000:0G:00.0"}) {
      EXPECT_NE(
         failureOf("[simulate.pci.a]\nsize = 4\nfunction = \"" + std::string(function) + "\"\n"),
         "none");
   }
}

TEST(SimulatedBoardParser, RefusesTwoDevicesInOnePlaceOrOfOneName) {
   const std::string twin =
      "[simulate.i2c.b]\nbus = \"/dev/i2c-3\"\naddress = 0x50\nkind = \"word\"\n";
   EXPECT_EQ(failureOf(i2c + twin), "b.toml:7:11: 'a' is at 0x50 of /dev/i2c-3 already");
   EXPECT_EQ(failureOf(i2c + pci), "b.toml:5:15: there are two devices named 'a'");
}

TEST(SimulatedBoardParser, RefusesWhatIsNoTableOfDevicesAndNoDevice) {
   EXPECT_EQ(failureOf("[simulate]\ni2c = 3\n"),
             "b.toml:2:7: 'simulate.i2c' must be a table of devices");
   EXPECT_EQ(failureOf("[simulate]\nspi = []\n"),
             "b.toml:2:7: 'simulate.spi' must be a table of devices");
   EXPECT_EQ(failureOf("[simulate.pci]\na = 3\n"), "b.toml:2:5: 'a' must be a table");
   EXPECT_EQ(failureOf("[simulate.pci.\"a b\"]\n"),
             "b.toml:1:15: 'a b' is no name for a device: letters, digits, '_', '-' and '.' only");
   EXPECT_EQ(failureOf("[simulate.pci.\"\"]\n"),
             "b.toml:1:15: '' is no name for a device: letters, digits, '_', '-' and '.' only");
}

TEST(SimulatedBoardParser, RefusesKindsAndDirectionsThatThereAreNot) {
   EXPECT_EQ(failureOf("[simulate.i2c.a]\nbus = \"/dev/i2c-3\"\naddress = 3\nkind = \"dword\"\n"),
             "b.toml:4:8: 'dword' is no kind of I2C device: block, word, bytes");
   EXPECT_EQ(failureOf(i2c + "faults = [{ kind = \"nak\", direction = \"up\" }]\n"),
             "b.toml:5:39: 'up' is no direction: any, read, write");
   EXPECT_EQ(failureOf(i2c + "faults = { kind = \"nak\" }\n"),
             "b.toml:5:10: 'faults' must be an array of tables");
   EXPECT_EQ(failureOf(i2c + "faults = [\"nak\"]\n"), "b.toml:5:11: a fault must be a table");
   EXPECT_EQ(failureOf(i2c + "faults = [{ kind = \"nak\", first = 0 }]\n"),
             "b.toml:5:35: 'first' must be from 0x1 to 0x7fffffffffffffff");
   EXPECT_EQ(failureOf(i2c + "faults = [{ kind = \"nak\", length = 1 }]\n"),
             "b.toml:5:27: a fault has no key 'length'");
}

TEST(SimulatedBoardParser, RefusesAddressesAndSizesThatNoDeviceHas) {
   const auto at = [](const std::string& address) {
      return failureOf("[simulate.i2c.a]\nbus = \"/dev/i2c-3\"\naddress = " + address +
                       "\nkind = \"word\"\n");
   };
   EXPECT_EQ(at("2"), "b.toml:3:11: 'address' must be from 0x3 to 0x77");
   EXPECT_EQ(at("0x78"), "b.toml:3:11: 'address' must be from 0x3 to 0x77");
   EXPECT_EQ(at("3"), "none");
   EXPECT_EQ(at("0x77"), "none");
   EXPECT_EQ(failureOf(i2c + "address_unit = 5\n"),
             "b.toml:5:16: 'address_unit' must be from 0x1 to 0x4");
   EXPECT_EQ(failureOf(i2c + "delay_us = 3600000001\n"),
             "b.toml:5:12: 'delay_us' must be from 0x0 to 0xd693a400");
   const std::string function = "[simulate.pci.a]\nfunction = \"0000:03:00.0\"\n";
   EXPECT_EQ(failureOf(function + "size = 6\n"), "b.toml:3:8: 'size' must be a multiple of 4");
   EXPECT_EQ(failureOf(function + "size = 0\n"),
             "b.toml:3:8: 'size' must be from 0x4 to 0x40000000");
   EXPECT_EQ(failureOf(function + "size = 0x40000004\n"),
             "b.toml:3:8: 'size' must be from 0x4 to 0x40000000");
   EXPECT_EQ(failureOf(function), "b.toml:1:1: [simulate.pci.a] needs the key 'size'");
   EXPECT_EQ(failureOf(pci + "resource = 6\n"), "b.toml:4:12: 'resource' must be from 0x0 to 0x5");
   EXPECT_EQ(failureOf("[simulate.pci.a]\nsize = 4\nfunction = \"0000:03:00.A\"\n"),
             "b.toml:3:12: 'function' must be of the form \"0000:03:00.0\", in lower-case hex");
   EXPECT_EQ(failureOf("[simulate.spi.a]\ndevice = \"/dev/spidev01.0\"\n"),
             "b.toml:2:10: 'device' must be of the form \"/dev/spidevB.C\"");
}

TEST(SimulatedBoardParser, RefusesRegistersThatTheDeviceDoesNotHave) {
   const std::string bytes =
      "[simulate.i2c.a]\nbus = \"/dev/i2c-3\"\naddress = 0x50\nkind = \"bytes\"\n";
   EXPECT_EQ(failureOf(bytes + "values = { 0x100 = 1 }\n"),
             "b.toml:5:12: there is no register at 0x100");
   EXPECT_EQ(failureOf(bytes + "values = { 1 = 0x100 }\n"),
             "b.toml:5:16: '1' must be from 0x0 to 0xff");
   EXPECT_EQ(failureOf(bytes + "values = [1]\n"),
             "b.toml:5:10: 'values' must be a table of registers and their values");
   EXPECT_EQ(failureOf(bytes + "values = { 0x10 = 1, 16 = 1 }\n"),
             "b.toml:5:22: the register at 0x10 has two values");
   EXPECT_EQ(failureOf(pci + "values = { 64 = 1 }\n"), "b.toml:4:12: there is no register at 0x40");
   EXPECT_EQ(failureOf("[simulate.spi.s]\ndevice = \"/dev/spidev0.0\"\nvalues = { 1 = 65536 }\n"),
             "b.toml:3:16: '1' must be from 0x0 to 0xffff");
}

TEST(SimulatedBoardParser, RefusesListsThatCannotBeRead) {
   const TestSupport::TempDir dir;
   const std::string file = dir.path("b.toml");
   const auto failure = [&](const std::string& text) {
      try {
         simulatedBoardFromText(text, file);
      } catch (const FileError& error) {
         return std::string(error.what()).substr(file.size());
      }
      return std::string("none");
   };
   const std::string list = dir.path("list.csv");
   std::ofstream(list) << "number,name,type,writeable,width\n2,SCRATCH,scratch,true,32\n";
   EXPECT_EQ(failure(i2c + "list = \"list.csv\"\nvalues = { OTHER = 5 }\n"),
             ":6:12: the list has no register 'OTHER'");
   EXPECT_EQ(failure(i2c + "list = 3\n"), ":5:8: 'list' must be a string");
   std::ofstream(list) << "number,name,type,writeable,width\n2,X[3:0],scratch,true,32\n";
   EXPECT_EQ(failure(i2c + "list = \"list.csv\"\n"),
             ":5:8: " + list + ":2: this array cannot be expanded");
   EXPECT_EQ(failure(i2c + "list = \"none.csv\"\n").substr(0, 7), ":5:8: " + list.substr(0, 1));
}

TEST(SimulatedBoardParser, RefusesMoreDevicesThanThereMayBe) {
   std::string text;
   for (unsigned i = 0; i < 1024; ++i) {
      text += "[simulate.spi.d" + std::to_string(i) + "]\ndevice = \"/dev/spidev0." +
              std::to_string(i) + "\"\n";
   }
   EXPECT_EQ(failureOf(text), "none");
   EXPECT_EQ(failureOf(text + "[simulate.spi.x]\ndevice = \"/dev/spidev1.0\"\n"),
             "b.toml:2049:15: more than 1024 devices");
}

TEST(SimulatedBoardParser, RefusesTwoDevicesInOnePlaceOnEachBus) {
   EXPECT_EQ(failureOf("[simulate.spi.a]\ndevice = \"/dev/spidev0.0\"\n"
                       "[simulate.spi.b]\ndevice = \"/dev/spidev0.0\"\n"),
             "b.toml:4:10: 'a' is at /dev/spidev0.0 already");
   const std::string other = "[simulate.pci.b]\nfunction = \"0000:03:00.0\"\nsize = 8\n";
   EXPECT_EQ(failureOf(pci + other + "resource = 0\n"),
             "b.toml:7:12: 'a' is resource 0 of 0000:03:00.0 already");
   EXPECT_EQ(failureOf(pci + other + "resource = 1\nvendor = 5\n"),
             "b.toml:8:10: 'a' gives 0000:03:00.0 other ids");
   EXPECT_EQ(failureOf(pci + other + "resource = 1\n"), "none");
}

TEST(SimulatedBoardParser, RefusesAFileWithNothingToSimulate) {
   EXPECT_EQ(failureOf(""), "b.toml:1:1: there is no [simulate] table: nothing to simulate");
   EXPECT_EQ(failureOf("[simulate]\n"), "b.toml:1:1: there is no device to simulate");
   EXPECT_EQ(failureOf("simulate = 3\n"), "b.toml:1:12: 'simulate' must be a table");
}

TEST(SimulatedBoardParser, HostileTextIsAnErrorAndNoMore) {
   EXPECT_NE(failureOf(std::string(100000, '[')), "none");
   EXPECT_NE(failureOf("a = " + std::string(100000, '[')), "none");
   EXPECT_NE(failureOf(std::string("\0\xff\xfe", 3)), "none");
   EXPECT_NE(failureOf("[simulate.i2c.\"\\u001b[31m\"]\n").find("?[31m"), std::string::npos);
   for (std::size_t cut = 0; cut < i2c.size(); ++cut) {
      failureOf(i2c.substr(0, cut));
   }
}

TEST(SimulatedBoardParser, AFileMustBeARegularOne) {
   EXPECT_THROW(simulatedBoardFromFile("/dev/zero"), FileError);
   EXPECT_THROW(simulatedBoardFromFile("/nonexistent/board.toml"), FileError);
}

} // namespace
} // namespace Board
