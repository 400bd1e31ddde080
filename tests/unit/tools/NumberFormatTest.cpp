#include <gtest/gtest.h>

#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/NumberFormat.h"

namespace {

using TarnReg::formatNumber;
using TarnReg::NumberBase;
using TarnReg::parseNumber;

TEST(NumberFormat, PadsToTheWidthOfTheRegister) {
   EXPECT_EQ(formatNumber(0x1f, 32, NumberBase::hex), "0x0000001f");
   EXPECT_EQ(formatNumber(0x1f, 8, NumberBase::hex), "0x1f");
   EXPECT_EQ(formatNumber(1, 9, NumberBase::hex), "0x001");
   EXPECT_EQ(formatNumber(1, 1, NumberBase::hex), "0x1");
   EXPECT_EQ(formatNumber(5, 8, NumberBase::bin), "0b00000101");
   EXPECT_EQ(formatNumber(5, 32, NumberBase::dec), "5");
}

TEST(NumberFormat, AValueWiderThanTheRegisterIsShownInFull) {
   EXPECT_EQ(formatNumber(0xFFFFFFFF, 4, NumberBase::hex), "0xffffffff");
   EXPECT_EQ(formatNumber(5, 1, NumberBase::bin), "0b101");
}

TEST(NumberFormat, ARegisterWithoutWidthShowsAtLeastOneDigit) {
   EXPECT_EQ(formatNumber(0, 0, NumberBase::hex), "0x0");
   EXPECT_EQ(formatNumber(0, 0, NumberBase::bin), "0b0");
}

TEST(NumberFormat, ReadsWhatItShows) {
   for (const std::uint32_t value : {0U, 1U, 0x80000000U, 0xFFFFFFFFU}) {
      for (const NumberBase base : {NumberBase::hex, NumberBase::dec, NumberBase::bin}) {
         EXPECT_EQ(parseNumber(formatNumber(value, 32, base), "x"), value);
      }
   }
   EXPECT_EQ(parseNumber("0XFf", "x"), 0xffU);
}

TEST(NumberFormat, RefusesWhatIsNoUnsigned32BitNumber) {
   for (const char* text : {"", " ", "-1", "4294967296", "0x", "0x100000000", "0b2", "12a", "1 ",
                            "1.5", "99999999999999999999999", "\x1b", "0b", "abc"}) {
      try {
         parseNumber(text, "NAME=VALUE");
         FAIL() << text;
      } catch (const TarnReg::Failure& failure) {
         EXPECT_EQ(failure.code(), TarnReg::ExitCode::usage) << text;
         EXPECT_EQ(std::string(failure.what()),
                   "NAME=VALUE: '" + std::string(text) + "' is no number from 0 to 0xffffffff");
      }
   }
}

} // namespace
