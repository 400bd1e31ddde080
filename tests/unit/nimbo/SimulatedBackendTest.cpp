#include "nimbo/SimulatedBackend.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nimbo {
namespace {

using Hardware::SimulatedI2cBus;
using Hardware::SimulatedI2cDevice;
using testing::ElementsAre;

class SimulatedBackendTest : public testing::Test {
protected:
   SimulatedBackendTest() {
      bus->deviceIs(0x50, device);
      bus->wireLogIs([this](std::string_view line) { wire.emplace_back(line); });
   }

   std::shared_ptr<SimulatedI2cBus> bus = std::make_shared<SimulatedI2cBus>();
   std::shared_ptr<SimulatedI2cDevice> device =
      std::make_shared<SimulatedI2cDevice>(SimulatedI2cDevice::Kind::block);
   std::vector<std::string> wire;
   SimulatedBackend backend{bus};
};

TEST_F(SimulatedBackendTest, WritesOffsetAndDataInOneMessage) {
   backend.begin();
   EXPECT_EQ(backend.write(0x50, std::array<std::uint8_t, 2>{0x12, 0x34},
                           std::array<std::uint8_t, 4>{1, 2, 3, 4}),
             0);
   backend.end();
   EXPECT_THAT(wire, ElementsAre("S 50 W 12 34 01 02 03 04 P"));
   EXPECT_EQ(device->registerAt(0x1234), 0x01020304U);
}

TEST_F(SimulatedBackendTest, ReadsBehindARepeatedStart) {
   device->registerIs(0x10, 0xaabbccdd);
   std::array<std::uint8_t, 4> data{};
   EXPECT_EQ(backend.read(0x50, std::array<std::uint8_t, 2>{0x00, 0x10}, data), 0);
   EXPECT_THAT(data, ElementsAre(0xaa, 0xbb, 0xcc, 0xdd));
   EXPECT_THAT(wire, ElementsAre("S 50 W 00 10 | Sr 50 R aa bb cc dd P"));
}

TEST_F(SimulatedBackendTest, WritesAnOffsetWithoutData) {
   EXPECT_EQ(backend.write(0x50, std::array<std::uint8_t, 2>{0x00, 0x10}, {}), 0);
   EXPECT_THAT(wire, ElementsAre("S 50 W 00 10 P"));
   EXPECT_EQ(device->pointer(), 0x10U);
}

TEST_F(SimulatedBackendTest, GivesTheErrorsOfTheBus) {
   std::array<std::uint8_t, 2> data{0x5a, 0x5a};
   EXPECT_EQ(backend.read(0x51, std::array<std::uint8_t, 1>{0}, data), ENXIO);
   EXPECT_EQ(backend.write(0x51, std::array<std::uint8_t, 1>{0}, data), ENXIO);
   device->faults().add({.kind = Hardware::FaultKind::timeout, .count = 1});
   device->faults().add({.kind = Hardware::FaultKind::ioError, .first = 2, .count = 1});
   EXPECT_EQ(backend.read(0x50, std::array<std::uint8_t, 2>{0, 0}, data), ETIMEDOUT);
   EXPECT_EQ(backend.write(0x50, std::array<std::uint8_t, 2>{0, 0}, data), EIO);
   EXPECT_EQ(backend.write(0x50, std::array<std::uint8_t, 2>{0, 0}, data), 0);
}

TEST_F(SimulatedBackendTest, ADeviceThatStopsEarlyLeavesTheLineUp) {
   device->registerIs(0x10, 0x01020304);
   device->faults().add({.kind = Hardware::FaultKind::shortRead, .length = 1});
   std::array<std::uint8_t, 4> data{};
   EXPECT_EQ(backend.read(0x50, std::array<std::uint8_t, 2>{0x00, 0x10}, data), 0);
   EXPECT_THAT(data, ElementsAre(0x01, 0xff, 0xff, 0xff));
}

// A reload may leave the old bus at work while the new one of the same device begins.
TEST_F(SimulatedBackendTest, ASecondBackendOfTheBusWaitsForTheEndOfTheFirst) {
   SimulatedBackend other(bus);
   backend.begin();
   std::thread second([&] {
      other.begin();
      other.write(0x50, std::array<std::uint8_t, 1>{0x02}, {});
      other.end();
   });
   backend.write(0x50, std::array<std::uint8_t, 1>{0x01}, {});
   EXPECT_FALSE(bus->exclusiveUse().try_lock());
   backend.write(0x50, std::array<std::uint8_t, 1>{0x01}, {});
   backend.end();
   second.join();
   EXPECT_THAT(wire, ElementsAre("S 50 W 01 P", "S 50 W 01 P", "S 50 W 02 P"));
}

} // namespace
} // namespace Nimbo
