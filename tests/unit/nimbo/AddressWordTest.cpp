#include "nimbo/AddressWord.h"

#include <cstdint>

#include <gtest/gtest.h>

#include "tests/support/Failure.h"

namespace Nimbo {
namespace {

using TestSupport::Failure;

constexpr std::uint64_t one = std::uint64_t{1} << 57;
constexpr std::uint64_t two = std::uint64_t{1} << 58;
constexpr std::uint64_t four = std::uint64_t{1} << 59;

Failure refusal(std::uint64_t word) {
   return Failure([word] { (void)AddressWord::from(word); });
}

TEST(AddressWord, WithOnlyASizeIsAllZero) {
   const AddressWord where = AddressWord::from(one);
   EXPECT_EQ(where,
             (AddressWord{.offset = 0, .offsetBytes = 1, .device = 0, .bus = 0, .controller = 0}));
}

TEST(AddressWord, WithEveryBitItMayHaveFillsEveryField) {
   const AddressWord where = AddressWord::from(four | (one - 1));
   EXPECT_EQ(where.offset, 0xffffffffU);
   EXPECT_EQ(where.offsetBytes, 4);
   EXPECT_EQ(where.device, 0x7f);
   EXPECT_EQ(where.bus, 0x7f);
   EXPECT_EQ(where.controller, 0x7ff);
}

TEST(AddressWord, EachFieldHasItsBitsAndNoOthers) {
   for (unsigned bit = 0; bit < 57; ++bit) {
      const AddressWord where = AddressWord::from(four | std::uint64_t{1} << bit);
      AddressWord expected;
      expected.offsetBytes = 4;
      if (bit < 32) {
         expected.offset = std::uint32_t{1} << bit;
      } else if (bit < 39) {
         expected.device = static_cast<std::uint8_t>(1U << (bit - 32));
      } else if (bit < 46) {
         expected.bus = static_cast<std::uint8_t>(1U << (bit - 39));
      } else {
         expected.controller = static_cast<std::uint16_t>(1U << (bit - 46));
      }
      EXPECT_EQ(where, expected) << bit;
   }
}

TEST(AddressWord, TakesOffsetsUpToItsSize) {
   EXPECT_EQ(AddressWord::from(one | 0xff).offset, 0xffU);
   EXPECT_EQ(AddressWord::from(one | 0xff).offsetBytes, 1);
   EXPECT_EQ(AddressWord::from(two | 0xffff).offset, 0xffffU);
   EXPECT_EQ(AddressWord::from(two | 0xffff).offsetBytes, 2);
   EXPECT_EQ(AddressWord::from(four | 0xffffffff).offset, 0xffffffffU);
}

TEST(AddressWord, RefusesOffsetsBeyondItsSize) {
   EXPECT_EQ(
      refusal(one | 0x100),
      Failure::invalidArgument("address 0x200000000000100: offset 0x100 does not fit in 1 byte"));
   EXPECT_EQ(refusal(two | 0x10000),
             Failure::invalidArgument(
                "address 0x400000000010000: offset 0x10000 does not fit in 2 bytes"));
   EXPECT_EQ(refusal(one | 0x80000000U).kind, "invalid argument");
   EXPECT_EQ(refusal(two | 0x80000000U).kind, "invalid argument");
}

TEST(AddressWord, RefusesAllButExactlyOneSize) {
   for (const std::uint64_t sizes :
        {std::uint64_t{0}, one | two, one | four, two | four, one | two | four}) {
      const Failure failure = refusal(sizes | 0x12);
      EXPECT_EQ(failure.kind, "invalid argument");
      EXPECT_TRUE(failure.text.ends_with(": exactly one of the bits 57 to 59 must be set"))
         << failure.text;
   }
   EXPECT_EQ(refusal(0x12), Failure::invalidArgument(
                               "address 0x12: exactly one of the bits 57 to 59 must be set"));
}

TEST(AddressWord, RefusesEachOfTheBitsAbove) {
   for (unsigned bit = 60; bit < 64; ++bit) {
      const Failure failure = refusal(one | std::uint64_t{1} << bit);
      EXPECT_EQ(failure.kind, "invalid argument");
      EXPECT_TRUE(failure.text.ends_with(": bits 60 to 63 must be 0")) << failure.text;
   }
   EXPECT_EQ(refusal(~std::uint64_t{0}),
             Failure::invalidArgument("address 0xffffffffffffffff: bits 60 to 63 must be 0"));
}

TEST(AddressWord, ShowsAPciFunctionAsTheSystemDoes) {
   EXPECT_EQ(pciToString(0), "0000:00:00.0");
   EXPECT_EQ(pciToString(0x0000'01'00), "0000:01:00.0");
   EXPECT_EQ(pciToString(0x1234'ab'ff), "1234:ab:1f.7");
   EXPECT_EQ(pciToString(0xffffffff), "ffff:ff:1f.7");
   EXPECT_EQ(pciToString(0x0a), "0000:00:01.2");
}

} // namespace
} // namespace Nimbo
