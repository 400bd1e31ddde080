#include "platform/metrics/Counter.h"

#include <atomic>
#include <limits>
#include <thread>

#include <gtest/gtest.h>

namespace {

using Platform::Metrics::Counter;

TEST(Counter, BeginsAtZeroAndCounts) {
   Counter counter;
   EXPECT_EQ(counter.value(), 0U);
   counter.Inc();
   counter.Inc(41);
   EXPECT_EQ(counter.value(), 42U);
   counter.Inc(0);
   EXPECT_EQ(counter.value(), 42U);
}

TEST(Counter, WrapsAround) {
   Counter counter;
   counter.Inc(std::numeric_limits<std::uint64_t>::max());
   counter.Inc(2);
   EXPECT_EQ(counter.value(), 1U);
}

TEST(Counter, OtherThreadsSeeItGrow) {
   constexpr std::uint64_t end = 10000;
   Counter counter;
   std::thread reader([&] {
      for (std::uint64_t last = 0; last < end;) {
         const std::uint64_t value = counter.value();
         EXPECT_GE(value, last);
         last = value;
      }
   });
   for (std::uint64_t i = 0; i < end; ++i) {
      counter.Inc();
   }
   reader.join();
   EXPECT_EQ(counter.value(), end);
}

TEST(Counter, IsOneWord) {
   EXPECT_EQ(sizeof(Counter), sizeof(std::uint64_t));
}

} // namespace
