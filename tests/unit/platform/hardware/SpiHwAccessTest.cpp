#include "platform/hardware/SpiHwAccess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "platform/hardware/SpiEngineSm.h"
#include "tests/support/Failure.h"
#include "tests/support/Reflected.h"

namespace {

using Hardware::HwAccess;
using Hardware::SimulatedSpiDevice;
using Hardware::SpiEngine;
using Hardware::SpiEngineConfig;
using Hardware::SpiEngineRequest;
using Hardware::SpiEngineSm;
using Hardware::SpiEngineStatus;
using Hardware::SpiHwAccess;
using Platform::make;
using Platform::Ptr;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::Failure;

Ptr<SpiEngineSm> engineOver(const Ptr<SpiHwAccess>& handle) {
   return make<SpiEngineSm>(make<SpiEngine>(handle), make<SpiEngineConfig>(handle->name()),
                            make<SpiEngineStatus>(handle->name()));
}

Ptr<SpiEngineRequest> write(std::uint32_t id) {
   auto request = make<SpiEngineRequest>(id);
   for (int i = 0; i < 3; ++i) {
      request->cmdDataIs(i, {0, static_cast<std::uint8_t>(id)});
   }
   return request;
}

TEST(SpiHwAccess, IsAHandleThatSaysHowTheDeviceIsReached) {
   const auto device = make<SimulatedSpiDevice>("psu");
   const auto simulated = Hardware::spiHwAccessFactory("cpld", device);
   EXPECT_EQ(simulated->name(), "cpld");
   EXPECT_FALSE(simulated->ready());
   EXPECT_EQ(simulated->backend(), device);
   EXPECT_EQ(simulated->device(), "psu");
   EXPECT_EQ(simulated->eventLoop(), nullptr);

   const auto real =
      Hardware::spiHwAccessFactory("cpld", Hardware::SpidevSettings{"/dev/spidev9.9", 1000, 1});
   const auto backend = Platform::ptrCast<Hardware::SpidevBackend>(real->backend());
   ASSERT_TRUE(backend);
   EXPECT_EQ(backend->settings().maxSpeedHz, 1000u);
   EXPECT_EQ(real->device(), "/dev/spidev9.9");
}

TEST(SpiHwAccess, RefusesANullBackendAndBadSettings) {
   EXPECT_EQ(Failure([] { make<SpiHwAccess>("cpld", nullptr); }),
             Failure::generic(EINVAL, "SPI device 'cpld' must have a backend"));
   EXPECT_EQ(Failure([] { Hardware::spiHwAccessFactory("cpld", Hardware::SpidevSettings{}); }),
             Failure::generic(EINVAL, "SPI device path must not be empty"));
}

TEST(SpiHwAccess, KnowsTheEnginesThatServeItOldestFirstWithoutHoldingThem) {
   const auto handle = Hardware::spiHwAccessFactory("cpld", make<SimulatedSpiDevice>());
   EXPECT_THAT(handle->engines(), IsEmpty());
   auto first = engineOver(handle);
   const auto second = engineOver(handle);
   EXPECT_THAT(handle->engines(), ElementsAre(first, second));
   EXPECT_EQ(first->refCount(), 1u);
   first.reset();
   EXPECT_THAT(handle->engines(), ElementsAre(second));
   second->teardown();
   EXPECT_THAT(handle->engines(), IsEmpty());
}

TEST(SpiHwAccess, DrainsAllItsEnginesAndCountsWhatFailed) {
   const auto device = make<SimulatedSpiDevice>();
   const auto handle = Hardware::spiHwAccessFactory("cpld", device);
   handle->readyIs(true);
   EXPECT_EQ(handle->drain(), 0u);
   const auto first = engineOver(handle);
   const auto second = engineOver(handle);
   first->config()->requestEnq(write(1));
   second->config()->requestEnq(write(2));
   second->config()->requestEnq(write(3));
   device->failTransferIs(1, EIO);
   device->failTransferIs(3, EIO);
   EXPECT_EQ(handle->drain(), 2u);
   EXPECT_EQ(device->journal().size(), 3u);
   EXPECT_EQ(device->registerValue(2), 0x0202);
   EXPECT_EQ(first->status()->failed(), 1u);
   EXPECT_EQ(second->status()->failed(), 1u);
   EXPECT_EQ(handle->drain(), 0u);
}

TEST(SpiHwAccess, AFailingObserverKeepsNoEngineFromDraining) {
   const auto device = make<SimulatedSpiDevice>();
   const auto handle = Hardware::spiHwAccessFactory("cpld", device);
   handle->readyIs(true);
   const auto first = engineOver(handle);
   const auto second = engineOver(handle);
   first->config()->requestEnq(write(1));
   second->config()->requestEnq(write(2));
   const auto failing = Platform::subscribe(
      *first->status(), [](const auto&) { throw std::runtime_error("observer"); });
   EXPECT_THROW(handle->drain(), std::runtime_error);
   EXPECT_EQ(device->journal().size(), 2u);
}

TEST(SpiHwAccess, ReflectsItsDevice) {
   EXPECT_THAT(TestSupport::reflectedAttributes(SpiHwAccess::staticType()), ElementsAre("device"));
   EXPECT_EQ(SpiHwAccess::staticType().base(), &HwAccess::staticType());
}

} // namespace
