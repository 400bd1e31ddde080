#include "platform/hardware/FaultPlan.h"

#include <cerrno>
#include <limits>

#include <gtest/gtest.h>

namespace Hardware {
namespace {

using std::chrono::microseconds;

std::vector<int> errors(FaultPlan& plan, int accesses, bool isRead) {
   std::vector<int> errors;
   for (int i = 0; i < accesses; ++i) {
      errors.push_back(plan.access(isRead).error);
   }
   return errors;
}

using Errors = std::vector<int>;

TEST(FaultPlan, WithoutFaultsNothingHappens) {
   FaultPlan plan;
   const FaultPlan::Outcome outcome = plan.access(true);
   EXPECT_EQ(outcome.error, 0);
   EXPECT_EQ(outcome.length, std::nullopt);
   EXPECT_EQ(outcome.xorMask, 0);
   EXPECT_EQ(outcome.delay, microseconds(0));
   EXPECT_TRUE(plan.faults().empty());
}

TEST(FaultPlan, AFaultWithoutACountStrikesForEver) {
   FaultPlan plan;
   plan.add({.kind = FaultKind::nak});
   EXPECT_EQ(errors(plan, 3, true), (Errors{ENXIO, ENXIO, ENXIO}));
   EXPECT_EQ(plan.faults().size(), 1u);
}

TEST(FaultPlan, AFaultStrikesFromItsFirstAccessOnSoManyTimesAndIsThenForgotten) {
   FaultPlan plan;
   plan.add({.kind = FaultKind::timeout, .first = 2, .count = 2});
   EXPECT_EQ(errors(plan, 5, true), (Errors{0, ETIMEDOUT, ETIMEDOUT, 0, 0}));
   EXPECT_TRUE(plan.faults().empty());
}

TEST(FaultPlan, AccessesInTheOtherDirectionAreNotCounted) {
   FaultPlan plan;
   plan.add({.kind = FaultKind::ioError, .direction = FaultDirection::write, .first = 2});
   EXPECT_EQ(errors(plan, 3, true), (Errors{0, 0, 0}));
   EXPECT_EQ(errors(plan, 1, false), Errors{0});
   EXPECT_EQ(errors(plan, 1, true), Errors{0});
   EXPECT_EQ(errors(plan, 2, false), (Errors{EIO, EIO}));
}

TEST(FaultPlan, TheFirstErrorWinsMasksCombineAndTheShortestLengthHolds) {
   FaultPlan plan;
   plan.add({.kind = FaultKind::wrongBytes, .xorMask = 0x0f});
   plan.add({.kind = FaultKind::wrongBytes, .xorMask = 0x11});
   plan.add({.kind = FaultKind::shortRead, .length = 1});
   plan.add({.kind = FaultKind::shortRead, .length = 3});
   FaultPlan::Outcome outcome = plan.access(true);
   EXPECT_EQ(outcome.xorMask, 0x1e);
   EXPECT_EQ(outcome.length, 1u);
   EXPECT_EQ(outcome.error, 0);
   plan.add({.kind = FaultKind::ioError});
   plan.add({.kind = FaultKind::nak});
   EXPECT_EQ(plan.access(true).error, EIO);
}

TEST(FaultPlan, ClearForgetsFaultsButNeitherDelayNorLoss) {
   FaultPlan plan;
   plan.add({.kind = FaultKind::ioError});
   plan.delayIs(microseconds(7));
   plan.lostIs(true);
   plan.clear();
   EXPECT_TRUE(plan.faults().empty());
   EXPECT_EQ(plan.delay(), microseconds(7));
   EXPECT_TRUE(plan.lost());
}

TEST(FaultPlan, ALostDeviceDoesNotAnswerAndItsFaultsWait) {
   FaultPlan plan;
   plan.add({.kind = FaultKind::ioError, .count = 1});
   plan.lostIs(true);
   EXPECT_EQ(errors(plan, 2, true), (Errors{ENXIO, ENXIO}));
   plan.lostIs(false);
   EXPECT_EQ(errors(plan, 2, true), (Errors{EIO, 0}));
}

TEST(FaultPlan, FailingAccessesTakeTheDelayToo) {
   FaultPlan plan;
   plan.delayIs(microseconds(5));
   plan.lostIs(true);
   EXPECT_EQ(plan.access(true).delay, microseconds(5));
   plan.lostIs(false);
   plan.add({.kind = FaultKind::nak});
   EXPECT_EQ(plan.access(false).delay, microseconds(5));
}

TEST(FaultPlan, CountsAtTheEndOfTheirRangeDoNotWrap) {
   FaultPlan plan;
   const auto last = std::numeric_limits<std::uint64_t>::max();
   plan.add({.kind = FaultKind::nak, .first = 2, .count = last});
   plan.add({.kind = FaultKind::ioError, .first = last, .count = last});
   EXPECT_EQ(errors(plan, 3, true), (Errors{0, ENXIO, ENXIO}));
   EXPECT_EQ(plan.faults().size(), 2u);
}

TEST(FaultPlan, NamesOfKindsAndDirectionsGoBothWays) {
   for (const auto kind : {FaultKind::nak, FaultKind::ioError, FaultKind::timeout,
                           FaultKind::shortRead, FaultKind::wrongBytes}) {
      EXPECT_EQ(faultKindFromString(faultKindToString(kind)), kind);
   }
   for (const auto direction : {FaultDirection::any, FaultDirection::read, FaultDirection::write}) {
      EXPECT_EQ(faultDirectionFromString(faultDirectionToString(direction)), direction);
   }
   EXPECT_EQ(faultKindFromString("NAK"), std::nullopt);
   EXPECT_EQ(faultDirectionFromString(""), std::nullopt);
}

} // namespace
} // namespace Hardware
