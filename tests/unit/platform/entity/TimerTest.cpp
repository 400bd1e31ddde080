#include "platform/entity/Timer.h"

#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

#include "platform/entity/EventLoop.h"

using namespace std::chrono_literals;
using Platform::EventLoop;
using Platform::Timer;
using testing::ElementsAre;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto longTime = 60s;

static_assert(!std::is_copy_constructible_v<Timer>);
static_assert(!std::is_move_constructible_v<Timer>);

void waitFor(Clock::duration duration) {
   for (const auto end = Clock::now() + duration; Clock::now() <= end;) {
      std::this_thread::yield();
   }
}

TEST(Timer, IsInactiveUntilStarted) {
   EventLoop loop;
   Timer timer(loop, [] { ADD_FAILURE(); });
   EXPECT_FALSE(timer.active());
   EXPECT_EQ(0u, loop.run());
}

TEST(Timer, FiresOnceNotBeforeItsTimeAndIsThenInactive) {
   EventLoop loop;
   int fired = 0;
   Clock::time_point firedAt;
   Timer timer(loop, [&] {
      ++fired;
      firedAt = Clock::now();
      EXPECT_FALSE(timer.active());
   });
   const auto due = Clock::now() + 2ms;
   timer.startIn(2ms);
   EXPECT_TRUE(timer.active());
   EXPECT_EQ(1u, loop.run());
   EXPECT_EQ(1, fired);
   EXPECT_GE(firedAt, due);
   EXPECT_FALSE(timer.active());
}

TEST(Timer, FiresAtAGivenTime) {
   EventLoop loop;
   Clock::time_point firedAt;
   Timer timer(loop, [&] { firedAt = Clock::now(); });
   const auto due = Clock::now() + 2ms;
   timer.startAt(due);
   loop.run();
   EXPECT_GE(firedAt, due);
}

TEST(Timer, ATimeThatHasPassedIsDueAtOnceButOnlyFiresInTheLoop) {
   EventLoop loop;
   int fired = 0;
   Timer timer(loop, [&] { ++fired; });
   timer.startAt(Clock::now() - 1h);
   EXPECT_EQ(0, fired);
   EXPECT_EQ(1u, loop.poll());
   timer.startIn(-1h);
   EXPECT_EQ(1u, loop.poll());
   timer.startIn(0ns);
   EXPECT_EQ(1u, loop.poll());
   timer.startAt(Clock::time_point::min());
   EXPECT_EQ(1u, loop.poll());
   EXPECT_EQ(4, fired);
}

TEST(Timer, TheLongestDelayDoesNotWrapRound) {
   EventLoop loop;
   Timer timer(loop, [] { ADD_FAILURE(); });
   timer.startIn(std::chrono::nanoseconds::max());
   EXPECT_EQ(0u, loop.poll());
   timer.startEvery(std::chrono::nanoseconds::max());
   EXPECT_EQ(0u, loop.poll());
   EXPECT_EQ(0u, loop.runFor(1ms));
   EXPECT_TRUE(timer.active());
}

TEST(Timer, TimersFireInTheOrderOfTheirTimesAndThenOfTheirStarts) {
   EventLoop loop;
   std::vector<int> fired;
   const auto base = Clock::now() - 1s;
   Timer a(loop, [&] { fired.push_back(1); });
   Timer b(loop, [&] { fired.push_back(2); });
   Timer c(loop, [&] { fired.push_back(3); });
   Timer d(loop, [&] { fired.push_back(4); });
   d.startAt(base + 1ms);
   c.startAt(base);
   a.startAt(base + 1ms);
   b.startAt(base - 1ms);
   EXPECT_EQ(4u, loop.poll());
   EXPECT_THAT(fired, ElementsAre(2, 3, 4, 1));
}

TEST(Timer, AnEarlierTimeThatComesLaterIsServedFirst) {
   EventLoop loop;
   std::vector<int> fired;
   Timer late(loop, [&] { fired.push_back(2); });
   Timer early(loop, [&] { fired.push_back(1); });
   const auto now = Clock::now();
   late.startAt(now + 20ms);
   early.startAt(now + 2ms);
   EXPECT_EQ(2u, loop.run());
   EXPECT_THAT(fired, ElementsAre(1, 2));
}

TEST(Timer, ACancelledTimerNeverFires) {
   EventLoop loop;
   Timer timer(loop, [] { ADD_FAILURE(); });
   timer.startIn(1ms);
   timer.cancel();
   EXPECT_FALSE(timer.active());
   timer.cancel();
   waitFor(2ms);
   EXPECT_EQ(0u, loop.poll());
   EXPECT_EQ(0u, loop.run());
}

TEST(Timer, CancelledTimerThatWasAlreadyDueNeverFires) {
   EventLoop loop;
   Timer timer(loop, [] { ADD_FAILURE(); });
   timer.startIn(1ms); // in the system's hands
   waitFor(2ms);
   timer.cancel();
   EXPECT_EQ(0u, loop.run());

   timer.startIn(0ms); // in the loop's queue from the start
   timer.cancel();
   EXPECT_EQ(0u, loop.run());
}

