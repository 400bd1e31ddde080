// Which names somebody may have meant who typed another one.

#include "board/NearNames.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>

namespace Board {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> nearest(std::string_view typed, std::initializer_list<const char*> names) {
   NearNames near(typed);
   for (const char* name : names) {
      near.add(name);
   }
   return near.nearest();
}

TEST(NearNames, TheNearestComesFirst) {
   EXPECT_THAT(nearest("raed", {"rapid", "list", "read"}), ElementsAre("read", "rapid"))
      << "of two edits and of one: neighbours changed places";
   EXPECT_THAT(nearest("wach", {"wait", "watch"}), ElementsAre("watch", "wait"));
}

TEST(NearNames, AreThreeAtMostAndThenTheFirstOfTheAlphabet) {
   EXPECT_THAT(nearest("ab5", {"ab4", "ab3", "ab1", "ab2"}), ElementsAre("ab1", "ab2", "ab3"));
}

TEST(NearNames, UpperAndLowerCaseAreTheSame) {
   EXPECT_THAT(nearest("scratch", {"SCRATCH"}), ElementsAre("SCRATCH"));
   EXPECT_THAT(nearest("SCR", {"scratch"}), ElementsAre("scratch"));
}

TEST(NearNames, ANameGoesOnWhereSomebodyStopped) {
   EXPECT_THAT(nearest("int", {"interval", "into", "print"}), ElementsAre("into", "interval"));
   EXPECT_THAT(nearest("in", {"interval"}), IsEmpty()) << "of two letters that would be many";
}

TEST(NearNames, AShortOneIsNotNearToEverything) {
   EXPECT_THAT(nearest("zz", {"aa", "read", ""}), IsEmpty());
   EXPECT_THAT(nearest("a", {"b", "A"}), ElementsAre("A"));
   EXPECT_THAT(nearest("", {"a", "b"}), IsEmpty());
   EXPECT_THAT(nearest("x", {}), IsEmpty());
}

TEST(NearNames, AreAskedForInOneSentence) {
   EXPECT_EQ(didYouMean({}), "");
   EXPECT_EQ(didYouMean({"read"}), "; did you mean read?");
   EXPECT_EQ(didYouMean({"read", "write"}), "; did you mean read, write?");
}

} // namespace
} // namespace Board
