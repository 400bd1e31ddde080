#include "TarnRegFile/SableCore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/entity/TypeData.h"
#include "platform/trace/CaptureScope.h"
#include "tests/support/Failure.h"
#include "tests/support/Registers.h"

namespace TarnRegFile::Sable {
namespace {

using testing::ElementsAre;
using TestSupport::Failure;
using TestSupport::registerIs;

class OtherDescriptor : public Hardware::TransportDescriptorBase {};

TEST(SableCore, HasTheRegistersOfTheListInTheOrderOfTheirAddresses) {
   const auto file = Hardware::hardwareRegisterFileFactory("list");
   registerIs(*file, "SCRATCH", 8);
   registerIs(*file, "ID", 0, false);
   registerIs(*file, "CTRL", 4);
   const auto descriptor = mockTransportDescriptorFactory();
   const auto core = sableCoreFactory("core0", file, descriptor);
   EXPECT_THAT(core->registerDescNames(), ElementsAre("ID", "CTRL", "SCRATCH"));
   EXPECT_EQ(*core->findRegisterDesc("ID"), CoreRegisterDescriptor(0, true));
   EXPECT_EQ(*core->findRegisterDesc("CTRL"), CoreRegisterDescriptor(4, false));
   EXPECT_EQ(core->name(), "core0");
   EXPECT_EQ(core->registerFile(), file);
   EXPECT_EQ(core->generation(), Generation());
   EXPECT_EQ(transportDescriptorOf(*core), descriptor);
}

TEST(SableCore, OneNameStandsForAnAddress) {
   const auto file = Hardware::hardwareRegisterFileFactory("list");
   registerIs(*file, "AA", 4);
   registerIs(*file, "ZZ", 4);
   registerIs(*file, "MM", 4, false);
   file->addrToNameMapIs(4, "ZZ");
   registerIs(*file, "B", 8);
   Platform::Trace::CaptureScope traces("TarnRegFile/SableCore=1");
   const auto core = sableCoreFactory("core0", file, mockTransportDescriptorFactory());
   EXPECT_THAT(core->registerDescNames(), ElementsAre("ZZ", "B"));
   EXPECT_FALSE(core->findRegisterDesc("ZZ")->notWritable);
   EXPECT_THAT(traces.texts(),
               ElementsAre("core0: register 'AA' has the address 0x4 of 'ZZ' and is left out",
                           "core0: register 'MM' has the address 0x4 of 'ZZ' and is left out"));
}

TEST(SableCore, NeedsAListAndADescriptor) {
   const auto file = Hardware::hardwareRegisterFileFactory("list");
   const auto descriptor = mockTransportDescriptorFactory();
   const auto refused =
      Failure::generic(EINVAL, "core 'c' must have a register list and a transport descriptor");
   EXPECT_EQ(Failure([&] { sableCoreFactory("c", nullptr, descriptor); }), refused);
   EXPECT_EQ(Failure([&] { sableCoreFactory("c", file, nullptr); }), refused);
   EXPECT_EQ(file->refCount(), 1u);
   EXPECT_EQ(descriptor->refCount(), 1u);
}

TEST(SableCore, AnotherKindOfDescriptorIsNoneOfTheLibrarys) {
   const auto other = Platform::make<OtherDescriptor>();
   const auto core = Platform::make<SableCoreBase>("c", nullptr, other);
   EXPECT_EQ(transportDescriptorOf(*core), nullptr);
   EXPECT_EQ(transportDescriptorOf(*Platform::make<SableCoreBase>("c", nullptr, nullptr)), nullptr);
}

TEST(SableCore, IsDescribedByItsTable) {
   EXPECT_EQ(SableCore::staticType().name(), "TarnRegFile::Sable::SableCore");
   EXPECT_EQ(SableCore::staticType().base(), &SableCoreBase::staticType());
}

} // namespace
} // namespace TarnRegFile::Sable
