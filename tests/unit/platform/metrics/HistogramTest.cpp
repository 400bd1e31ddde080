#include "platform/metrics/Histogram.h"

#include <limits>
#include <numeric>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using Platform::Metrics::Histogram;
using testing::Each;
using testing::ElementsAre;

std::string refusal(std::vector<std::uint64_t> bounds, std::uint64_t perShownUnit = 1) {
   try {
      const Histogram histogram(std::move(bounds), perShownUnit);
   } catch (const std::invalid_argument& error) {
      return error.what();
   }
   return "accepted";
}

TEST(Histogram, BeginsEmpty) {
   const Histogram histogram({10, 20});
   const Histogram::Snapshot snapshot = histogram.snapshot();
   EXPECT_THAT(snapshot.counts, ElementsAre(0, 0, 0));
   EXPECT_EQ(snapshot.count, 0U);
   EXPECT_EQ(snapshot.sum, 0U);
}

TEST(Histogram, AValueBelongsToTheFirstBoundThatIsNotLess) {
   Histogram histogram({10, 20});
   for (const std::uint64_t value : {0, 9, 10, 11, 20, 21, 1000}) {
      histogram.observe(value);
   }
   const Histogram::Snapshot snapshot = histogram.snapshot();
   EXPECT_THAT(snapshot.counts, ElementsAre(3, 2, 2));
   EXPECT_EQ(snapshot.count, 7U);
   EXPECT_EQ(snapshot.sum, 1071U);
}

TEST(Histogram, ABoundOfZeroTakesZeros) {
   Histogram histogram({0});
   histogram.observe(0);
   histogram.observe(1);
   EXPECT_THAT(histogram.snapshot().counts, ElementsAre(1, 1));
}

TEST(Histogram, TheLargestValueIsAboveAllBoundsButItself) {
   constexpr std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
   Histogram below({most - 1});
   below.observe(most);
   EXPECT_THAT(below.snapshot().counts, ElementsAre(0, 1));
   Histogram at({most});
   at.observe(most);
   at.observe(2);
   EXPECT_THAT(at.snapshot().counts, ElementsAre(2, 0));
   EXPECT_EQ(at.snapshot().sum, 1U) << "the sum wraps around";
}

TEST(Histogram, KeepsItsBoundsAndUnit) {
   const Histogram histogram({1, 5, 1000}, 1000);
   EXPECT_THAT(histogram.upperBounds(), ElementsAre(1, 5, 1000));
   EXPECT_EQ(histogram.perShownUnit(), 1000U);
   EXPECT_EQ(Histogram({1}).perShownUnit(), 1U);
}

TEST(Histogram, BadBoundsAreRefused) {
   EXPECT_EQ(refusal({}), "a histogram of 0 bounds: 1 to 64 are possible");
   std::vector<std::uint64_t> many(64);
   std::iota(many.begin(), many.end(), 0U);
   EXPECT_EQ(refusal(many), "accepted");
   many.push_back(64);
   EXPECT_EQ(refusal(many), "a histogram of 65 bounds: 1 to 64 are possible");
   EXPECT_EQ(refusal({1, 3, 3}), "the bounds of a histogram must ascend: 3, 3");
   EXPECT_EQ(refusal({1, 3, 2}), "the bounds of a histogram must ascend: 3, 2");
   EXPECT_EQ(refusal({1}, 0), "a histogram's values are shown in a unit of 0");
}

TEST(Histogram, LosesNoObservationOfAnyThread) {
   constexpr std::uint64_t each = 10000;
   Histogram histogram({0, 1, 2, 3});
   std::vector<std::thread> threads;
   for (std::uint64_t i = 0; i < 4; ++i) {
      threads.emplace_back([&histogram, i] {
         for (std::uint64_t n = 0; n < each; ++n) {
            histogram.observe((n + i) % 5);
         }
      });
   }
   for (std::thread& thread : threads) {
      thread.join();
   }
   const Histogram::Snapshot snapshot = histogram.snapshot();
   EXPECT_THAT(snapshot.counts, Each(4 * each / 5));
   EXPECT_EQ(snapshot.count, 4 * each);
   EXPECT_EQ(snapshot.sum, 4 * each / 5 * (1 + 2 + 3 + 4));
}

TEST(Histogram, CountIsWhatTheBucketsAddUpToAlsoWhileOthersObserve) {
   constexpr std::uint64_t end = 20000;
   Histogram histogram({0});
   std::thread observer([&] {
      for (std::uint64_t n = 0; n < end; ++n) {
         histogram.observe(n % 2);
      }
   });
   for (std::uint64_t last = 0; last < end;) {
      const Histogram::Snapshot snapshot = histogram.snapshot();
      EXPECT_EQ(snapshot.count, snapshot.counts[0] + snapshot.counts[1]);
      EXPECT_GE(snapshot.count, last);
      last = snapshot.count;
   }
   observer.join();
   EXPECT_EQ(histogram.snapshot().sum, end / 2);
}

} // namespace
