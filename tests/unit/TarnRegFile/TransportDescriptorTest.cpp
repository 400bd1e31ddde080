#include "TarnRegFile/TransportDescriptor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/entity/TypeData.h"
#include "platform/entity/Value.h"
#include "tests/support/ChangeLog.h"
#include "tests/support/Reflected.h"

namespace {

using TarnRegFile::BaseTransportDescriptor;
using TarnRegFile::TransportFlavour;
using TarnRegFile::TransportProtocol;
using TarnRegFile::TransportType;
using testing::ElementsAre;

TEST(TransportDescriptor, HoldsTheThreeEnumerations) {
   const auto descriptor = TarnRegFile::baseTransportDescriptorFactory(
      TransportType::pciBus, TransportProtocol::sornAsync, TransportFlavour::spiDefault);
   EXPECT_EQ(descriptor->transportType(), TransportType::pciBus);
   EXPECT_EQ(descriptor->transportProtocol(), TransportProtocol::sornAsync);
   EXPECT_EQ(descriptor->transportFlavour(), TransportFlavour::spiDefault);
}

TEST(TransportDescriptor, TheMockIsSelectedByFourFiveSeven) {
   const auto descriptor = TarnRegFile::mockTransportDescriptorFactory();
   EXPECT_EQ(static_cast<int>(descriptor->transportType()), 4);
   EXPECT_EQ(static_cast<int>(descriptor->transportProtocol()), 5);
   EXPECT_EQ(static_cast<int>(descriptor->transportFlavour()), 7);
}

TEST(TransportDescriptor, PublishesOnlyWhatDiffers) {
   const auto descriptor = TarnRegFile::mockTransportDescriptorFactory();
   TestSupport::ChangeLog log(*descriptor);
   descriptor->transportTypeIs(TransportType::mockBus);
   descriptor->transportProtocolIs(TransportProtocol::mockAccess);
   descriptor->transportFlavourIs(TransportFlavour::mockDefault);
   descriptor->transportFlavourIs(TransportFlavour::pciDefault);
   descriptor->transportProtocolIs(TransportProtocol::pciMmio);
   descriptor->transportTypeIs(TransportType::pciBus);
   EXPECT_THAT(log.changes, ElementsAre("transportFlavour", "transportProtocol", "transportType"));
   EXPECT_EQ(descriptor->transportType(), TransportType::pciBus);
}

TEST(TransportDescriptor, ReflectsItsFieldsInTheirOrder) {
   EXPECT_THAT(
      TestSupport::reflectedAttributes(BaseTransportDescriptor::staticType()),
      ElementsAre("transportType (rw)", "transportProtocol (rw)", "transportFlavour (rw)"));
   const auto descriptor = TarnRegFile::mockTransportDescriptorFactory();
   descriptor->typeData().setText(*descriptor, "transportType", "spiBus");
   EXPECT_EQ(descriptor->transportType(), TransportType::spiBus);
}

} // namespace
