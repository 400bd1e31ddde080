#include "nimbo/ConfigValues.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/support/Failure.h"

namespace Nimbo {
namespace {

using TestSupport::Failure;

Failure refused(const std::string& text) {
   return Failure::invalidArgument(text);
}

TEST(ConfigValues, ASocketsModeIsOctalText) {
   EXPECT_EQ(socketModeFrom("0660"), 0660u);
   EXPECT_EQ(socketModeFrom("600"), 0600u);
   EXPECT_EQ(socketModeFrom("0777"), 0777u);
   EXPECT_EQ(socketModeFrom("0"), 0u);
   for (const char* text : {"", "0680", "1777", "rw-rw----", "0o660", "-1", "660 "}) {
      EXPECT_EQ(
         Failure([&] { socketModeFrom(text); }),
         refused("'" + std::string(text) + "' is no mode of a socket: octal, as in \"0660\""));
   }
}

TEST(ConfigValues, ASocketsFileIsANameAndNoPath) {
   EXPECT_EQ(socketFileFrom("smbus"), "smbus");
   EXPECT_EQ(socketFileFrom("..smbus"), "..smbus");
   for (const char* text : {"", ".", "..", "a/b", "/smbus"}) {
      EXPECT_EQ(
         Failure([&] { socketFileFrom(text); }),
         refused("'" + std::string(text) + "' is no name of a file in the socket's directory"));
   }
   EXPECT_THROW(socketFileFrom(std::string("a\0b", 3)), std::invalid_argument);
}

TEST(ConfigValues, APciFunctionIsPackedAsRequestsHaveIt) {
   EXPECT_EQ(pciBdfFrom("0000:03:00.0"), 0x300u);
   EXPECT_EQ(pciBdfFrom("03:00.0"), 0x300u);
   EXPECT_EQ(pciBdfFrom("abcd:ef:1f.7"), 0xabcdefffu);
   EXPECT_EQ(pciBdfFrom("0000:00:02.1"), 0x11u);
}

TEST(ConfigValues, WhatIsNoPciFunctionIsRefused) {
   for (const char* text :
        {"", "3:0.0", "0000:03:00", "0000:03:20.0", "0000:03:00.8", "000g:03:00.0", "0000:03:00.00",
         "0000-03:00.0", "0000:03:00,0", "+3:00.0", "-1:00.0", "0x00:03:00.0", "0000:03:00.0 "}) {
      EXPECT_EQ(
         Failure([&] { pciBdfFrom(text); }),
         refused("'" + std::string(text) + "' is no PCI function: of the form \"0000:03:00.0\""));
   }
}

TEST(ConfigValues, ThePciFunctionThatNoRequestCanNameIsRefused) {
   EXPECT_EQ(Failure([] { pciBdfFrom("0000:00:00.0"); }),
             refused("no request can name the PCI function 0000:00:00.0: in requests it stands for "
                     "none"));
}

TEST(ConfigValues, ABusIsANumberAndADevice) {
   const BusConfig bus = busFrom("3=/dev/i2c-7");
   EXPECT_EQ(bus.number, 3);
   EXPECT_EQ(bus.device, "/dev/i2c-7");
   EXPECT_EQ(bus.name, "bus3");
   EXPECT_FALSE(bus.simulated || bus.controller || bus.pciBdf || bus.timeout || bus.retries);
   EXPECT_EQ(busFrom("0x7f=/a=b").number, 127);
   EXPECT_EQ(busFrom("0x7f=/a=b").device, "/a=b");
}

TEST(ConfigValues, WhatIsNoBusIsRefused) {
   for (const char* text :
        {"", "3", "=/dev/i2c-3", "128=/dev/i2c-3", "-1=/dev/i2c-3", "x=/dev/i2c-3"}) {
      EXPECT_EQ(Failure([&] { busFrom(text); }),
                refused("'" + std::string(text) +
                        "' is no bus: NUMBER=DEVICE, with a number from 0 to 127"));
   }
   for (const char* text : {"3=", "3=i2c-3", "3=dev/i2c-3"}) {
      EXPECT_EQ(Failure([&] { busFrom(text); }),
                refused("the device of bus 3 must be an absolute path, as /dev/i2c-3 is"));
   }
}

TEST(ConfigValues, TheKernelsNameOfABusHasItsNumber) {
   EXPECT_EQ(i2cBusNumber("/dev/i2c-3"), 3u);
   EXPECT_EQ(i2cBusNumber("/dev/i2c-1000"), 1000u);
   EXPECT_FALSE(i2cBusNumber("/dev/i2c-"));
   EXPECT_FALSE(i2cBusNumber("/dev/i2c-3x"));
   EXPECT_FALSE(i2cBusNumber("/dev/spidev0.0"));
   EXPECT_FALSE(i2cBusNumber("/dev/i2c-99999999999"));
}

TEST(ConfigValues, BusesAreRivalsIfARequestCannotTellThemApart) {
   std::vector<BusConfig> buses(1);
   buses[0].name = "a";
   BusConfig bus;
   ASSERT_TRUE(rivalOf(bus, buses));
   EXPECT_EQ(rivalOf(bus, buses)->name, "a");
   bus.controller = 0;
   EXPECT_FALSE(rivalOf(bus, buses)) << "it asks for more";
   buses[0].controller = 1;
   EXPECT_FALSE(rivalOf(bus, buses));
   buses[0].controller = 0;
   EXPECT_TRUE(rivalOf(bus, buses));
   bus.pciBdf = 0x300;
   EXPECT_FALSE(rivalOf(bus, buses));
   buses[0].pciBdf = 0x300;
   EXPECT_TRUE(rivalOf(bus, buses));
   bus.number = 1;
   EXPECT_FALSE(rivalOf(bus, buses));
   EXPECT_FALSE(rivalOf(buses[0], buses)) << "nobody is a rival of itself";
}

} // namespace
} // namespace Nimbo
