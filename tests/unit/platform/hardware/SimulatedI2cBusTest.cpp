#include "platform/hardware/SimulatedI2cBus.h"

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/entity/Errors.h"

namespace Hardware {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Lines = std::vector<std::string>;
using Kind = SimulatedI2cKind;

I2cMessage w(std::uint8_t address, Bytes bytes) {
   I2cMessage message;
   message.address = address;
   message.bytes = std::move(bytes);
   return message;
}

I2cMessage r(std::uint8_t address, std::size_t count) {
   I2cMessage message;
   message.address = address;
   message.isRead = true;
   message.bytes.resize(count);
   return message;
}

class SimulatedI2cBusTest : public testing::Test {
protected:
   SimulatedI2cBusTest() {
      bus.deviceIs(0x50, device);
      bus.wireLogIs([this](std::string_view line) { lines.emplace_back(line); });
   }

   int transfer(std::vector<I2cMessage> sent) {
      messages = std::move(sent);
      return bus.transfer(messages);
   }

   std::shared_ptr<SimulatedI2cDevice> device = std::make_shared<SimulatedI2cDevice>(Kind::block);
   SimulatedI2cBus bus;
   Lines lines;
   std::vector<I2cMessage> messages;
};

TEST_F(SimulatedI2cBusTest, ACombinedTransactionIsOneLine) {
   device->registerIs(0x1234, 0xaabbccdd);
   EXPECT_EQ(transfer({w(0x50, {0x12, 0x34}), r(0x50, 4)}), 0);
   EXPECT_EQ(messages[1].bytes, (Bytes{0xaa, 0xbb, 0xcc, 0xdd}));
   EXPECT_EQ(messages[1].received, 4u);
   EXPECT_EQ(lines, Lines{"S 50 W 12 34 | Sr 50 R aa bb cc dd P"});
}

TEST_F(SimulatedI2cBusTest, NobodyAnswersAtAnAbsentAddress) {
   EXPECT_EQ(transfer({w(0x23, {1}), r(0x23, 1)}), ENXIO);
   EXPECT_EQ(lines, Lines{"S 23 W NAK P"});
   EXPECT_TRUE(device->journal().empty());
}

TEST_F(SimulatedI2cBusTest, MessagesBehindTheOneThatFailedAreNotSent) {
   EXPECT_EQ(transfer({w(0x50, {0, 1, 9}), w(0x23, {1}), w(0x50, {0, 2, 9})}), ENXIO);
   EXPECT_EQ(lines, Lines{"S 50 W 00 01 09 | Sr 23 W NAK P"});
   EXPECT_EQ(device->registerAt(0), 0x00090000u);
}

TEST_F(SimulatedI2cBusTest, EmptyMessagesProbeForADevice) {
   EXPECT_EQ(transfer({w(0x50, {})}), 0);
   EXPECT_EQ(transfer({r(0x50, 0)}), 0);
   EXPECT_EQ(transfer({}), 0);
   EXPECT_EQ(lines, (Lines{"S 50 W P", "S 50 R P"}));
}

TEST_F(SimulatedI2cBusTest, FaultsHaveTheirErrnoAndTheirMark) {
   device->faults().add({.kind = FaultKind::nak, .count = 1});
   EXPECT_EQ(transfer({w(0x50, {0, 0})}), ENXIO);
   device->faults().add({.kind = FaultKind::ioError, .count = 1});
   EXPECT_EQ(transfer({w(0x50, {0, 0})}), EIO);
   device->faults().add({.kind = FaultKind::timeout, .count = 1});
   EXPECT_EQ(transfer({w(0x50, {0, 0})}), ETIMEDOUT);
   EXPECT_EQ(transfer({w(0x50, {0, 0})}), 0);
   EXPECT_EQ(lines, (Lines{"S 50 W NAK P", "S 50 W EIO P", "S 50 W TIMEOUT P", "S 50 W 00 00 P"}));
}

TEST_F(SimulatedI2cBusTest, AFailedTransactionDoesNotReachTheRegistersButTheJournal) {
   device->faults().add({.kind = FaultKind::ioError, .direction = FaultDirection::write});
   EXPECT_EQ(transfer({w(0x50, {0, 0, 1, 2, 3, 4})}), EIO);
   EXPECT_EQ(device->registerAt(0), 0u);
   EXPECT_EQ(device->journal(), (std::vector<SimulatedI2cDevice::Access>{{false, 0, {}, EIO}}));
}

TEST_F(SimulatedI2cBusTest, ATransactionCountsOnceAndAsAReadIfAnyPartReads) {
   device->faults().add(
      {.kind = FaultKind::nak, .direction = FaultDirection::read, .first = 2, .count = 1});
   EXPECT_EQ(transfer({w(0x50, {0, 0}), r(0x50, 4)}), 0);
   EXPECT_EQ(transfer({w(0x50, {0, 0})}), 0);
   EXPECT_EQ(transfer({w(0x50, {0, 0}), r(0x50, 4)}), ENXIO);
   EXPECT_EQ(transfer({w(0x50, {0, 0}), r(0x50, 4)}), 0);
}

TEST_F(SimulatedI2cBusTest, AfterAShortReadTheLineStaysHigh) {
   device->registerIs(0, 0x01020304);
   device->faults().add({.kind = FaultKind::shortRead, .length = 2});
   EXPECT_EQ(transfer({r(0x50, 4)}), 0);
   EXPECT_EQ(messages[0].bytes, (Bytes{1, 2, 0xff, 0xff}));
   EXPECT_EQ(messages[0].received, 2u);
   EXPECT_EQ(transfer({r(0x50, 1)}), 0);
   EXPECT_EQ(messages[0].received, 1u);
   EXPECT_EQ(lines, (Lines{"S 50 R 01 02 P", "S 50 R 03 P"}));
}

TEST_F(SimulatedI2cBusTest, WrongBytesAreInvertedByTheMask) {
   device->registerIs(0, 0x01020304);
   device->faults().add({.kind = FaultKind::wrongBytes, .xorMask = 0x80});
   EXPECT_EQ(transfer({r(0x50, 4)}), 0);
   EXPECT_EQ(messages[0].bytes, (Bytes{0x81, 0x82, 0x83, 0x84}));
}

TEST_F(SimulatedI2cBusTest, ABlockReadComesWithItsLengthAndRoomBehindIt) {
   device->registerIs(0, 0x02aabb00);
   I2cMessage message = r(0x50, 2);
   message.receivesLength = true;
   EXPECT_EQ(transfer({w(0x50, {0, 0}), message}), 0);
   EXPECT_EQ(messages[1].bytes, (Bytes{2, 0xaa, 0xbb, 0xff}));
   EXPECT_EQ(messages[1].received, 3u);
   EXPECT_EQ(lines, Lines{"S 50 W 00 00 | Sr 50 R 02 aa bb P"});
}

TEST_F(SimulatedI2cBusTest, AnImpossibleBlockLengthIsAProtocolError) {
   for (const std::uint32_t length : {0u, 33u, 255u}) {
      device->registerIs(0, length << 24);
      I2cMessage message = r(0x50, 1);
      message.receivesLength = true;
      EXPECT_EQ(transfer({w(0x50, {0, 0}), message}), EPROTO) << length;
   }
   EXPECT_EQ(lines.back(), "S 50 W 00 00 | Sr 50 R ff EPROTO P");
}

TEST_F(SimulatedI2cBusTest, ADeviceThatIsLostComesBackWithItsRegisters) {
   device->registerIs(0, 0x01020304);
   device->faults().lostIs(true);
   EXPECT_EQ(transfer({r(0x50, 1)}), ENXIO);
   device->faults().lostIs(false);
   EXPECT_EQ(transfer({r(0x50, 1)}), 0);
   EXPECT_EQ(messages[0].bytes, Bytes{1});
}

TEST_F(SimulatedI2cBusTest, DevicesComeAndGo) {
   bus.deviceIs(0x51, std::make_shared<SimulatedI2cDevice>(Kind::bytes));
   EXPECT_EQ(transfer({w(0x51, {}), w(0x50, {})}), 0);
   bus.deviceIs(0x51, nullptr);
   EXPECT_EQ(transfer({w(0x51, {})}), ENXIO);
   EXPECT_EQ(bus.device(0x51), nullptr);
   EXPECT_EQ(bus.device(0x50), device);
   EXPECT_EQ(bus.device(0x80), nullptr);
   EXPECT_THROW(bus.deviceIs(0x80, device), Platform::RangeError);
   EXPECT_EQ(transfer({w(0x80, {})}), ENXIO);
}

TEST_F(SimulatedI2cBusTest, TransactionsOfManyThreadsDoNotMix) {
   constexpr int threads = 4;
   constexpr int rounds = 200;
   std::vector<std::thread> running;
   std::vector<int> wrong(threads, 0);
   for (int t = 0; t < threads; ++t) {
      running.emplace_back([&, t] {
         const auto low = static_cast<std::uint8_t>(t * 4);
         for (int i = 0; i < rounds; ++i) {
            const auto value = static_cast<std::uint8_t>(i);
            std::vector<I2cMessage> both{w(0x50, {0, low, value, value, value, value}),
                                         w(0x50, {0, low}), r(0x50, 4)};
            if (bus.transfer(both) != 0 || both[2].bytes != Bytes(4, value)) {
               ++wrong[t];
            }
         }
      });
   }
   for (std::thread& thread : running) {
      thread.join();
   }
   EXPECT_EQ(wrong, std::vector<int>(threads, 0));
   EXPECT_EQ(lines.size(), static_cast<std::size_t>(threads * rounds));
}

} // namespace
} // namespace Hardware
