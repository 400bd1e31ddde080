#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/tools/Board.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/NamePattern.h"

namespace {

using TarnReg::ExitCode;
using TarnReg::matchesGlob;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::Board;

const std::string lines = "0,FAN[0:3]_PWM,control,true,8\n"
                          "4,FAN[0:3]_TACH,sensor,false,16\n"
                          "8,LANE[0:1]_[0:1],counter,false,8\n"
                          "12,A*,id,true,8\n"
                          "13,AB,id,true,8\n"
                          "14,,id,true,8\n"
                          "15,SCRATCH,scratch,true,32\n";

std::vector<std::string> select(Board& board, const std::string& pattern) {
   std::vector<std::string> names;
   for (const auto* record : selectRegisters(*board.device, pattern)) {
      names.push_back(record->name);
   }
   return names;
}

/// "<exit code>: <text>" of the failure to select.
std::string failure(Board& board, const std::string& pattern) {
   try {
      selectRegisters(*board.device, pattern);
   } catch (const TarnReg::Failure& error) {
      return std::to_string(static_cast<int>(error.code())) + ": " + error.what();
   }
   return "none";
}

TEST(NamePattern, AStarIsAnyRunAndAQuestionMarkOneCharacter) {
   EXPECT_TRUE(matchesGlob("", ""));
   EXPECT_TRUE(matchesGlob("*", ""));
   EXPECT_TRUE(matchesGlob("**", "abc"));
   EXPECT_TRUE(matchesGlob("a*c", "ac"));
   EXPECT_TRUE(matchesGlob("a*c", "abcbc"));
   EXPECT_TRUE(matchesGlob("a?c", "abc"));
   EXPECT_TRUE(matchesGlob("*b*d*", "abcde"));
   EXPECT_TRUE(matchesGlob("[0]*", "[0]x"));
   EXPECT_FALSE(matchesGlob("", "a"));
   EXPECT_FALSE(matchesGlob("?", ""));
   EXPECT_FALSE(matchesGlob("a*c", "abcb"));
   EXPECT_FALSE(matchesGlob("a", "A"));
   EXPECT_FALSE(matchesGlob("a*", "ba"));
}

TEST(NamePattern, ManyStarsOnALongNameDoNotBlowUp) {
   std::string pattern;
   for (int i = 0; i < 30; ++i) {
      pattern += "*a";
   }
   EXPECT_FALSE(matchesGlob(pattern + "b", std::string(20000, 'a')));
}

TEST(NamePattern, ARangeSelectsInItsOrder) {
   Board board(lines);
   EXPECT_THAT(select(board, "FAN[1:2]_PWM"), ElementsAre("FAN[1]_PWM", "FAN[2]_PWM"));
   EXPECT_THAT(select(board, "LANE[0:1]_[0:1]"),
               ElementsAre("LANE[0]_[0]", "LANE[0]_[1]", "LANE[1]_[0]", "LANE[1]_[1]"));
}

TEST(NamePattern, AGlobSelectsInOrderOfAddress) {
   Board board(lines);
   EXPECT_THAT(select(board, "FAN[?]_*M"),
               ElementsAre("FAN[0]_PWM", "FAN[1]_PWM", "FAN[2]_PWM", "FAN[3]_PWM"));
   EXPECT_THAT(select(board, "FAN[2:3]*"),
               ElementsAre("FAN[2]_PWM", "FAN[2]_TACH", "FAN[3]_PWM", "FAN[3]_TACH"));
}

TEST(NamePattern, ARegisterIsSelectedOnceWhenSeveralExpansionsMatchIt) {
   Board board(lines);
   EXPECT_THAT(select(board, "LANE*[0:1]*"),
               ElementsAre("LANE[0]_[0]", "LANE[0]_[1]", "LANE[1]_[0]", "LANE[1]_[1]"));
}

TEST(NamePattern, ANameThatLooksLikeAPatternIsANameFirst) {
   Board board(lines);
   EXPECT_THAT(select(board, "A*"), ElementsAre("A*"));
   EXPECT_THAT(select(board, "A?"), ElementsAre("A*", "AB"));
}

TEST(NamePattern, TheEmptyNameIsAName) {
   Board board(lines);
   EXPECT_THAT(select(board, ""), ElementsAre(""));
   Board other("0,A,id,true,8\n");
   EXPECT_EQ(failure(other, ""), "3: no register ''");
}

TEST(NamePattern, BadRangesAreRefusedAndTheProcessLives) {
   Board board(lines);
   EXPECT_EQ(failure(board, "FAN[3:0]_PWM"),
             "2: FAN[3:0]_PWM: the lower bound of the range is above the upper");
   EXPECT_EQ(failure(board, "FAN[0:1]_[1:0]"),
             "2: FAN[0:1]_[1:0]: the lower bound of the range is above the upper");
   EXPECT_EQ(failure(board, "FAN[:]_PWM"),
             "2: FAN[:]_PWM: a bound of the range is no decimal number");
   EXPECT_EQ(failure(board, "FAN[0:99999999999]"),
             "2: FAN[0:99999999999]: a bound of the range is no decimal number");
   EXPECT_THAT(failure(board, "FAN[0:2147483647]"),
               testing::StartsWith("2: FAN[0:2147483647]: Register array expands to more than"));
   EXPECT_THAT(failure(board, "F[0:99999][0:99999]"), testing::StartsWith("2: "));
}

TEST(NamePattern, ARangeBeyondTheArrayNamesTheFirstThatIsMissing) {
   Board board(lines);
   EXPECT_EQ(failure(board, "FAN[2:9]_PWM"),
             "3: no register FAN[4]_PWM; did you mean FAN[0]_PWM, FAN[1]_PWM, FAN[2]_PWM?");
}

TEST(NamePattern, SuggestsWhatWasMeantWhateverTheCase) {
   Board board(lines);
   EXPECT_THAT(suggestions(*board.device, "SCRACH"), ElementsAre("SCRATCH"));
   EXPECT_THAT(suggestions(*board.device, "scratch"), ElementsAre("SCRATCH"));
   EXPECT_THAT(suggestions(*board.device, "fan[1]_pmw"),
               ElementsAre("FAN[1]_PWM", "FAN[0]_PWM", "FAN[2]_PWM"))
      << "the nearest first, at most three";
   EXPECT_THAT(suggestions(*board.device, "VOLTAGE"), IsEmpty());
   EXPECT_EQ(failure(board, "SCRACH"), "3: no register SCRACH; did you mean SCRATCH?");
}

TEST(NamePattern, AShortNameDoesNotRemindOfEverythingShort) {
   Board board(lines);
   EXPECT_THAT(suggestions(*board.device, "ZZ"), IsEmpty());
   EXPECT_THAT(suggestions(*board.device, "AC"), ElementsAre("A*", "AB"));
}

} // namespace
