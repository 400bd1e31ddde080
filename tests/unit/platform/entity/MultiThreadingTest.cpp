#include "platform/entity/MultiThreading.h"

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/entity/Ptr.h"

using Platform::make;
using Platform::Ptr;

namespace {

std::atomic<int> destroyed{0};

class Shared : public Platform::RefCounted {
public:
   int payload = 42;

protected:
   ~Shared() override {
      payload = 0; // a plain write: a reader that still runs is a race
      ++destroyed;
   }
};

} // namespace

TEST(MultiThreadingDeathTest, ProcessIsSingleThreadedUntilItDeclaresOtherwise) {
   // In a process of its own, since there is no way back.
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   EXPECT_EXIT(
      {
         if (Platform::multiThreaded()) {
            std::_Exit(1);
         }
         Ptr<Shared> shared = make<Shared>();
         const Ptr<Shared> copy = shared;
         if (shared->refCount() != 2) {
            std::_Exit(2);
         }
         // A reference taken before the declaration and dropped after it counts all the same.
         Platform::multiThreadedIs();
         if (!Platform::multiThreaded()) {
            std::_Exit(3);
         }
         shared.reset();
         std::_Exit(copy->refCount() == 1 ? 0 : 4);
      },
      testing::ExitedWithCode(0), "");
}

TEST(MultiThreading, CountsOfASharedObjectAreExactWhateverTheThreadsDo) {
   Platform::multiThreadedIs();
   constexpr int threads = 4;
   constexpr int rounds = 20000;
   destroyed = 0;
   auto shared = make<Shared>();
   std::atomic<int> wrong{0};
   {
      std::vector<std::thread> workers;
      for (int i = 0; i < threads; ++i) {
         workers.emplace_back([&wrong, mine = shared] {
            for (int round = 0; round < rounds; ++round) {
               const Ptr<const Shared> copy = mine;
               Ptr<Shared> other = mine;
               const Ptr<Shared> moved = std::move(other);
               wrong += copy->payload != 42 || moved->payload != 42;
            }
         });
      }
      for (std::thread& worker : workers) {
         worker.join();
      }
   }
   EXPECT_EQ(wrong, 0);
   EXPECT_EQ(shared->refCount(), 1U);
   EXPECT_EQ(destroyed, 0);
   shared.reset();
   EXPECT_EQ(destroyed, 1);
}

TEST(MultiThreading, ObjectDroppedByManyThreadsIsDestroyedOnceAfterTheLastUse) {
   Platform::multiThreadedIs();
   destroyed = 0;
   constexpr int objects = 500;
   std::atomic<int> wrong{0};
   for (int i = 0; i < objects; ++i) {
      auto shared = make<Shared>();
      std::thread first([&wrong, mine = shared]() mutable {
         wrong += mine->payload != 42;
         mine.reset();
      });
      std::thread second([&wrong, mine = std::move(shared)]() mutable {
         wrong += mine->payload != 42;
         mine.reset();
      });
      first.join();
      second.join();
   }
   EXPECT_EQ(wrong, 0);
   EXPECT_EQ(destroyed, objects);
}
