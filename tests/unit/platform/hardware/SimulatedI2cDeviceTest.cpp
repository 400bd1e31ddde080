#include "platform/hardware/SimulatedI2cDevice.h"

#include <cerrno>

#include <gtest/gtest.h>

#include "platform/entity/Errors.h"
#include "platform/hardware/HardwareRegisterFile.h"

namespace Hardware {
namespace {

using Kind = SimulatedI2cKind;
using Bytes = std::vector<std::uint8_t>;
using Access = SimulatedI2cDevice::Access;

Bytes read(SimulatedI2cDevice& device, std::size_t count, std::uint8_t mask = 0) {
   Bytes bytes(count, 0xee);
   device.read(bytes, mask);
   return bytes;
}

TEST(SimulatedI2cBlockDevice, ANewOneReadsZeroFromRegisterZeroOn) {
   SimulatedI2cDevice device(Kind::block);
   EXPECT_EQ(read(device, 4), (Bytes{0, 0, 0, 0}));
   EXPECT_EQ(device.registerAt(0xffff), 0u);
}

TEST(SimulatedI2cBlockDevice, AWriteOfTwoBytesSetsThePointerHighByteFirst) {
   SimulatedI2cDevice device(Kind::block);
   device.registerIs(0x1234, 0xaabbccdd);
   device.write(Bytes{0x12, 0x34});
   EXPECT_EQ(device.pointer(), 0x1234u);
   EXPECT_EQ(read(device, 4), (Bytes{0xaa, 0xbb, 0xcc, 0xdd}));
   EXPECT_EQ(device.pointer(), 0x1238u);
}

TEST(SimulatedI2cBlockDevice, AWriteOfMoreBytesStoresThemAndLeavesThePointerBehindThem) {
   SimulatedI2cDevice device(Kind::block);
   device.write(Bytes{0x00, 0x10, 1, 2, 3, 4, 5});
   EXPECT_EQ(device.registerAt(0x10), 0x01020304u);
   EXPECT_EQ(device.registerAt(0x14), 0x05000000u);
   EXPECT_EQ(device.pointer(), 0x15u);
}

TEST(SimulatedI2cBlockDevice, AWriteOfOneByteOrNoneLeavesThePointerAndTheRegisters) {
   SimulatedI2cDevice device(Kind::block);
   device.write(Bytes{0x12, 0x34});
   device.write(Bytes{0x56});
   device.write(Bytes{});
   EXPECT_EQ(device.pointer(), 0x1234u);
   EXPECT_EQ(device.registerAt(0x1234), 0u);
}

TEST(SimulatedI2cBlockDevice, ThePointerWrapsBehindTheLastByte) {
   SimulatedI2cDevice device(Kind::block);
   device.write(Bytes{0xff, 0xfe, 1, 2, 3, 4});
   EXPECT_EQ(device.registerAt(0xfffe), 0x01020304u);
   EXPECT_EQ(device.registerAt(0), 0x03040000u);
   EXPECT_EQ(device.pointer(), 2u);
}

TEST(SimulatedI2cBlockDevice, WithAnAddressUnitOfFourThePointerCountsRegisters) {
   SimulatedI2cDevice device(Kind::block, 4);
   device.registerIs(1, 0x01020304);
   device.registerIs(2, 0x05060708);
   device.write(Bytes{0, 1});
   EXPECT_EQ(read(device, 8), (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
   EXPECT_EQ(device.pointer(), 3u);
   device.registerIs(0xffff, 0x99);
   EXPECT_EQ(device.registerAt(0xffff), 0x99u);
   EXPECT_EQ(device.registerAt(0), 0u);
}

TEST(SimulatedI2cBlockDevice, RegistersOutsideAreRangeErrors) {
   SimulatedI2cDevice device(Kind::block);
   EXPECT_THROW(device.registerAt(0x10000), Platform::RangeError);
   EXPECT_THROW(device.registerIs(0x10000, 0), Platform::RangeError);
   EXPECT_THROW(SimulatedI2cDevice(Kind::block, 0), Platform::RangeError);
   EXPECT_THROW(SimulatedI2cDevice(Kind::block, 5), Platform::RangeError);
}

TEST(SimulatedI2cWordDevice, WordsGoLowByteFirst) {
   SimulatedI2cDevice device(Kind::word);
   device.write(Bytes{0x20, 0x34, 0x12});
   EXPECT_EQ(device.registerAt(0x20), 0x1234u);
   EXPECT_EQ(read(device, 2), (Bytes{0x34, 0x12}));
}

TEST(SimulatedI2cWordDevice, AByteIsTheLowOneAndLeavesTheHighOne) {
   SimulatedI2cDevice device(Kind::word);
   device.registerIs(0x20, 0x1234);
   device.write(Bytes{0x20});
   EXPECT_EQ(read(device, 1), Bytes{0x34});
   device.write(Bytes{0x20, 0x78});
   EXPECT_EQ(device.registerAt(0x20), 0x1278u);
}

TEST(SimulatedI2cWordDevice, EveryReadBeginsAtTheCommandWrittenLast) {
   SimulatedI2cDevice device(Kind::word);
   device.registerIs(1, 0x2211);
   device.registerIs(2, 0x4433);
   device.write(Bytes{1});
   EXPECT_EQ(read(device, 1), Bytes{0x11});
   EXPECT_EQ(read(device, 4), (Bytes{0x11, 0x22, 0x33, 0x44}));
   EXPECT_EQ(device.pointer(), 1u);
   device.write(Bytes{});
   EXPECT_EQ(device.pointer(), 1u);
}

TEST(SimulatedI2cWordDevice, TheLastWordIsFollowedByTheFirst) {
   SimulatedI2cDevice device(Kind::word);
   device.write(Bytes{0xff, 1, 2, 3, 4});
   EXPECT_EQ(device.registerAt(0xff), 0x0201u);
   EXPECT_EQ(device.registerAt(0), 0x0403u);
}

TEST(SimulatedI2cWordDevice, WhatDoesNotFitIsARangeError) {
   SimulatedI2cDevice device(Kind::word);
   EXPECT_THROW(device.registerIs(0, 0x10000), Platform::RangeError);
   EXPECT_THROW(device.registerIs(0x100, 0), Platform::RangeError);
   EXPECT_THROW(device.registerAt(0x100), Platform::RangeError);
   EXPECT_EQ(device.registerAt(0), 0u);
}

TEST(SimulatedI2cBytesDevice, ReadsGoOnWhereTheLastOneStopped) {
   SimulatedI2cDevice device(Kind::bytes);
   device.write(Bytes{0xfe, 1, 2, 3});
   EXPECT_EQ(device.registerAt(0xfe), 1u);
   EXPECT_EQ(device.registerAt(0), 3u);
   device.write(Bytes{0xfe});
   EXPECT_EQ(read(device, 1), Bytes{1});
   EXPECT_EQ(read(device, 2), (Bytes{2, 3}));
   EXPECT_EQ(device.pointer(), 1u);
   EXPECT_THROW(device.registerIs(0, 0x100), Platform::RangeError);
}

TEST(SimulatedI2cDevice, ABlockReadTakesItsLengthFromTheFirstByte) {
   SimulatedI2cDevice device(Kind::bytes);
   device.write(Bytes{0x10, 3, 7, 8, 9, 10});
   device.write(Bytes{0x10});
   EXPECT_EQ(device.readCounted(std::nullopt), (Bytes{3, 7, 8, 9}));
   device.write(Bytes{0x10});
   EXPECT_EQ(device.readCounted(2), (Bytes{2, 7, 8}));
   device.write(Bytes{0x10});
   EXPECT_EQ(device.readCounted(std::nullopt, 0xf0), (Bytes{0xf3}));
}

TEST(SimulatedI2cDevice, WrongBytesAreWrongOnTheWireOnly) {
   SimulatedI2cDevice device(Kind::block);
   device.registerIs(0, 0x01020304);
   EXPECT_EQ(read(device, 4, 0xff), (Bytes{0xfe, 0xfd, 0xfc, 0xfb}));
   EXPECT_EQ(device.registerAt(0), 0x01020304u);
}

TEST(SimulatedI2cDevice, TheJournalTellsWhatTheBusDidAndNotWhatTheTestDid) {
   SimulatedI2cDevice device(Kind::block);
   device.registerIs(0x10, 5);
   device.registerAt(0x10);
   device.write(Bytes{0, 0x10, 1, 2, 3, 4});
   device.write(Bytes{0, 0x10});
   read(device, 2);
   device.failed(true, EIO);
   EXPECT_EQ(device.journal(), (std::vector<Access>{{false, 0x10, {1, 2, 3, 4}, 0},
                                                    {false, 0x10, {}, 0},
                                                    {true, 0x10, {1, 2}, 0},
                                                    {true, 0x12, {}, EIO}}));
   device.journalClear();
   EXPECT_TRUE(device.journal().empty());
}

TEST(SimulatedI2cDevice, TheJournalForgetsItsOldestAccesses) {
   SimulatedI2cDevice device(Kind::bytes);
   for (std::size_t i = 0; i <= SimulatedI2cDevice::journalCapacity; ++i) {
      device.write(Bytes{static_cast<std::uint8_t>(i)});
   }
   const auto journal = device.journal();
   ASSERT_EQ(journal.size(), SimulatedI2cDevice::journalCapacity);
   EXPECT_EQ(journal.front().address, 1u);
}

TEST(SimulatedI2cDevice, TakesNamesAndValuesFromARegisterFile) {
   const auto model = hardwareRegisterFileFactory("model");
   HardwareRegister record;
   record.name = "SCRATCH";
   record.address = 0x40;
   model->nameToRegMapIs("SCRATCH", record);
   SimulatedI2cDevice device(Kind::block);
   EXPECT_EQ(device.addressOf("SCRATCH"), std::nullopt);
   device.registersAre(*model, {{"SCRATCH", 0xdeadbeef}});
   EXPECT_EQ(device.registerAt(0x40), 0xdeadbeefu);
   EXPECT_EQ(device.addressOf("SCRATCH"), 0x40u);
   EXPECT_EQ(device.addressOf("OTHER"), std::nullopt);
   EXPECT_THROW(device.registersAre(*model, {{"OTHER", 1}}), Platform::RangeError);
}

TEST(SimulatedI2cDevice, NamesOfKindsGoBothWays) {
   for (const auto kind : {Kind::block, Kind::word, Kind::bytes}) {
      EXPECT_EQ(simulatedI2cKindFromString(simulatedI2cKindToString(kind)), kind);
   }
   EXPECT_EQ(simulatedI2cKindFromString("eeprom"), std::nullopt);
}

} // namespace
} // namespace Hardware
