#include "TarnRegFile/I2cSornTransportDescriptor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "platform/entity/EventLoop.h"
#include "platform/hardware/SimulatedSornBackend.h"
#include "platform/hardware/SornManager.h"
#include "TarnRegFile/I2cTransportSornImpl.h"
#include "TarnRegFile/ImplFactoryMap.h"
#include "tests/support/ChangeLog.h"
#include "tests/support/Failure.h"
#include "tests/support/Reflected.h"

namespace {

using TarnRegFile::I2cSornTransportDescriptor;
using TarnRegFile::I2cTransportSornImpl;
using TarnRegFile::TransportFlavour;
using TarnRegFile::TransportKey;
using TarnRegFile::TransportProtocol;
using TarnRegFile::TransportType;
using testing::ElementsAre;
using TestSupport::Failure;

const TransportKey sornKey{TransportType::i2cBus, TransportProtocol::sornAsync,
                           TransportFlavour::sornDefault};

class I2cSornTransportDescriptorTest : public testing::Test {
protected:
   Platform::EventLoop loop;
   Hardware::SornManager manager{loop};
   const TarnRegFile::Ptr<Hardware::SornDesc> bus =
      manager.busNew("bus", std::make_unique<Hardware::SimulatedSornBackend>(
                               std::make_shared<Hardware::SimulatedI2cBus>()));
};

TEST_F(I2cSornTransportDescriptorTest, ItSelectsTheAsynchronousTransportAndNamesTheDevice) {
   const auto descriptor = TarnRegFile::i2cSornTransportDescriptorFactory(0x50, bus);
   EXPECT_EQ(descriptor->transportType(), TransportType::i2cBus);
   EXPECT_EQ(descriptor->transportProtocol(), TransportProtocol::sornAsync);
   EXPECT_EQ(descriptor->transportFlavour(), TransportFlavour::sornDefault);
   EXPECT_EQ(descriptor->deviceId(), 0x50u);
   EXPECT_EQ(descriptor->sornDesc(), bus);
   EXPECT_EQ(Platform::make<I2cSornTransportDescriptor>()->sornDesc(), nullptr);
}

TEST_F(I2cSornTransportDescriptorTest, ItIsDescribedByItsTable) {
   const auto& type = I2cSornTransportDescriptor::staticType();
   EXPECT_EQ(type.name(), "TarnRegFile::I2cSornTransportDescriptor");
   EXPECT_EQ(type.base()->name(), "TarnRegFile::BaseTransportDescriptor");
   EXPECT_THAT(TestSupport::reflectedAttributes(type), testing::Contains("deviceId (rw)"));
   EXPECT_THAT(TestSupport::reflectedAttributes(type), testing::Contains("sornDesc (rw)"));
}

TEST_F(I2cSornTransportDescriptorTest, OnlyAChangeIsPublished) {
   const auto descriptor = TarnRegFile::i2cSornTransportDescriptorFactory(0x50, bus);
   TestSupport::ChangeLog log(*descriptor);
   descriptor->deviceIdIs(0x50);
   descriptor->sornDescIs(bus);
   EXPECT_THAT(log.changes, ElementsAre());
   descriptor->deviceIdIs(0x51);
   descriptor->sornDescIs(nullptr);
   EXPECT_THAT(log.changes, ElementsAre("deviceId", "sornDesc"));
}

TEST_F(I2cSornTransportDescriptorTest, ItsRowMakesTheTransportWithAHandleOfItsOwn) {
   bus->timeoutIs(70);
   const auto model = Hardware::hardwareRegisterFileFactory("m");
   const auto descriptor = TarnRegFile::i2cSornTransportDescriptorFactory(0x50, bus);
   const std::unique_ptr<TarnRegFile::BaseTransportMethodImpl> made(
      TarnRegFile::implFactoryMap.at(sornKey)(descriptor, "", model));
   const auto* transport = dynamic_cast<I2cTransportSornImpl*>(made.get());
   ASSERT_NE(transport, nullptr);
   EXPECT_EQ(transport->sm()->devId(), 0x50u);
   EXPECT_EQ(transport->sm()->sorn(), transport->sorn());
   EXPECT_EQ(transport->sorn()->timeout(), 70u);
   EXPECT_EQ(transport->regFileHelper()->regFilePtr(), model) << "block size 1: as it is";
   EXPECT_EQ(descriptor->refCount(), 1u) << "the transport keeps nothing of the descriptor";
}

TEST_F(I2cSornTransportDescriptorTest, ItsRowRefusesOtherKindsAndAMissingBus) {
   const auto model = Hardware::hardwareRegisterFileFactory("m");
   const auto& factory = TarnRegFile::implFactoryMap.at(sornKey);
   EXPECT_EQ(Failure([&] {
                factory(TarnRegFile::i2cSornTransportDescriptorFactory(1, nullptr), "", model);
             }),
             Failure::generic(EINVAL, "I2cSornTransportDescriptor must have a sornDesc"));
   EXPECT_EQ(
      Failure([&] { factory(TarnRegFile::mockTransportDescriptorFactory(), "", model); }),
      Failure::generic(EINVAL,
                       "TransportDescriptor must be a TarnRegFile::I2cSornTransportDescriptor, not "
                       "TarnRegFile::BaseTransportDescriptor"));
   EXPECT_EQ(Failure([&] { factory(nullptr, "", model); }),
             Failure::generic(
                EINVAL,
                "TransportDescriptor must be a TarnRegFile::I2cSornTransportDescriptor, not null"));
   EXPECT_EQ(Failure([&] { I2cTransportSornImpl(nullptr, 1, "", model); }),
             Failure::generic(EINVAL, "I2C transport must have a handle of the access manager and "
                                      "a register list"));
}

} // namespace
