// What values of options have to be.

#include "board/OptionChecks.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace Board {
namespace {

/// What is wrong with `word`, and what it is then.
std::pair<std::string, std::string> checked(const CLI::Validator& validator, std::string word) {
   const std::string wrong = validator(word);
   return {wrong, word};
}

using Pair = std::pair<std::string, std::string>;

TEST(OptionChecks, AWholeNumberIsWithinItsBounds) {
   const CLI::Validator validator = wholeNumber(1, 9);
   EXPECT_EQ(checked(validator, "1"), Pair("", "1"));
   EXPECT_EQ(checked(validator, "9"), Pair("", "9"));
   for (const char* word : {"0", "10", "-1", "1.5", "", "x", " 1", "99999999999999999999999"}) {
      EXPECT_EQ(checked(validator, word).first,
                "'" + std::string(word) + "' is no whole number from 1 to 9");
   }
}

TEST(OptionChecks, AWholeNumberIsHandedOnInDecimal) {
   EXPECT_EQ(checked(wholeNumber(0, 255), "0x1f"), Pair("", "31"));
   EXPECT_EQ(checked(wholeNumber(0, 255), "0b11"), Pair("", "3"));
   EXPECT_EQ(checked(wholeNumber(0, 255), "010"), Pair("", "10")) << "which is not octal";
}

TEST(OptionChecks, ATimeInSecondsMayHaveAFraction) {
   const CLI::Validator validator = secondsUpToAYear();
   for (const char* word : {"0", "0.5", ".5", "1", "1e3", "31536000"}) {
      EXPECT_EQ(checked(validator, word), Pair("", word));
   }
   for (const char* word :
        {"-1", "31536001", "nan", "inf", "-inf", "1s", "", "x", "1e999", "0x10", "1,5"}) {
      EXPECT_EQ(checked(validator, word).first,
                "'" + std::string(word) + "' is no time in seconds, from 0 to 31536000");
   }
}

} // namespace
} // namespace Board
