// The lines that top shows.

#include "tools/tarnreg/TopView.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/tools/Board.h"

namespace TarnReg {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

class TopViewTest : public testing::Test {
protected:
   TopView view(TopView::Style style = {.unicode = false, .color = false}) {
      return TopView(board.device->registers(), style);
   }

   TestSupport::Board board{"0,A,control,true,8\n1,LONG,control,true,16\n2,C,control,true,4\n"};
};

TEST_F(TopViewTest, NothingIsShownOfWhatWasNotReadYet) {
   EXPECT_THAT(view().lines(0, 9, 20),
               ElementsAre("  A               ", "  LONG            ", "  C               "));
}

TEST_F(TopViewTest, WhatChangedIsMarkedForOneRound) {
   TopView top = view();
   top.valueIs(0, 1);
   EXPECT_THAT(top.lines(0, 1, 20), ElementsAre(StartsWith("  A     0x01  "))) << "it is new";
   top.valueIs(0, 2);
   EXPECT_THAT(top.lines(0, 1, 20), ElementsAre(StartsWith("* A     0x02  ")));
   top.valueIs(0, 2);
   EXPECT_THAT(top.lines(0, 1, 20), ElementsAre(StartsWith("  A     0x02  ")));
}

TEST_F(TopViewTest, WhatChangedIsInverseWhereThereAreColours) {
   TopView top = view({.unicode = false, .color = true});
   top.valueIs(0, 1);
   top.valueIs(0, 2);
   EXPECT_THAT(top.lines(0, 1, 30), ElementsAre(StartsWith("A     \033[7m0x02      \033[0m")));
   top.failureIs(0, "gone");
   EXPECT_THAT(top.lines(0, 1, 12), ElementsAre("A     \033[31mgone  \033[0m"));
}

TEST_F(TopViewTest, AFailureStandsInItsLineAndGoes) {
   TopView top = view();
   top.valueIs(1, 7);
   top.failureIs(1, "no \x1b answer");
   EXPECT_EQ(top.failures(), 1U);
   EXPECT_THAT(top.lines(1, 1, 40), ElementsAre("! LONG  no \\x1b answer                  "));
   top.valueIs(1, 7);
   EXPECT_EQ(top.failures(), 0U);
   EXPECT_THAT(top.lines(1, 1, 40), ElementsAre(StartsWith("* LONG  0x0007  ")));
}

TEST_F(TopViewTest, ThePlotGoesFromTheLowestToTheHighest) {
   TopView top = view();
   for (const std::uint32_t value : {0U, 255U, 0U}) {
      top.valueIs(0, value);
   }
   const std::string plot = top.lines(0, 1, 40).at(0).substr(20);
   ASSERT_EQ(plot.size(), 3U) << plot;
   EXPECT_EQ(plot[0], plot[2]);
   EXPECT_NE(plot[0], plot[1]);
   top.failureIs(0, "gone");
   top.valueIs(0, 0);
   EXPECT_EQ(top.lines(0, 1, 40).at(0).substr(20), plot + ' ' + plot[0]);
}

TEST_F(TopViewTest, ThePlotHasTheNewestThatThereIsRoomFor) {
   TopView top = view();
   top.valueIs(0, 200);
   for (std::size_t i = 0; i < 2 * TopView::longest; ++i) {
      top.valueIs(0, 0);
   }
   const std::string wide = top.lines(0, 1, 10000).at(0).substr(20);
   EXPECT_EQ(wide, std::string(TopView::longest, wide.front()));
   EXPECT_EQ(top.lines(0, 1, 24).at(0).size(), 24U);
}

TEST_F(TopViewTest, NoLineIsLongerThanTheScreen) {
   TopView top = view();
   for (std::uint32_t value = 0; value < 30; ++value) {
      top.valueIs(0, value);
   }
   top.failureIs(2, std::string(100, 'x'));
   for (std::size_t columns = 0; columns < 40; ++columns) {
      for (const std::string& line : top.lines(0, 9, columns)) {
         EXPECT_LE(line.size(), columns);
      }
   }
}

TEST_F(TopViewTest, AValueThatThereIsNoRoomForIsNotShownInPart) {
   TopView top = view();
   top.valueIs(1, 0x1234);
   EXPECT_THAT(top.lines(1, 1, 14), ElementsAre("  LONG  0x1234"));
   EXPECT_THAT(top.lines(1, 1, 13), ElementsAre("  LONG  >>>>>"));
}

TEST_F(TopViewTest, AScreenBeginsWhereOneHasScrolledTo) {
   const TopView top = view();
   EXPECT_EQ(top.size(), 3U);
   EXPECT_THAT(top.lines(1, 1, 8), ElementsAre("  LONG  "));
   EXPECT_THAT(top.lines(2, 5, 8), ElementsAre("  C     "));
   EXPECT_THAT(top.lines(3, 5, 8), IsEmpty());
}

TEST(Fitted, TextIsCutOffOrFilledUp) {
   EXPECT_EQ(fitted("abc", 2), "ab");
   EXPECT_EQ(fitted("abc", 5), "abc  ");
   EXPECT_EQ(fitted("", 0), "");
}

} // namespace
} // namespace TarnReg
