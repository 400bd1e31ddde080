#include "platform/metrics/Registration.h"

#include <atomic>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/metrics/Exposer.h"
#include "platform/metrics/Registry.h"
#include "tests/unit/platform/metrics/HttpGet.h"

namespace {

using Platform::Metrics::Counter;
using Platform::Metrics::Exposer;
using Platform::Metrics::Registration;
using Platform::Metrics::Registry;
using Platform::Metrics::Test::exposition;
using testing::HasSubstr;
using testing::Not;

class RegistrationTest : public testing::Test {
protected:
   std::string shown() const { return exposition(exposer.port()); }

   Registry registry;
   Exposer exposer{registry, "0"};
   Counter counter;
};

TEST_F(RegistrationTest, CountersAreShownWhileItLives) {
   {
      const Registration registration = registry.registrationNew({{"a_total", "", &counter}});
      EXPECT_TRUE(registration.isRegistered());
      EXPECT_THAT(shown(), HasSubstr("\na_total 0\n"));
   }
   EXPECT_THAT(shown(), Not(HasSubstr("a_total")));
}

TEST_F(RegistrationTest, EmptyOneShowsNothing) {
   const Registration registration;
   EXPECT_FALSE(registration.isRegistered());
}

TEST_F(RegistrationTest, MovingHandsTheCountersOn) {
   Registration first = registry.registrationNew({{"a_total", "", &counter}});
   Registration second = std::move(first);
   EXPECT_TRUE(second.isRegistered());
   first = Registration();
   EXPECT_THAT(shown(), HasSubstr("\na_total 0\n"));
   second = Registration();
   EXPECT_THAT(shown(), Not(HasSubstr("a_total")));
}

TEST_F(RegistrationTest, AssigningLetsGoOfWhatWasShown) {
   Registration registration = registry.registrationNew({{"a_total", "", &counter}});
   registration = registry.registrationNew({{"b_total", "", &counter}});
   EXPECT_THAT(shown(), Not(HasSubstr("a_total")));
   EXPECT_THAT(shown(), HasSubstr("\nb_total 0\n"));
}

TEST_F(RegistrationTest, NameIsFreeAgainAfterwards) {
   { const Registration registration = registry.registrationNew({{"a_total", "", &counter}}); }
   EXPECT_TRUE(registry.registrationNew({{"a_total", "", &counter}}).isRegistered());
}

TEST_F(RegistrationTest, RefusedOneLeavesTheOtherAloneWhenItGoes) {
   const Registration kept = registry.registrationNew({{"a_total", "", &counter}});
   {
      Counter other;
      const Registration refused =
         registry.registrationNew({{"b_total", "", &other}, {"a_total", "", &other}});
      EXPECT_FALSE(refused.isRegistered());
   }
   EXPECT_THAT(shown(), HasSubstr("\na_total 0\n"));
   EXPECT_THAT(shown(), Not(HasSubstr("b_total")));
}

TEST(Registration, MayOutliveTheRegistry) {
   Counter counter;
   std::optional<Registry> registry(std::in_place);
   Registration registration = registry->registrationNew({{"a_total", "", &counter}});
   registry.reset();
   EXPECT_TRUE(registration.isRegistered());
   registration = Registration();
   EXPECT_FALSE(registration.isRegistered());
}

// An object as programs have them: its registration goes before its counters.
struct Counting {
   Counting(Registry& registry, int number)
      : registration(registry.registrationNew(
           {{"tarn_reads_total", "Reads", &reads}, {"tarn_writes_total", "Writes", &writes}},
           {{"entity", std::to_string(number)}})) {}

   Counter reads;
   Counter writes;
   Registration registration;
};

TEST_F(RegistrationTest, ObjectsMayComeGoAndCountWhileScrapesRun) {
   constexpr int threadCount = 3;
   constexpr int scrapes = 30;
   std::atomic<bool> done{false};
   std::vector<std::thread> threads;
   for (int thread = 0; thread < threadCount; ++thread) {
      threads.emplace_back([&, thread] {
         while (!done) {
            // On the heap, so that reading one that is gone is noticed.
            const auto first = std::make_unique<Counting>(registry, 2 * thread);
            const auto second = std::make_unique<Counting>(registry, 2 * thread + 1);
            EXPECT_TRUE(first->registration.isRegistered());
            EXPECT_TRUE(second->registration.isRegistered());
            first->reads.Inc();
            second->writes.Inc();
         }
      });
   }
   for (int scrape = 0; scrape < scrapes; ++scrape) {
      EXPECT_THAT(shown(), HasSubstr("# TYPE tarn_metrics_series gauge\n"));
   }
   done = true;
   for (std::thread& thread : threads) {
      thread.join();
   }
   EXPECT_THAT(shown(), HasSubstr("\ntarn_metrics_series 0\n"));
}

} // namespace
