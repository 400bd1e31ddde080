#include "platform/entity/LittleEndian.h"

#include <array>

#include <gtest/gtest.h>

namespace {

namespace LittleEndian = Platform::LittleEndian;
using Bytes = std::array<std::uint8_t, 12>;

TEST(LittleEndian, PutsTheLeastSignificantByteFirstAndTouchesNoOther) {
   Bytes bytes{};
   bytes.fill(0xEE);
   LittleEndian::store32(bytes.data() + 1, 0x12345678);
   EXPECT_EQ(bytes,
             (Bytes{0xEE, 0x78, 0x56, 0x34, 0x12, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
   bytes.fill(0xEE);
   LittleEndian::store64(bytes.data() + 3, 0x1122334455667788);
   EXPECT_EQ(bytes,
             (Bytes{0xEE, 0xEE, 0xEE, 0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0xEE}));
}

TEST(LittleEndian, ReadsBackAtAnyAlignment) {
   Bytes bytes{};
   for (std::size_t at = 0; at < 5; ++at) {
      LittleEndian::store64(bytes.data() + at, 0xFEDCBA9876543210);
      EXPECT_EQ(LittleEndian::load64(bytes.data() + at), 0xFEDCBA9876543210) << at;
      EXPECT_EQ(LittleEndian::load32(bytes.data() + at), 0x76543210u) << at;
   }
}

} // namespace
