#include "TarnRegFile/PciAddress.h"

#include <gtest/gtest.h>

#include "platform/entity/Value.h"
#include "tests/support/Failure.h"

namespace {

using TarnRegFile::PciAddress;
using Traits = Platform::ValueTraits<PciAddress>;
using OptionalTraits = Platform::ValueTraits<std::optional<PciAddress>>;

constexpr const char* text =
   "Value('TarnRegFile::PciAddress', domain=65535, bus=3, device=31, function=7)";

TEST(PciAddress, IsAllZeroAtFirst) {
   EXPECT_EQ(PciAddress(), (PciAddress{0, 0, 0, 0}));
}

TEST(PciAddress, IsEqualWhenAllOfItIs) {
   const PciAddress address{1, 2, 3, 4};
   EXPECT_EQ(address, (PciAddress{1, 2, 3, 4}));
   EXPECT_NE(address, (PciAddress{0, 2, 3, 4}));
   EXPECT_NE(address, (PciAddress{1, 0, 3, 4}));
   EXPECT_NE(address, (PciAddress{1, 2, 0, 4}));
   EXPECT_NE(address, (PciAddress{1, 2, 3, 0}));
}

TEST(PciAddress, HasAStringFormThatReadsBack) {
   const PciAddress address{0xFFFF, 3, 31, 7};
   EXPECT_EQ(Traits::write(address), text);
   const std::string more = std::string(text) + ", and more";
   Platform::TextRange range(more);
   EXPECT_EQ(Traits::read(range), address);
   EXPECT_EQ(range.rest(), ", and more");
   for (const char* bad : {"", "none", "Value('TarnRegFile::PciAddress')",
                           "Value('TarnRegFile::PciAddress', domain=65536, bus=0, device=0, "
                           "function=0)",
                           "Value('TarnRegFile::PciAddress', bus=0, domain=0, device=0, "
                           "function=0)"}) {
      Platform::TextRange wrong(bad);
      EXPECT_THROW(Traits::read(wrong), Platform::RangeError) << bad;
   }
}

TEST(PciAddress, ThatIsMissingIsNone) {
   EXPECT_EQ(OptionalTraits::write(std::nullopt), "none");
   EXPECT_EQ(OptionalTraits::write(PciAddress{0xFFFF, 3, 31, 7}), text);
   Platform::TextRange none("none)");
   EXPECT_EQ(OptionalTraits::read(none), std::nullopt);
   EXPECT_EQ(none.rest(), ")");
   Platform::TextRange some(text);
   EXPECT_EQ(OptionalTraits::read(some), (PciAddress{0xFFFF, 3, 31, 7}));
   Platform::TextRange wrong("null");
   EXPECT_THROW(OptionalTraits::read(wrong), Platform::RangeError);
}

} // namespace
