#include "platform/hardware/HwAccessImpl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/entity/TypeData.h"
#include "platform/entity/Value.h"
#include "tests/support/ChangeLog.h"
#include "tests/support/Reflected.h"

namespace {

using Hardware::HwAccessImpl;
using testing::ElementsAre;
using testing::IsEmpty;

/// A device of one word.
class OneWord : public HwAccessImpl {
public:
   using HwAccessImpl::HwAccessImpl;

   std::uint64_t size() const noexcept override { return 4; }
   std::uint32_t read32(std::uint32_t) const override { return word; }
   void write32(std::uint32_t, std::uint32_t value) override { word = value; }
   std::uint32_t guardedRead32(std::uint32_t) const override { return word + 1; }
   void guardedWrite32(std::uint32_t, std::uint32_t value) override { word = value + 1; }

   std::uint32_t word = 0;
};

TEST(HwAccessImpl, ANewOneIsNotReadyAndItsFlagIsClear) {
   const auto access = Platform::make<OneWord>("fpga");
   EXPECT_EQ(access->name(), "fpga");
   EXPECT_FALSE(access->ready());
   EXPECT_FALSE(access->busErrorFlag());
}

TEST(HwAccessImpl, PublishesTheFlagWhenItDiffers) {
   const auto access = Platform::make<OneWord>("fpga");
   TestSupport::ChangeLog log(*access);
   access->busErrorFlagIs(false);
   EXPECT_THAT(log.changes, IsEmpty());
   access->busErrorFlagIs(true);
   EXPECT_TRUE(access->busErrorFlag());
   access->readyIs(true);
   EXPECT_THAT(log.changes, ElementsAre("busErrorFlag", "ready"));
}

TEST(HwAccessImpl, ReflectsAttributesAndAccesses) {
   EXPECT_THAT(TestSupport::reflectedAttributes(HwAccessImpl::staticType()),
               ElementsAre("size", "busErrorFlag (rw)"));
   EXPECT_THAT(TestSupport::reflectedOperations(HwAccessImpl::staticType()),
               ElementsAre("read32(offset)", "write32(offset, value)", "guardedRead32(offset)",
                           "guardedWrite32(offset, value)"));
   EXPECT_EQ(HwAccessImpl::staticType().base(), &Hardware::HwAccess::staticType());
}

} // namespace