TEST(Timer, ATimerCancelledByAnotherThatFiresAtTheSameTimeNeverFires) {
   EventLoop loop;
   const auto due = Clock::now() - 1ms;
   Timer second(loop, [] { ADD_FAILURE(); });
   Timer first(loop, [&] { second.cancel(); });
   first.startAt(due);
   second.startAt(due);
   EXPECT_EQ(1u, loop.run());
   EXPECT_FALSE(second.active());
}

TEST(Timer, ANeighbourDestroyedInTheHandlerWhenBothAreDueNeverFires) {
   EventLoop loop;
   const auto due = Clock::now() - 1ms;
   auto second = std::make_unique<Timer>(loop, [] { ADD_FAILURE(); });
   Timer first(loop, [&] { second.reset(); });
   first.startAt(due);
   second->startAt(due);
   EXPECT_EQ(1u, loop.run());
}

TEST(Timer, ACancelledNeighbourDoesNotDelayTheOthers) {
   EventLoop loop;
   int fired = 0;
   Timer early(loop, [] { ADD_FAILURE(); });
   Timer late(loop, [&] { ++fired; });
   early.startIn(1ms);
   late.startIn(3ms);
   early.cancel();
   EXPECT_EQ(1u, loop.run());
   EXPECT_EQ(1, fired);
}

TEST(Timer, DestroyingCancels) {
   EventLoop loop;
   {
      Timer timer(loop, [] { ADD_FAILURE(); });
      timer.startIn(0ms);
      Timer other(loop, [] { ADD_FAILURE(); });
      other.startEvery(1ms);
   }
   EXPECT_EQ(0u, loop.run());
}

TEST(Timer, ItsHandlerIsDestroyedWithItAndNotLater) {
   EventLoop loop;
   const auto held = std::make_shared<int>(0);
   {
      Timer timer(loop, [held] { ADD_FAILURE(); });
      timer.startIn(0ms);
      EXPECT_EQ(2, held.use_count());
   }
   EXPECT_EQ(1, held.use_count());
}

TEST(Timer, RestartingReplacesTheEarlierTime) {
   EventLoop loop;
   int fired = 0;
   Timer timer(loop, [&] { ++fired; });
   timer.startIn(0ms);
   timer.startIn(longTime);
   EXPECT_EQ(0u, loop.poll());
   timer.startIn(1ms);
   EXPECT_EQ(1u, loop.run());
   EXPECT_EQ(1, fired);
}

TEST(Timer, AStartThatReplacesAPeriodicOneFiresOnce) {
   EventLoop loop;
   int fired = 0;
   Timer timer(loop, [&] { ++fired; });
   timer.startEvery(1ms);
   timer.startIn(1ms);
   EXPECT_EQ(1u, loop.run());
   EXPECT_EQ(1, fired);
}

TEST(Timer, MayStartItselfAgainInItsHandler) {
   EventLoop loop;
   int fired = 0;
   Timer timer(loop, [&] {
      if (++fired < 5) {
         timer.startIn(0ms);
      }
   });
   timer.startIn(0ms);
   EXPECT_EQ(5u, loop.run());
   EXPECT_EQ(5, fired);
   EXPECT_FALSE(timer.active());
}

TEST(Timer, MayDestroyItselfInItsHandlerWhichStaysAliveUntilItReturns) {
   EventLoop loop;
   auto held = std::make_shared<int>(41);
   const std::weak_ptr<int> watched = held;
   std::unique_ptr<Timer> timer;
   int after = 0;
   timer = std::make_unique<Timer>(loop, [&timer, &after, held = std::move(held)] {
      timer.reset();
      after = *held + 1;
   });
   timer->startIn(0ms);
   EXPECT_EQ(1u, loop.run());
   EXPECT_EQ(42, after);
   EXPECT_TRUE(watched.expired());
}

TEST(Timer, APeriodicTimerMayDestroyItselfInItsHandler) {
   EventLoop loop;
   std::unique_ptr<Timer> timer;
   int fired = 0;
   timer = std::make_unique<Timer>(loop, [&] {
      if (++fired == 3) {
         timer.reset();
      }
   });
   timer->startEvery(1ms);
   EXPECT_EQ(3u, loop.run());
   EXPECT_EQ(3, fired);
}

TEST(Timer, APeriodicTimerFiresUntilCancelledAndIsActiveInItsHandler) {
   EventLoop loop;
   int fired = 0;
   Timer timer(loop, [&] {
      EXPECT_TRUE(timer.active());
      if (++fired == 4) {
         timer.cancel();
      }
   });
   const auto start = Clock::now();
   timer.startEvery(1ms);
   EXPECT_EQ(4u, loop.run());
   EXPECT_GE(Clock::now() - start, 4ms);
   EXPECT_EQ(4, fired);
}

