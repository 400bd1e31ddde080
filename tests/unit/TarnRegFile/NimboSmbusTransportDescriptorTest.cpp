#include "TarnRegFile/NimboSmbusTransportDescriptor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/entity/TypeData.h"
#include "platform/entity/Value.h"
#include "tests/support/ChangeLog.h"
#include "tests/support/Failure.h"
#include "tests/support/Reflected.h"

namespace {

using TarnRegFile::NimboSmbusTransportDescriptor;
using TarnRegFile::nimboSmbusTransportDescriptorFactory;
using TarnRegFile::PciAddress;
using TarnRegFile::TransportFlavour;
using testing::ElementsAre;

TEST(NimboSmbusTransportDescriptor, IsSelectedByZeroThreeFourAndFive) {
   for (const int flavour : {4, 5}) {
      const auto descriptor = nimboSmbusTransportDescriptorFactory(
         1, 2, 3, static_cast<TransportFlavour>(flavour), PciAddress{4, 5, 6, 7});
      EXPECT_EQ(static_cast<int>(descriptor->transportType()), 0);
      EXPECT_EQ(static_cast<int>(descriptor->transportProtocol()), 3);
      EXPECT_EQ(static_cast<int>(descriptor->transportFlavour()), flavour);
      EXPECT_EQ(descriptor->busId(), 1);
      EXPECT_EQ(descriptor->devAddr(), 2);
      EXPECT_EQ(descriptor->accelId(), 3);
      EXPECT_EQ(descriptor->pciAddr(), (PciAddress{4, 5, 6, 7}));
   }
}

TEST(NimboSmbusTransportDescriptor, HasNoPciAddressUnlessOneIsGiven) {
   EXPECT_EQ(nimboSmbusTransportDescriptorFactory(1, 2, 3, TransportFlavour::nimboSmbusFlavour1)
                ->pciAddr(),
             std::nullopt);
}

TEST(NimboSmbusTransportDescriptor, IsNotMadeForAnotherTransportsFlavour) {
   for (const int flavour : {0, 1, 2, 3, 6, 7, 255}) {
      EXPECT_EQ(TestSupport::Failure([&] {
                   nimboSmbusTransportDescriptorFactory(1, 2, 3,
                                                        static_cast<TransportFlavour>(flavour));
                }),
                TestSupport::Failure::range("transport flavour " + std::to_string(flavour) +
                                            " is none of the SMBus daemon's"));
   }
}

TEST(NimboSmbusTransportDescriptor, TakesEveryByte) {
   const auto descriptor =
      nimboSmbusTransportDescriptorFactory(255, 254, 253, TransportFlavour::nimboSmbusFlavour2);
   EXPECT_EQ(descriptor->busId(), 255);
   EXPECT_EQ(descriptor->devAddr(), 254);
   EXPECT_EQ(descriptor->accelId(), 253);
}

TEST(NimboSmbusTransportDescriptor, PublishesOnlyWhatDiffers) {
   const auto descriptor =
      nimboSmbusTransportDescriptorFactory(1, 2, 3, TransportFlavour::nimboSmbusFlavour1);
   TestSupport::ChangeLog log(*descriptor);
   descriptor->busIdIs(1);
   descriptor->devAddrIs(2);
   descriptor->accelIdIs(3);
   descriptor->pciAddrIs(std::nullopt);
   EXPECT_THAT(log.changes, ElementsAre());
   descriptor->busIdIs(4);
   descriptor->devAddrIs(5);
   descriptor->accelIdIs(6);
   descriptor->pciAddrIs(PciAddress());
   descriptor->pciAddrIs(PciAddress());
   EXPECT_THAT(log.changes, ElementsAre("busId", "devAddr", "accelId", "pciAddr"));
   EXPECT_EQ(descriptor->busId(), 4);
   EXPECT_EQ(descriptor->devAddr(), 5);
   EXPECT_EQ(descriptor->accelId(), 6);
   EXPECT_EQ(descriptor->pciAddr(), PciAddress());
}

TEST(NimboSmbusTransportDescriptor, ReflectsItsFieldsBehindTheBases) {
   const auto& type = NimboSmbusTransportDescriptor::staticType();
   EXPECT_EQ(type.name(), "TarnRegFile::NimboSmbusTransportDescriptor");
   EXPECT_EQ(type.base(), &TarnRegFile::BaseTransportDescriptor::staticType());
   EXPECT_THAT(TestSupport::reflectedAttributes(type),
               ElementsAre("busId (rw)", "devAddr (rw)", "accelId (rw)", "pciAddr (rw)"));
   const auto descriptor =
      nimboSmbusTransportDescriptorFactory(1, 2, 3, TransportFlavour::nimboSmbusFlavour1);
   type.setText(*descriptor, "busId", "9");
   EXPECT_EQ(descriptor->busId(), 9);
   type.setText(*descriptor, "pciAddr",
                "Value('TarnRegFile::PciAddress', domain=1, bus=2, device=3, function=4)");
   EXPECT_EQ(descriptor->pciAddr(), (PciAddress{1, 2, 3, 4}));
   EXPECT_EQ(type.get(*descriptor, "pciAddr").toString(),
             "Value('TarnRegFile::PciAddress', domain=1, bus=2, device=3, function=4)");
   type.setText(*descriptor, "pciAddr", "none");
   EXPECT_EQ(descriptor->pciAddr(), std::nullopt);
   EXPECT_THROW(type.setText(*descriptor, "devAddr", "256"), Platform::RangeError);
}

} // namespace
