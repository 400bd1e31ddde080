#include "platform/trace/Levels.h"

#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/trace/Source.h"

namespace {

using Platform::Trace::Levels;
using Platform::Trace::off;
using testing::ElementsAre;
using testing::IsEmpty;

std::string refusal(std::string_view spec) {
   try {
      const Levels levels(spec);
      return "accepted";
   } catch (const std::invalid_argument& error) {
      return error.what();
   }
}

TEST(TraceLevels, NameWithoutAnEntryHasThresholdZero) {
   EXPECT_EQ(Levels().threshold("a"), 0);
   EXPECT_EQ(Levels("b=5").threshold("a"), 0);
}

TEST(TraceLevels, EveryDigitAndOffAreLevels) {
   for (int level = 0; level <= 9; ++level) {
      EXPECT_EQ(Levels("a=" + std::to_string(level)).threshold("a"), level);
   }
   EXPECT_EQ(Levels("a=off").threshold("a"), off);
}

TEST(TraceLevels, NameWithoutStarMatchesOnlyItself) {
   const Levels levels("a/b=5");
   EXPECT_EQ(levels.threshold("a/b"), 5);
   EXPECT_EQ(levels.threshold("a/bc"), 0);
   EXPECT_EQ(levels.threshold("xa/b"), 0);
   EXPECT_EQ(levels.threshold("A/b"), 0);
   EXPECT_EQ(levels.threshold(""), 0);
}

TEST(TraceLevels, StarStandsForAnyCharactersAnywhere) {
   EXPECT_EQ(Levels("*=5").threshold(""), 5);
   EXPECT_EQ(Levels("*=5").threshold("a/b/c"), 5);
   EXPECT_EQ(Levels("a/*=5").threshold("a/"), 5);
   EXPECT_EQ(Levels("a/*=5").threshold("a/b/c"), 5);
   EXPECT_EQ(Levels("a/*=5").threshold("a"), 0);
   EXPECT_EQ(Levels("*/c=5").threshold("a/b/c"), 5);
   EXPECT_EQ(Levels("*/c=5").threshold("a/b/c/d"), 0);
   EXPECT_EQ(Levels("a*b*c=5").threshold("a-b-b-c"), 5);
   EXPECT_EQ(Levels("a*b*c=5").threshold("abc"), 5);
   EXPECT_EQ(Levels("a*b*c=5").threshold("acb"), 0);
   EXPECT_EQ(Levels("**a**=5").threshold("a"), 5);
   EXPECT_EQ(Levels("*ab=5").threshold("aab"), 5);
}

TEST(TraceLevels, OtherPatternCharactersStandForThemselves) {
   EXPECT_EQ(Levels("a?c=5").threshold("abc"), 0);
   EXPECT_EQ(Levels("a?c=5").threshold("a?c"), 5);
   EXPECT_EQ(Levels("[a]=5").threshold("a"), 0);
}

TEST(TraceLevels, PatternOfManyStarsIsDecidedInReasonableTime) {
   std::string pattern;
   for (int i = 0; i < 40; ++i) {
      pattern += "a*";
   }
   EXPECT_EQ(Levels(pattern + "b=5").threshold(std::string(2000, 'a')), 0);
}

TEST(TraceLevels, LaterEntriesWin) {
   EXPECT_EQ(Levels("a=5,*=2").threshold("a"), 2);
   EXPECT_EQ(Levels("*=2,a=5").threshold("a"), 5);
   EXPECT_EQ(Levels("*=off,a=5").threshold("b"), off);
}

TEST(TraceLevels, BlanksAndEmptyEntriesAreIgnored) {
   EXPECT_EQ(Levels(" a = 5 ,, b=off,").spec(), "a=5,b=off");
   EXPECT_EQ(Levels("").spec(), "");
   EXPECT_EQ(Levels(" , ,").spec(), "");
}

TEST(TraceLevels, SpecGivesTheEntriesBackInOrder) {
   EXPECT_EQ(Levels("b=1,a*=off,b=9").spec(), "b=1,a*=off,b=9");
}

TEST(TraceLevels, BadEntriesAreNamed) {
   EXPECT_EQ(refusal("foo"), "bad trace level 'foo': expected NAME=LEVEL");
   EXPECT_EQ(refusal("=5"), "bad trace level '=5': expected a source name before the '='");
   for (const char* entry : {"a=", "a=10", "a=-1", "a=x", "a=1x", "a=OFF", "a=1=2", "a==1"}) {
      EXPECT_EQ(refusal(entry), "bad trace level '" + std::string(entry) +
                                   "': expected a level, 0 to 9 or off, after the '='");
   }
}

TEST(TraceLevels, ExceptionNamesTheFirstBadEntryOfSeveral) {
   EXPECT_EQ(refusal("a=1, b ,c"), "bad trace level 'b': expected NAME=LEVEL");
}

TEST(TraceLevels, LenientFormTakesTheGoodEntriesAndTellsEachBadOne) {
   std::vector<std::string> errors;
   const Levels levels("a=1,b,c=2,d=x", errors);
   EXPECT_EQ(levels.spec(), "a=1,c=2");
   EXPECT_THAT(errors, ElementsAre("bad trace level 'b': expected NAME=LEVEL",
                                   "bad trace level 'd=x': expected a level, 0 to 9 or off, after "
                                   "the '='"));
}

TEST(TraceLevels, LenientFormTellsNothingWhenAllIsWell) {
   std::vector<std::string> errors;
   EXPECT_EQ(Levels("a=1", errors).spec(), "a=1");
   EXPECT_THAT(errors, IsEmpty());
}

} // namespace
