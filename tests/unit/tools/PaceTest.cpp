// How verbs that look again and again tell the time.

#include "tools/tarnreg/Pace.h"

#include <gtest/gtest.h>

namespace TarnReg {
namespace {

TEST(Pace, MillisecondsAreRoundedUpAndAsManyAsTheNumberHolds) {
   EXPECT_EQ(millisecondsOf(std::chrono::nanoseconds(1)), 1U);
   EXPECT_EQ(millisecondsOf(std::chrono::milliseconds(7)), 7U);
   EXPECT_EQ(millisecondsOf(Pace::Clock::duration::zero()), 0U);
   EXPECT_EQ(millisecondsOf(std::chrono::hours(24 * 365)), 0xFFFFFFFFU);
}

TEST(Pace, TheRealOneWaitsAsLongAsItIsTold) {
   const Pace pace = Pace::real();
   const Pace::Clock::time_point begin = pace.now();
   pace.wait(std::chrono::milliseconds(2));
   EXPECT_GE(pace.now() - begin, std::chrono::milliseconds(2));
   pace.wait(Pace::Clock::duration::zero());
}

} // namespace
} // namespace TarnReg
