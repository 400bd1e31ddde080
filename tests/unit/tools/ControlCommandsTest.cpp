#include "tools/tarnsim/ControlCommands.h"

#include <array>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "board/SimulatedBoardParser.h"
#include "tools/tarnsim/SpiDevice.h"

namespace TarnSim {
namespace {

using Lines = std::vector<std::string>;

class ControlCommandsTest : public testing::Test {
protected:
   ControlCommands::Answer run(std::string_view line) { return commands.run(line); }

   Simulation simulation{Board::simulatedBoardFromText(
      "[simulate.i2c.a]\nbus = \"/dev/i2c-3\"\naddress = 0x50\nkind = \"word\"\n"
      "[simulate.spi.s]\ndevice = \"/dev/spidev0.0\"\n"
      "[simulate.pci.p]\nfunction = \"0000:03:00.0\"\nsize = 64\n",
      "b.toml")};
   ControlCommands commands{simulation};
};

TEST_F(ControlCommandsTest, SetsAndGetsRegisters) {
   EXPECT_TRUE(run("set a 0x20 1234").ok);
   EXPECT_EQ(run("  get\ta 32 \r").lines, Lines{"0x4d2"});
   EXPECT_TRUE(run("set s 1 0xffff").ok);
   EXPECT_EQ(run("get s 1").lines, Lines{"0xffff"});
   EXPECT_TRUE(run("journal s").lines.empty());
}

TEST_F(ControlCommandsTest, AddsListsAndClearsFaults) {
   EXPECT_TRUE(run("fault a short direction=read first=2 count=3 length=1").ok);
   EXPECT_TRUE(run("fault a wrong mask=0x0f").ok);
   EXPECT_EQ(run("faults a").lines, (Lines{"short direction=read first=2 count=3 length=1",
                                           "wrong direction=any first=1 count=0 mask=0xf"}));
   EXPECT_TRUE(run("clear a").ok);
   EXPECT_TRUE(run("faults a").lines.empty());
}

TEST_F(ControlCommandsTest, NamesThatMayBeMeantAreSaid) {
   EXPECT_EQ(run("loose a").lines, Lines{"there is no command 'loose'; did you mean lose?"});
   EXPECT_EQ(run("sparkle a").lines, Lines{"there is no command 'sparkle'; try 'help'"});
   EXPECT_EQ(run("lose A").lines, Lines{"there is no device 'A'; did you mean a?"});
   EXPECT_EQ(run("lose wrong").lines, Lines{"there is no device 'wrong'"});
}

TEST_F(ControlCommandsTest, ThereAreOnlySoManyFaults) {
   for (int i = 0; i < 1000; ++i) {
      ASSERT_TRUE(run("fault a nak").ok);
   }
   EXPECT_FALSE(run("fault a nak").ok);
}

TEST_F(ControlCommandsTest, LosesAndReturnsDevices) {
   EXPECT_TRUE(run("lose a").ok);
   EXPECT_EQ(run("devices").lines.at(0), "a: i2c /dev/i2c-3 0x50 word, lost");
   EXPECT_TRUE(run("return a").ok);
   EXPECT_EQ(run("devices").lines.at(0), "a: i2c /dev/i2c-3 0x50 word");
}

TEST_F(ControlCommandsTest, OfAPciResourceThereAreNoFaultsDelaysOrJournal) {
   for (const char* line : {"fault p nak", "faults p", "clear p", "delay p 1"}) {
      const auto answer = run(line);
      EXPECT_FALSE(answer.ok);
      EXPECT_EQ(answer.lines, Lines{"accesses to a PCI resource go past tarnsim: only 'lose' and "
                                    "'return' are possible"})
         << line;
   }
   for (const char* line : {"journal p", "forget p"}) {
      const auto answer = run(line);
      EXPECT_FALSE(answer.ok);
      EXPECT_EQ(answer.lines,
                Lines{"Accesses to a PCI resource go past tarnsim: there is no journal"})
         << line;
   }
}

TEST_F(ControlCommandsTest, JournalsOfSpiDevicesAreListedAndForgotten) {
   auto* device = dynamic_cast<SpiDevice*>(simulation.device("s"));
   ASSERT_NE(device, nullptr);
   std::array<std::uint8_t, 3> in{};
   device->transfer(std::array<std::uint8_t, 3>{1, 2, 3}, in);
   EXPECT_EQ(run("journal s").lines, Lines{"transfer: 01 02 03"});
   EXPECT_EQ(run("get s 1").lines, Lines{"0x203"});
   EXPECT_TRUE(run("forget s").ok);
   EXPECT_TRUE(run("journal s").lines.empty());
}

TEST_F(ControlCommandsTest, AFaultThatThereIsNotIsRefusedAndNotAdded) {
   EXPECT_EQ(run("fault s rust").lines,
             Lines{"'rust' is no kind of fault: nak, eio, timeout, short, wrong"});
   EXPECT_EQ(run("fault s nak direction=up").lines,
             Lines{"'up' is no direction: any, read, write"});
   EXPECT_EQ(run("fault s nak first=0").lines, Lines{"accesses count from 1"});
   EXPECT_EQ(run("fault s nak bits=1").lines, Lines{"a fault has no 'bits=1'"});
   EXPECT_EQ(run("fault s wrong mask=0x100").lines, Lines{"0x100 is more than 0xff"});
   EXPECT_EQ(run("fault s").lines,
             Lines{"usage: fault DEVICE KIND [direction=read|write|any] [first=N] [count=N] "
                   "[mask=N] [length=N]"});
   EXPECT_TRUE(run("faults s").lines.empty());
}

TEST_F(ControlCommandsTest, WhateverALineHoldsTheAnswerIsOnePrintableLine) {
   for (const std::string& line :
        {std::string(), std::string("\0\0", 2), std::string("\x1b[2J"), std::string(5000, 'x'),
         std::string("get a ") + std::string(5000, '9'), std::string("get a -1"),
         std::string("fault a nak first=0"), std::string("fault a nak first"),
         std::string("set a 0 99999999999999999999"), std::string("delay a 99999999999")}) {
      const auto answer = run(line);
      EXPECT_FALSE(answer.ok) << line.substr(0, 20);
      ASSERT_EQ(answer.lines.size(), 1u);
      EXPECT_LT(answer.lines[0].size(), 200u);
      EXPECT_EQ(answer.lines[0].find_first_of("\x1b\n"), std::string::npos);
   }
}

} // namespace
} // namespace TarnSim
