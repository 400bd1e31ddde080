#include "platform/metrics/SharedCounter.h"

#include <limits>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Platform::Metrics::SharedCounter;

TEST(SharedCounter, BeginsAtZeroAndCounts) {
   SharedCounter counter;
   EXPECT_EQ(counter.value(), 0U);
   counter.Inc();
   counter.Inc(41);
   counter.Inc(0);
   EXPECT_EQ(counter.value(), 42U);
}

TEST(SharedCounter, WrapsAround) {
   SharedCounter counter;
   counter.Inc(std::numeric_limits<std::uint64_t>::max());
   counter.Inc(2);
   EXPECT_EQ(counter.value(), 1U);
}

TEST(SharedCounter, LosesNoCountOfAnyThread) {
   constexpr std::uint64_t each = 20000;
   SharedCounter counter;
   std::vector<std::thread> threads;
   for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] {
         for (std::uint64_t n = 0; n < each; ++n) {
            counter.Inc();
         }
      });
   }
   for (std::thread& thread : threads) {
      thread.join();
   }
   EXPECT_EQ(counter.value(), 4 * each);
}

TEST(SharedCounter, IsOneWord) {
   EXPECT_EQ(sizeof(SharedCounter), sizeof(std::uint64_t));
}

} // namespace
