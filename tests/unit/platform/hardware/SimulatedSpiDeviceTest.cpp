#include "platform/hardware/SimulatedSpiDevice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>

#include "platform/entity/Ptr.h"

namespace {

using Hardware::SimulatedSpiDevice;
using Platform::Bytes;
using testing::ElementsAre;
using testing::IsEmpty;
using Transfer = SimulatedSpiDevice::Transfer;

class SimulatedSpi : public testing::Test {
protected:
   int send(const Bytes& bytes) {
      in.assign(bytes.size(), 0xee);
      return device->transfer(bytes, in);
   }

   const Platform::Ptr<SimulatedSpiDevice> device = Platform::make<SimulatedSpiDevice>();
   Bytes in;
};

TEST_F(SimulatedSpi, StoresAddressHighLowAndKeepsAJournal) {
   EXPECT_EQ(device->registerValue(0x12), 0);
   EXPECT_EQ(send({0x12, 0xab, 0xcd}), 0);
   EXPECT_EQ(device->registerValue(0x12), 0xabcd);
   EXPECT_EQ(send({0x12, 0x00, 0x01}), 0);
   EXPECT_EQ(device->registerValue(0x12), 1);
   EXPECT_EQ(device->registerValue(0x13), 0);
   EXPECT_THAT(device->journal(),
               ElementsAre(Transfer{{0x12, 0xab, 0xcd}, 0}, Transfer{{0x12, 0, 1}, 0}));
   EXPECT_THAT(in, ElementsAre(0, 0, 0));
   device->journalClear();
   EXPECT_THAT(device->journal(), IsEmpty());
   EXPECT_EQ(device->registerValue(0x12), 1);
}

TEST_F(SimulatedSpi, MessagesOfAnotherLengthChangeNothing) {
   EXPECT_EQ(send({0x12, 0xab}), 0);
   EXPECT_EQ(send({0x12, 0xab, 0xcd, 0xef}), 0);
   EXPECT_EQ(send({}), 0);
   EXPECT_EQ(device->registerValue(0x12), 0);
   EXPECT_EQ(device->journal().size(), 3u);
}

TEST_F(SimulatedSpi, FailsTheTransferItIsToldToAndOnlyThat) {
   send({1, 0, 1});
   device->failTransferIs(2, ETIMEDOUT);
   EXPECT_EQ(send({1, 0, 2}), 0);
   EXPECT_EQ(send({1, 0, 3}), ETIMEDOUT);
   EXPECT_EQ(device->registerValue(1), 2) << "nothing of it takes effect";
   EXPECT_EQ(device->journal().back(), (Transfer{{1, 0, 3}, ETIMEDOUT}));
   EXPECT_EQ(send({1, 0, 4}), 0);
   EXPECT_EQ(device->registerValue(1), 4);
}

TEST_F(SimulatedSpi, FaultsCanBeTakenBackAndTheZerothIsNone) {
   device->failTransferIs(0, EIO);
   device->failTransferIs(1, EIO);
   device->failTransferIs(1, 0);
   EXPECT_EQ(send({1, 0, 4}), 0);
}

TEST_F(SimulatedSpi, ALostDeviceFailsAllUntilItIsBackWithItsRegisters) {
   send({1, 0, 7});
   device->lostIs(true);
   EXPECT_TRUE(device->lost());
   EXPECT_EQ(send({1, 0, 8}), ENXIO);
   EXPECT_EQ(send({1, 0, 8}), ENXIO);
   device->lostIs(false);
   EXPECT_EQ(device->registerValue(1), 7);
   EXPECT_EQ(send({1, 0, 9}), 0);
   EXPECT_EQ(device->registerValue(1), 9);
}

TEST_F(SimulatedSpi, FollowsTheFaultPlanOfSimulatedDevices) {
   device->faults().add({.kind = Hardware::FaultKind::timeout,
                         .direction = Hardware::FaultDirection::write,
                         .first = 2,
                         .count = 1});
   device->faults().add(
      {.kind = Hardware::FaultKind::ioError, .direction = Hardware::FaultDirection::read});
   device->faults().delayIs(std::chrono::microseconds(1));
   EXPECT_EQ(send({1, 0, 1}), 0);
   EXPECT_EQ(send({1, 0, 2}), ETIMEDOUT);
   EXPECT_EQ(send({1, 0, 3}), 0);
   EXPECT_EQ(device->registerValue(1), 3);
}

TEST_F(SimulatedSpi, TheJournalForgetsTheOldest) {
   for (std::size_t i = 0; i < SimulatedSpiDevice::maxJournal + 2; ++i) {
      send({1, static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)});
   }
   EXPECT_EQ(device->journal().size(), SimulatedSpiDevice::maxJournal);
   EXPECT_THAT(device->journal().front().bytes, ElementsAre(1, 0, 2));
}

TEST_F(SimulatedSpi, HasAName) {
   EXPECT_EQ(device->name(), "simulated SPI device");
   EXPECT_EQ(Platform::make<SimulatedSpiDevice>("psu")->name(), "psu");
}

} // namespace
