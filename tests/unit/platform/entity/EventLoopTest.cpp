#include "platform/entity/EventLoop.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "platform/entity/Timer.h"

using namespace std::chrono_literals;
using Platform::EventLoop;
using Platform::Timer;
using testing::ElementsAre;

namespace {

// Long enough never to be reached on a loaded machine; a test that fails waits for it, a test
// that passes does not.
constexpr auto longTime = 60s;

static_assert(!std::is_copy_constructible_v<EventLoop>);
static_assert(!std::is_move_constructible_v<EventLoop>);

TEST(EventLoop, PostedWorkRunsInTheOrderOfPostingAndNeverInsidePost) {
   EventLoop loop;
   std::vector<int> ran;
   for (int i = 0; i < 100; ++i) {
      loop.post([&ran, i] { ran.push_back(i); });
   }
   EXPECT_TRUE(ran.empty());
   EXPECT_EQ(100u, loop.run());
   std::vector<int> expected(100);
   for (int i = 0; i < 100; ++i) {
      expected[static_cast<std::size_t>(i)] = i;
   }
   EXPECT_EQ(expected, ran);
}

TEST(EventLoop, WorkPostedByWorkRunsAfterWhatWasThere) {
   EventLoop loop;
   std::vector<std::string> ran;
   loop.post([&] {
      ran.push_back("first");
      loop.post([&] { ran.push_back("posted by the first"); });
      ran.push_back("end of the first");
   });
   loop.post([&] { ran.push_back("second"); });
   EXPECT_EQ(3u, loop.run());
   EXPECT_THAT(ran, ElementsAre("first", "end of the first", "second", "posted by the first"));
}

TEST(EventLoop, RunReturnsAtOnceWithoutWorkAndCanBeCalledAgain) {
   EventLoop loop;
   EXPECT_EQ(0u, loop.run());
   EXPECT_EQ(0u, loop.run());
   int ran = 0;
   loop.post([&] { ++ran; });
   EXPECT_EQ(1u, loop.run());
   EXPECT_EQ(0u, loop.run());
   EXPECT_EQ(1, ran);
}

TEST(EventLoop, RunWaitsForTimers) {
   EventLoop loop;
   bool fired = false;
   Timer timer(loop, [&] { fired = true; });
   timer.startIn(1ms);
   EXPECT_EQ(1u, loop.run());
   EXPECT_TRUE(fired);
}

TEST(EventLoop, PollRunsWhatIsReadyAndWhatThatMakesReadyWithoutWaiting) {
   EventLoop loop;
   int ran = 0;
   bool fired = false;
   Timer timer(loop, [&] { fired = true; });
   timer.startIn(longTime);
   loop.post([&] {
      ++ran;
      loop.post([&] { ++ran; });
   });
   EXPECT_EQ(2u, loop.poll());
   EXPECT_EQ(2, ran);
   EXPECT_EQ(0u, loop.poll());
   EXPECT_FALSE(fired);
   EXPECT_TRUE(timer.active());
}

TEST(EventLoop, PollRunsTimersWhoseTimeHasCome) {
   EventLoop loop;
   int fired = 0;
   Timer timer(loop, [&] { ++fired; });
   timer.startIn(1ms);
   const auto due = std::chrono::steady_clock::now() + 1ms;
   while (std::chrono::steady_clock::now() <= due) {
      std::this_thread::yield();
   }
   EXPECT_EQ(1u, loop.poll());
   EXPECT_EQ(1, fired);
}

TEST(EventLoop, CountsCallablesOnlyAndNotWhatWasCancelled) {
   EventLoop loop;
   Timer never(loop, [] { ADD_FAILURE(); });
   for (int i = 0; i < 5; ++i) {
      never.startIn(longTime);
      never.cancel();
   }
   EXPECT_EQ(0u, loop.poll());
   EXPECT_EQ(0u, loop.run());
}

TEST(EventLoop, StopEndsTheRunAfterTheCallableUnderWayAndKeepsTheRest) {
   EventLoop loop;
   std::vector<int> ran;
   loop.post([&] {
      loop.stop();
      ran.push_back(1);
   });
   loop.post([&] { ran.push_back(2); });
   EXPECT_EQ(1u, loop.run());
   EXPECT_THAT(ran, ElementsAre(1));
   EXPECT_EQ(1u, loop.run());
   EXPECT_THAT(ran, ElementsAre(1, 2));
}

TEST(EventLoop, StopBetweenTwoTimersThatAreDueKeepsTheSecond) {
   EventLoop loop;
   std::vector<int> fired;
   Timer first(loop, [&] {
      fired.push_back(1);
      loop.stop();
   });
   Timer second(loop, [&] { fired.push_back(2); });
   first.startIn(0ms);
   second.startIn(0ms);
   loop.run();
   EXPECT_THAT(fired, ElementsAre(1));
   EXPECT_TRUE(second.active());
   loop.run();
   EXPECT_THAT(fired, ElementsAre(1, 2));
}

TEST(EventLoop, StopBeforeARunMakesThatOneReturnAtOnceAndOnlyThatOne) {
   EventLoop loop;
   int ran = 0;
   loop.post([&] { ++ran; });
   loop.stop();
   loop.stop();
   EXPECT_EQ(0u, loop.run());
   EXPECT_EQ(0, ran);
   EXPECT_EQ(1u, loop.run());
   EXPECT_EQ(1, ran);
}

TEST(EventLoop, StopAppliesToPollAndRunForAndRunUntilToo) {
   EventLoop loop;
   loop.stop();
   loop.post([] {});
   EXPECT_EQ(0u, loop.poll());
   loop.stop();
   EXPECT_EQ(0u, loop.runFor(longTime));
   loop.stop();
   EXPECT_FALSE(loop.runUntil([] { return false; }, longTime));
   EXPECT_EQ(1u, loop.poll());
}

TEST(EventLoop, StopFromAnotherThreadEndsAnIdleRun) {
   EventLoop loop;
   loop.keepRunningIs(true);
   std::promise<void> running;
   loop.post([&] { running.set_value(); });
   std::thread thread([&] {
      running.get_future().wait();
      loop.stop();
   });
   EXPECT_EQ(1u, loop.run());
   thread.join();
}

TEST(EventLoop, StopThatComesBeforeTheThreadBeginsToRunIsNotLost) {
   EventLoop loop;
   loop.keepRunningIs(true);
   std::promise<void> stopped;
   std::thread thread([&] {
      stopped.get_future().wait();
      loop.run();
   });
   loop.stop();
   stopped.set_value();
   thread.join();
}

TEST(EventLoop, KeepRunningKeepsRunFromReturningForWantOfWork) {
   EventLoop loop;
   loop.keepRunningIs(true);
   loop.keepRunningIs(true);
   std::thread thread([&] { loop.run(); });
   std::promise<void> first;
   loop.post([&] { first.set_value(); });
   first.get_future().wait();
   // The loop may have nothing to do at this moment, yet takes more.
   loop.post([&] { loop.keepRunningIs(false); });
   thread.join();
}

TEST(EventLoop, PostsOfSeveralThreadsAllRunOnTheLoopsThreadEachInItsOrder) {
   constexpr int threads = 4;
   constexpr int posts = 2000;
   EventLoop loop;
   const auto self = std::this_thread::get_id();
   std::vector<std::vector<int>> seen(threads);
   int ran = 0;
   std::vector<std::thread> posters;
   for (int t = 0; t < threads; ++t) {
      posters.emplace_back([&, t] {
         EXPECT_FALSE(loop.isOwnThread());
         for (int i = 0; i < posts; ++i) {
            loop.post([&, t, i] {
               EXPECT_EQ(self, std::this_thread::get_id());
               seen[static_cast<std::size_t>(t)].push_back(i);
               ++ran;
            });
         }
      });
   }
   EXPECT_TRUE(loop.runUntil([&] { return ran == threads * posts; }, longTime));
   for (std::thread& poster : posters) {
      poster.join();
   }
   for (const std::vector<int>& one : seen) {
      ASSERT_EQ(static_cast<std::size_t>(posts), one.size());
      EXPECT_TRUE(std::is_sorted(one.begin(), one.end()));
   }
   EXPECT_EQ(0u, loop.poll());
}

TEST(EventLoop, TwoLoopsOnTwoThreadsHandWorkToEachOther) {
   EventLoop one;
   EventLoop two;
   one.keepRunningIs(true);
   two.keepRunningIs(true);
   int rallies = 0;
   std::function<void()> serve = [&] {
      EXPECT_EQ(&one, EventLoop::current());
      if (++rallies == 500) {
         one.stop();
         two.stop();
         return;
      }
      two.post([&] {
         EXPECT_EQ(&two, EventLoop::current());
         one.post(serve);
      });
   };
   one.post(serve);
   std::thread other([&] { two.run(); });
   one.run();
   other.join();
   EXPECT_EQ(500, rallies);
}

TEST(EventLoop, CurrentIsTheLoopWhoseCallableRunsOnThisThread) {
   EventLoop outer;
   EventLoop inner;
   EXPECT_EQ(nullptr, EventLoop::current());
   std::vector<EventLoop*> seen;
   Timer timer(outer, [&] { seen.push_back(EventLoop::current()); });
   timer.startIn(0ms);
   outer.post([&] {
      seen.push_back(EventLoop::current());
      inner.post([&] { seen.push_back(EventLoop::current()); });
      inner.run();
      seen.push_back(EventLoop::current());
      std::thread([] { EXPECT_EQ(nullptr, EventLoop::current()); }).join();
      throw std::runtime_error("out");
   });
   EXPECT_THROW(outer.run(), std::runtime_error);
   EXPECT_EQ(nullptr, EventLoop::current());
   outer.run();
   EXPECT_EQ(nullptr, EventLoop::current());
   EXPECT_THAT(seen, testing::UnorderedElementsAre(&outer, &outer, &inner, &outer));
}

TEST(EventLoop, BelongsToTheThreadThatMadeItUntilAnotherOneRunsIt) {
   EventLoop loop;
   EXPECT_TRUE(loop.isOwnThread());
   std::thread([&] {
      EXPECT_FALSE(loop.isOwnThread());
      loop.post([&] { EXPECT_TRUE(loop.isOwnThread()); });
      EXPECT_EQ(1u, loop.run());
      EXPECT_TRUE(loop.isOwnThread());
   }).join();
   EXPECT_FALSE(loop.isOwnThread());
   EXPECT_EQ(0u, loop.poll());
   EXPECT_TRUE(loop.isOwnThread());
}

TEST(EventLoop, AnExceptionLeavesTheRunAndTheRestRunsNextTime) {
   EventLoop loop;
   std::vector<int> ran;
   Timer timer(loop, [&] { ran.push_back(3); });
   loop.post([] { throw std::runtime_error("one"); });
   loop.post([&] { ran.push_back(1); });
   loop.post([] { throw std::logic_error("two"); });
   loop.post([&] {
      ran.push_back(2);
      timer.startIn(0ms);
   });
   EXPECT_THROW(loop.run(), std::runtime_error);
   EXPECT_TRUE(ran.empty());
   EXPECT_THROW(loop.run(), std::logic_error);
   EXPECT_THAT(ran, ElementsAre(1));
   EXPECT_EQ(2u, loop.run());
   EXPECT_THAT(ran, ElementsAre(1, 2, 3));
}

TEST(EventLoop, AnExceptionAlsoLeavesPollAndRunForAndRunUntil) {
   EventLoop loop;
   const auto postThrow = [&] { loop.post([] { throw std::runtime_error("no"); }); };
   postThrow();
   EXPECT_THROW(loop.poll(), std::runtime_error);
   postThrow();
   EXPECT_THROW(loop.runFor(longTime), std::runtime_error);
   postThrow();
   EXPECT_THROW(loop.runUntil([] { return false; }, longTime), std::runtime_error);
   EXPECT_THROW(loop.runUntil([]() -> bool { throw std::runtime_error("no"); }, longTime),
                std::runtime_error);
   loop.post([] {});
   EXPECT_EQ(1u, loop.run());
}

TEST(EventLoop, RunForRunsTimersOnTheWayAndWaitsToTheEndEvenWithoutWork) {
   EventLoop loop;
   int fired = 0;
   Timer timer(loop, [&] { ++fired; });
   timer.startIn(1ms);
   const auto start = std::chrono::steady_clock::now();
   // The timer is due long before the end, if not before the loop got the processor.
   loop.runFor(30ms);
   EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
   EXPECT_EQ(0u, loop.runFor(1ms));
   EXPECT_EQ(0u, loop.runFor(-1s));
}

TEST(EventLoop, RunForSeesWhatAnotherThreadPostsMeanwhile) {
   EventLoop loop;
   std::thread thread([&] { loop.post([&] { loop.stop(); }); });
   EXPECT_EQ(1u, loop.runFor(longTime));
   thread.join();
}

TEST(EventLoop, RunUntilAsksFirstAndAfterEachCallable) {
   EventLoop loop;
   int ran = 0;
   for (int i = 0; i < 5; ++i) {
      loop.post([&] { ++ran; });
   }
   EXPECT_TRUE(loop.runUntil([] { return true; }, longTime));
   EXPECT_EQ(0, ran);
   EXPECT_TRUE(loop.runUntil([&] { return ran == 3; }, longTime));
   EXPECT_EQ(3, ran);
   EXPECT_EQ(2u, loop.poll());
}

TEST(EventLoop, RunUntilGivesFalseWhenTheTimeIsOver) {
   EventLoop loop;
   const auto start = std::chrono::steady_clock::now();
   EXPECT_FALSE(loop.runUntil([] { return false; }, 10ms));
   EXPECT_GE(std::chrono::steady_clock::now() - start, 10ms);
   EXPECT_FALSE(loop.runUntil([] { return false; }, 0ms));
}

TEST(EventLoop, RunUntilNoticesAChangeThatNobodyPosts) {
   EventLoop loop;
   std::atomic<bool> changed{false};
   std::thread thread([&] { changed = true; });
   EXPECT_TRUE(loop.runUntil([&] { return changed.load(); }, longTime));
   thread.join();
}

TEST(EventLoop, AHandlerMayWaitInANestedRun) {
   EventLoop loop;
   std::vector<std::string> ran;
   bool fired = false;
   Timer timer(loop, [&] {
      fired = true;
      ran.push_back("timer");
   });
   loop.post([&] {
      timer.startIn(1ms);
      EXPECT_TRUE(loop.runUntil([&] { return fired; }, longTime));
      ran.push_back("waited");
      EXPECT_EQ(0u, loop.poll());
   });
   loop.post([&] { ran.push_back("other"); });
   loop.run();
   EXPECT_THAT(ran, ElementsAre("other", "timer", "waited"));
}

TEST(EventLoop, StopInANestedRunStopsTheOuterOneToo) {
   EventLoop loop;
   bool other = false;
   loop.post([&] {
      loop.post([&] { loop.stop(); });
      loop.post([&] { other = true; });
      EXPECT_FALSE(loop.runUntil([] { return false; }, longTime));
      EXPECT_EQ(0u, loop.poll());
   });
   loop.run();
   EXPECT_FALSE(other);
   EXPECT_EQ(1u, loop.run());
   EXPECT_TRUE(other);
}

TEST(EventLoop, RefusesToRunInsideItselfAsItWouldNeverEnd) {
   EventLoop loop;
   loop.post([&] { EXPECT_THROW(loop.run(), std::logic_error); });
   EXPECT_EQ(1u, loop.run());
}

TEST(EventLoop, RefusesToRunOnTwoThreads) {
   EventLoop loop;
   loop.post([&] {
      std::thread([&] {
         EXPECT_THROW(loop.run(), std::logic_error);
         EXPECT_THROW(loop.poll(), std::logic_error);
         EXPECT_THROW(loop.runFor(1ms), std::logic_error);
         EXPECT_THROW(loop.runUntil([] { return true; }, 1ms), std::logic_error);
      }).join();
      EXPECT_TRUE(loop.isOwnThread());
   });
   EXPECT_EQ(1u, loop.run());
}

TEST(EventLoop, RefusesEmptyWork) {
   EventLoop loop;
   EXPECT_THROW(loop.post(nullptr), std::invalid_argument);
   EXPECT_EQ(0u, loop.run());
}

TEST(EventLoop, WorkThatNeverRanIsDestroyedWithTheLoopWithoutRunning) {
   const auto held = std::make_shared<int>(0);
   {
      EventLoop loop;
      for (int i = 0; i < 3; ++i) {
         loop.post([held] { ADD_FAILURE(); });
      }
      EXPECT_EQ(4, held.use_count());
   }
   EXPECT_EQ(1, held.use_count());
}

TEST(EventLoop, WorkThatPostsWhenDestroyedWithTheLoopIsHarmless) {
   struct PostsWhenDestroyed {
      EventLoop* loop;
      std::shared_ptr<Timer> timer;
      std::shared_ptr<int> held;
      ~PostsWhenDestroyed() {
         timer->startIn(0ms);
         EXPECT_FALSE(timer->active());
         loop->post([held = held] { ADD_FAILURE(); });
      }
   };
   const auto held = std::make_shared<int>(0);
   {
      EventLoop loop;
      const auto timer = std::make_shared<Timer>(loop, [] { ADD_FAILURE(); });
      timer->startIn(0ms);
      loop.post([p = std::make_shared<PostsWhenDestroyed>(&loop, timer, held)] { ADD_FAILURE(); });
   }
   EXPECT_EQ(1, held.use_count());
}

TEST(EventLoop, WorkIsDestroyedOnceItRan) {
   EventLoop loop;
   const auto held = std::make_shared<int>(0);
   loop.post([held] {});
   loop.post([held] { throw std::runtime_error("no"); });
   EXPECT_THROW(loop.run(), std::runtime_error);
   EXPECT_EQ(1, held.use_count());
}

TEST(EventLoop, PostedWorkAndTimersAndMorePostedWorkTakeTurns) {
   EventLoop loop;
   int posted = 0;
   bool fired = false;
   Timer timer(loop, [&] { fired = true; });
   timer.startIn(1ms);
   std::function<void()> again = [&] {
      ++posted;
      if (!fired) {
         loop.post(again);
      }
   };
   loop.post(again);
   EXPECT_TRUE(loop.runUntil([&] { return fired; }, longTime));
   EXPECT_GT(posted, 0);
}

using EventLoopDeathTest = testing::Test;

TEST(EventLoopDeathTest, DestroyingALoopInItsOwnHandlerIsFatal) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   EXPECT_DEATH(
      {
         auto loop = std::make_unique<EventLoop>();
         EventLoop* running = loop.get();
         running->post([&] { loop.reset(); });
         running->run();
      },
      "platform/entity/EventLoop: ~EventLoop: assertion failed: not running");
}

} // namespace
