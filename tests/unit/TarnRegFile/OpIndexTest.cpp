#include "TarnRegFile/OpIndex.h"

#include <limits>

#include <gtest/gtest.h>

#include "platform/entity/Value.h"
#include "tests/support/Failure.h"

namespace {

using TarnRegFile::Sable::OpIndex;
using TestSupport::Failure;
using Traits = Platform::ValueTraits<OpIndex>;

const Failure outOfRange =
   Failure::range("TarnRegFile::Sable::OpIndex::value < TarnRegFile::Sable::OpIndex::min or > "
                  "TarnRegFile::Sable::OpIndex::max not allowed");

TEST(OpIndex, IsAByteAndZeroAtFirst) {
   EXPECT_EQ(sizeof(OpIndex), 1u);
   EXPECT_EQ(OpIndex().value(), 0);
   EXPECT_EQ(OpIndex::min, 0);
   EXPECT_EQ(OpIndex::max, 127);
}

TEST(OpIndex, TakesEveryValueOfItsRange) {
   for (int value = 0; value <= 127; ++value) {
      EXPECT_EQ(OpIndex(value).value(), value);
   }
   static_assert(OpIndex(std::uint64_t{127}).value() == 127);
}

TEST(OpIndex, OutsideOfTheRangeIsARangeError) {
   for (const int value : {-1, -128, 128, 129, 255, 256, 384, std::numeric_limits<int>::min(),
                           std::numeric_limits<int>::max()}) {
      EXPECT_EQ(Failure([&] { OpIndex index(value); }), outOfRange) << value;
   }
   EXPECT_EQ(Failure([] { OpIndex index(std::uint8_t{128}); }), outOfRange);
   EXPECT_EQ(Failure([] { OpIndex index(std::int8_t{-1}); }), outOfRange);
   EXPECT_EQ(Failure([] { OpIndex index(std::uint64_t{1} << 32); }), outOfRange);
   EXPECT_EQ(Failure([] { OpIndex index(UINT64_MAX); }), outOfRange);
   EXPECT_EQ(Failure([] { OpIndex index(INT64_MIN); }), outOfRange);
}

TEST(OpIndex, IsOrderedAsItsNumber) {
   EXPECT_LT(OpIndex(1), OpIndex(2));
   EXPECT_EQ(OpIndex(2), OpIndex(2));
   EXPECT_NE(OpIndex(1), OpIndex(2));
}

TEST(OpIndex, IsWrittenAndReadAsANumber) {
   EXPECT_EQ(Traits::name(), "TarnRegFile::Sable::OpIndex");
   EXPECT_EQ(Traits::write(OpIndex(127)), "127");
   Platform::TextRange range("0x7f, more");
   EXPECT_EQ(Traits::read(range), OpIndex(127));
   EXPECT_EQ(range.rest(), ", more");
   Platform::TextRange binary("0b11");
   EXPECT_EQ(OpIndex(binary), OpIndex(3));
}

TEST(OpIndex, TextOutsideOfTheRangeIsTheSameRangeErrorAndStays) {
   for (const char* text : {"128", "255", "256", "-1", "0x80", "99999999999"}) {
      Platform::TextRange range(text);
      EXPECT_EQ(Failure([&] { OpIndex index(range); }), outOfRange) << text;
      EXPECT_EQ(range.rest(), text);
   }
}

TEST(OpIndex, TextThatIsNoNumberIsAnErrorOfNumbers) {
   for (const char* text : {"", "x", "0x", "1.5"}) {
      Platform::TextRange range(text);
      const Failure failure([&] { OpIndex index(range); });
      EXPECT_EQ(failure, Failure::range(Platform::quote(text) + " is not a number")) << text;
      EXPECT_EQ(range.rest(), text);
   }
}

} // namespace
