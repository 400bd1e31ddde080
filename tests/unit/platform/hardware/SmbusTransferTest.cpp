#include "platform/hardware/SmbusTransfer.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Hardware {
namespace {

using Lines = std::vector<std::string>;
using Kind = SimulatedI2cKind;

class SmbusTransferTest : public testing::Test {
protected:
   SmbusTransferTest() {
      bus.deviceIs(0x50, block);
      bus.deviceIs(0x51, word);
      bus.deviceIs(0x52, bytes);
      bus.wireLogIs([this](std::string_view line) { lines.emplace_back(line); });
   }

   int read(std::uint8_t address, std::uint8_t command, std::uint32_t size) {
      return smbusTransfer(bus, address, I2C_SMBUS_READ, command, size, &data);
   }
   int write(std::uint8_t address, std::uint8_t command, std::uint32_t size) {
      return smbusTransfer(bus, address, I2C_SMBUS_WRITE, command, size, &data);
   }
   void blockIs(std::vector<std::uint8_t> content) {
      data.block[0] = static_cast<std::uint8_t>(content.size());
      std::copy(content.begin(), content.end(), data.block + 1);
   }

   std::shared_ptr<SimulatedI2cDevice> block = std::make_shared<SimulatedI2cDevice>(Kind::block);
   std::shared_ptr<SimulatedI2cDevice> word = std::make_shared<SimulatedI2cDevice>(Kind::word);
   std::shared_ptr<SimulatedI2cDevice> bytes = std::make_shared<SimulatedI2cDevice>(Kind::bytes);
   SimulatedI2cBus bus;
   Lines lines;
   i2c_smbus_data data{};
};

TEST_F(SmbusTransferTest, ABlockRegisterIsReadByAWriteOfItsAddressAndARead) {
   block->registerIs(0x1234, 0xaabbccdd);
   blockIs({0x34});
   EXPECT_EQ(write(0x50, 0x12, I2C_SMBUS_I2C_BLOCK_DATA), 0);
   data.block[0] = 4;
   EXPECT_EQ(read(0x50, 0x12, I2C_SMBUS_I2C_BLOCK_DATA), 0);
   EXPECT_EQ(lines, (Lines{"S 50 W 12 34 P", "S 50 W 12 | Sr 50 R aa bb cc dd P"}));
   EXPECT_EQ(data.block[0], 4);
   EXPECT_EQ(data.block[1], 0xaa);
   EXPECT_EQ(data.block[4], 0xdd);
}

TEST_F(SmbusTransferTest, ABlockRegisterIsWrittenInOneTransfer) {
   blockIs({0x34, 1, 2, 3, 4});
   EXPECT_EQ(write(0x50, 0x12, I2C_SMBUS_I2C_BLOCK_DATA), 0);
   EXPECT_EQ(lines, Lines{"S 50 W 12 34 01 02 03 04 P"});
   EXPECT_EQ(block->registerAt(0x1234), 0x01020304u);
}

TEST_F(SmbusTransferTest, Quick) {
   EXPECT_EQ(smbusTransfer(bus, 0x50, I2C_SMBUS_WRITE, 0, I2C_SMBUS_QUICK, nullptr), 0);
   EXPECT_EQ(smbusTransfer(bus, 0x50, I2C_SMBUS_READ, 0, I2C_SMBUS_QUICK, nullptr), 0);
   EXPECT_EQ(smbusTransfer(bus, 0x23, I2C_SMBUS_READ, 0, I2C_SMBUS_QUICK, nullptr), ENXIO);
   EXPECT_EQ(lines, (Lines{"S 50 W P", "S 50 R P", "S 23 R NAK P"}));
}

TEST_F(SmbusTransferTest, Byte) {
   bytes->registerIs(0x42, 7);
   EXPECT_EQ(smbusTransfer(bus, 0x52, I2C_SMBUS_WRITE, 0x42, I2C_SMBUS_BYTE, nullptr), 0);
   EXPECT_EQ(read(0x52, 0, I2C_SMBUS_BYTE), 0);
   EXPECT_EQ(data.byte, 7);
   EXPECT_EQ(lines, (Lines{"S 52 W 42 P", "S 52 R 07 P"}));
}

TEST_F(SmbusTransferTest, ByteData) {
   data.byte = 0x99;
   EXPECT_EQ(write(0x51, 3, I2C_SMBUS_BYTE_DATA), 0);
   data.byte = 0;
   EXPECT_EQ(read(0x51, 3, I2C_SMBUS_BYTE_DATA), 0);
   EXPECT_EQ(data.byte, 0x99);
   EXPECT_EQ(lines, (Lines{"S 51 W 03 99 P", "S 51 W 03 | Sr 51 R 99 P"}));
}

TEST_F(SmbusTransferTest, WordData) {
   data.word = 0x1234;
   EXPECT_EQ(write(0x51, 3, I2C_SMBUS_WORD_DATA), 0);
   EXPECT_EQ(word->registerAt(3), 0x1234u);
   data.word = 0;
   EXPECT_EQ(read(0x51, 3, I2C_SMBUS_WORD_DATA), 0);
   EXPECT_EQ(data.word, 0x1234);
   EXPECT_EQ(lines, (Lines{"S 51 W 03 34 12 P", "S 51 W 03 | Sr 51 R 34 12 P"}));
}

TEST_F(SmbusTransferTest, ProcCallWritesAndReadsWhateverTheDirectionSays) {
   for (const std::uint8_t direction : {I2C_SMBUS_READ, I2C_SMBUS_WRITE}) {
      data.word = 0x1234;
      EXPECT_EQ(smbusTransfer(bus, 0x51, direction, 3, I2C_SMBUS_PROC_CALL, &data), 0);
      EXPECT_EQ(data.word, 0x1234);
      EXPECT_EQ(lines.back(), "S 51 W 03 34 12 | Sr 51 R 34 12 P");
   }
}

TEST_F(SmbusTransferTest, BlockDataCarriesItsLength) {
   blockIs({7, 8, 9});
   EXPECT_EQ(write(0x52, 0x10, I2C_SMBUS_BLOCK_DATA), 0);
   data = {};
   EXPECT_EQ(read(0x52, 0x10, I2C_SMBUS_BLOCK_DATA), 0);
   EXPECT_EQ(data.block[0], 3);
   EXPECT_EQ(data.block[3], 9);
   EXPECT_EQ(lines, (Lines{"S 52 W 10 03 07 08 09 P", "S 52 W 10 | Sr 52 R 03 07 08 09 P"}));
}

TEST_F(SmbusTransferTest, AShortBlockHasAShorterLength) {
   blockIs({7, 8, 9});
   EXPECT_EQ(write(0x52, 0x10, I2C_SMBUS_BLOCK_DATA), 0);
   bytes->faults().add({.kind = FaultKind::shortRead, .length = 1});
   EXPECT_EQ(read(0x52, 0x10, I2C_SMBUS_BLOCK_DATA), 0);
   EXPECT_EQ(data.block[0], 1);
   EXPECT_EQ(lines.back(), "S 52 W 10 | Sr 52 R 01 07 P");
}

TEST_F(SmbusTransferTest, AShortI2cBlockSaysHowMuchCame) {
   block->faults().add({.kind = FaultKind::shortRead, .length = 3});
   data.block[0] = 4;
   EXPECT_EQ(read(0x50, 0, I2C_SMBUS_I2C_BLOCK_DATA), 0);
   EXPECT_EQ(data.block[0], 3);
   EXPECT_EQ(data.block[4], 0xff);
}

TEST_F(SmbusTransferTest, AnEmptyBlockIsAProtocolError) {
   EXPECT_EQ(read(0x52, 0x10, I2C_SMBUS_BLOCK_DATA), EPROTO);
}

TEST_F(SmbusTransferTest, BlockProcCall) {
   blockIs({5, 6});
   EXPECT_EQ(write(0x51, 0x10, I2C_SMBUS_BLOCK_PROC_CALL), 0);
   EXPECT_EQ(data.block[0], 2);
   EXPECT_EQ(data.block[2], 6);
   EXPECT_EQ(lines, Lines{"S 51 W 10 02 05 06 | Sr 51 R 02 05 06 P"});
}

TEST_F(SmbusTransferTest, TheOldI2cBlockReadIsAlwaysOfFullLength) {
   data.block[0] = 1;
   EXPECT_EQ(read(0x52, 0, I2C_SMBUS_I2C_BLOCK_BROKEN), 0);
   EXPECT_EQ(data.block[0], 32);
   blockIs({1, 2});
   EXPECT_EQ(write(0x52, 0, I2C_SMBUS_I2C_BLOCK_BROKEN), 0);
   EXPECT_EQ(lines.back(), "S 52 W 00 01 02 P");
}

TEST_F(SmbusTransferTest, BlocksAtAndOverTheirLimit) {
   for (const std::uint32_t size :
        {I2C_SMBUS_BLOCK_DATA, I2C_SMBUS_I2C_BLOCK_DATA, I2C_SMBUS_BLOCK_PROC_CALL}) {
      data.block[0] = 33;
      EXPECT_EQ(write(0x52, 0, size), EINVAL) << size;
      data.block[0] = 255;
      EXPECT_EQ(write(0x52, 0, size), EINVAL) << size;
      EXPECT_TRUE(lines.empty());
   }
   data.block[0] = 33;
   EXPECT_EQ(read(0x52, 0, I2C_SMBUS_I2C_BLOCK_DATA), EINVAL);
   EXPECT_TRUE(lines.empty());
   blockIs(std::vector<std::uint8_t>(32, 1));
   EXPECT_EQ(write(0x52, 0, I2C_SMBUS_BLOCK_DATA), 0);
   EXPECT_EQ(read(0x52, 0, I2C_SMBUS_BLOCK_DATA), 0);
   EXPECT_EQ(data.block[0], 32);
}

TEST_F(SmbusTransferTest, BadRequestsDoNotReachTheBus) {
   EXPECT_EQ(read(0x50, 0, 99), EINVAL);
   EXPECT_EQ(read(0x50, 0, 9), EINVAL);
   EXPECT_EQ(smbusTransfer(bus, 0x50, 2, 0, I2C_SMBUS_BYTE_DATA, &data), EINVAL);
   EXPECT_EQ(smbusTransfer(bus, 0x50, I2C_SMBUS_READ, 0, I2C_SMBUS_BYTE_DATA, nullptr), EINVAL);
   EXPECT_EQ(smbusTransfer(bus, 0x50, I2C_SMBUS_READ, 0, I2C_SMBUS_BYTE, nullptr), EINVAL);
   EXPECT_TRUE(lines.empty());
}

TEST_F(SmbusTransferTest, WhatFailsLeavesTheDataAlone) {
   data.word = 0x5555;
   EXPECT_EQ(read(0x23, 0, I2C_SMBUS_WORD_DATA), ENXIO);
   EXPECT_EQ(data.word, 0x5555);
}

} // namespace
} // namespace Hardware
