#include "TarnRegFile/PciTransportDescriptor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/entity/TypeData.h"
#include "tests/support/ChangeLog.h"
#include "tests/support/Reflected.h"

namespace {

using Hardware::HwAccess;
using TarnRegFile::PciTransportDescriptor;
using TarnRegFile::pciTransportDescriptorFactory;
using testing::ElementsAre;

TEST(PciTransportDescriptor, SelectsThePciTransport) {
   const auto descriptor = pciTransportDescriptorFactory(nullptr);
   EXPECT_EQ(static_cast<int>(descriptor->transportType()), 2);
   EXPECT_EQ(static_cast<int>(descriptor->transportProtocol()), 0);
   EXPECT_EQ(static_cast<int>(descriptor->transportFlavour()), 0);
   EXPECT_EQ(descriptor->hwAccess(), nullptr);
}

TEST(PciTransportDescriptor, HoldsTheHandle) {
   const auto access = Platform::make<HwAccess>("fpga");
   {
      const auto descriptor = pciTransportDescriptorFactory(access);
      EXPECT_EQ(descriptor->hwAccess(), access);
      EXPECT_EQ(access->refCount(), 2u);
   }
   EXPECT_EQ(access->refCount(), 1u);
}

TEST(PciTransportDescriptor, PublishesAnotherHandle) {
   const auto access = Platform::make<HwAccess>("fpga");
   const auto descriptor = pciTransportDescriptorFactory(access);
   TestSupport::ChangeLog log(*descriptor);
   descriptor->hwAccessIs(access);
   descriptor->hwAccessIs(Platform::make<HwAccess>("fpga"));
   EXPECT_THAT(log.changes, ElementsAre("hwAccess"));
   EXPECT_NE(descriptor->hwAccess(), access);
}

TEST(PciTransportDescriptor, ReflectsTheHandleBehindTheThreeEnumerations) {
   EXPECT_THAT(TestSupport::reflectedAttributes(PciTransportDescriptor::staticType()),
               ElementsAre("hwAccess (rw)"));
   EXPECT_EQ(PciTransportDescriptor::staticType().base(),
             &TarnRegFile::BaseTransportDescriptor::staticType());
}

} // namespace