TEST(Timer, PeriodsThatPassedUnservedAreLeftOut) {
   EventLoop loop;
   int fired = 0;
   Timer timer(loop, [&] { ++fired; });
   timer.startEvery(1h);
   EXPECT_EQ(0u, loop.poll());
   timer.startEvery(10ms);
   waitFor(35ms);
   // At least three were due by now; however slow the machine, they count as one.
   const auto before = Clock::now();
   loop.poll();
   if (Clock::now() - before < 1ms) {
      EXPECT_LE(fired, 2);
   }
   EXPECT_GE(fired, 1);
}

TEST(Timer, RefusesAPeriodThatIsNotPositiveAndChangesNothing) {
   EventLoop loop;
   int fired = 0;
   Timer timer(loop, [&] { ++fired; });
   timer.startIn(0ms);
   EXPECT_THROW(timer.startEvery(0ns), std::invalid_argument);
   EXPECT_THROW(timer.startEvery(-1ms), std::invalid_argument);
   EXPECT_TRUE(timer.active());
   EXPECT_EQ(1u, loop.run());
   EXPECT_EQ(1, fired);
}

TEST(Timer, RefusesAnEmptyHandler) {
   EventLoop loop;
   EXPECT_THROW(Timer(loop, nullptr), std::invalid_argument);
}

TEST(Timer, AThrowingHandlerLeavesTheOtherTimersInPlace) {
   EventLoop loop;
   const auto due = Clock::now() - 1ms;
   int fired = 0;
   Timer first(loop, [] { throw std::runtime_error("no"); });
   Timer second(loop, [&] { ++fired; });
   Timer third(loop, [&] { ++fired; });
   first.startAt(due);
   second.startAt(due);
   third.startIn(1ms);
   EXPECT_THROW(loop.run(), std::runtime_error);
   EXPECT_FALSE(first.active());
   EXPECT_EQ(0, fired);
   EXPECT_EQ(2u, loop.run());
   EXPECT_EQ(2, fired);
}

TEST(Timer, APeriodicTimerWhoseHandlerThrowsGoesOn) {
   EventLoop loop;
   int fired = 0;
   Timer timer(loop, [&] {
      if (++fired == 3) {
         timer.cancel();
      }
      throw std::runtime_error("no");
   });
   timer.startEvery(1ms);
   EXPECT_THROW(loop.run(), std::runtime_error);
   EXPECT_THROW(loop.run(), std::runtime_error);
   EXPECT_TRUE(timer.active());
   EXPECT_THROW(loop.run(), std::runtime_error);
   EXPECT_EQ(0u, loop.run());
   EXPECT_EQ(3, fired);
}

TEST(Timer, OutlivingItsLoopIsHarmless) {
   auto loop = std::make_unique<EventLoop>();
   Timer idle(*loop, [] { ADD_FAILURE(); });
   Timer once(*loop, [] { ADD_FAILURE(); });
   Timer periodic(*loop, [] { ADD_FAILURE(); });
   once.startIn(0ms);
   periodic.startEvery(1ms);
   loop.reset();
   EXPECT_FALSE(idle.active());
   EXPECT_FALSE(once.active());
   EXPECT_FALSE(periodic.active());
   once.cancel();
   once.startIn(0ms);
   once.startAt(Clock::now());
   periodic.startEvery(1ms);
   EXPECT_FALSE(once.active());
   EXPECT_FALSE(periodic.active());
}

TEST(Timer, ManyTimersStartedAndCancelledInAMixFireExactlyWhenNotCancelled) {
   EventLoop loop;
   int fired = 0;
   std::vector<std::unique_ptr<Timer>> timers;
   for (int i = 0; i < 500; ++i) {
      timers.push_back(std::make_unique<Timer>(loop, [&fired, i] {
         EXPECT_EQ(0, i % 3);
         ++fired;
      }));
      timers.back()->startIn(std::chrono::microseconds((i * 7919) % 5000));
   }
   for (std::size_t i = 0; i < timers.size(); ++i) {
      if (i % 3 == 1) {
         timers[i]->cancel();
      } else if (i % 3 == 2) {
         timers[i].reset();
      }
   }
   EXPECT_EQ(167u, loop.run());
   EXPECT_EQ(167, fired);
}

#ifdef TARN_DEBUG_CHECKS
using TimerDeathTest = testing::Test;

TEST(TimerDeathTest, UseFromAnotherThreadWhileTheLoopRunsIsTrapped) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   EXPECT_DEATH(
      {
         EventLoop loop;
         Timer timer(loop, [] {});
         loop.post([&] { std::thread([&] { timer.startIn(1ms); }).join(); });
         loop.run();
      },
      "Timer::start: assertion failed: called on the thread that runs the event loop");
}
#endif

} // namespace
