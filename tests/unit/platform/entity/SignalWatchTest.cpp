#include "platform/entity/SignalWatch.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

#include "platform/entity/EventLoop.h"

using namespace std::chrono_literals;
using Platform::EventLoop;
using Platform::SignalWatch;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

namespace {

constexpr auto longTime = 60s;

static_assert(!std::is_copy_constructible_v<SignalWatch>);
static_assert(!std::is_move_constructible_v<SignalWatch>);

struct sigaction dispositionOf(int signal) {
   struct sigaction action = {};
   EXPECT_EQ(0, ::sigaction(signal, nullptr, &action));
   return action;
}

void send(int signal) {
   ASSERT_EQ(0, ::kill(::getpid(), signal));
}

// Sets a signal's disposition for the length of a test.
class Disposition {
public:
   Disposition(int signal, void (*handler)(int)) : _signal(signal) {
      struct sigaction action = {};
      action.sa_handler = handler;
      ::sigaction(signal, &action, &_before);
   }
   ~Disposition() { ::sigaction(_signal, &_before, nullptr); }
   Disposition(const Disposition&) = delete;
   Disposition& operator=(const Disposition&) = delete;

private:
   int _signal;
   struct sigaction _before = {};
};

TEST(SignalWatch, TellsOfASignalOnTheLoopsThreadAsOrdinaryCode) {
   EventLoop loop;
   std::vector<int> got;
   SignalWatch watch(loop, {SIGUSR1}, [&](int signal) {
      EXPECT_EQ(&loop, EventLoop::current());
      got.push_back(signal);
      loop.stop();
   });
   send(SIGUSR1);
   EXPECT_TRUE(got.empty());
   EXPECT_EQ(1u, loop.run());
   EXPECT_THAT(got, ElementsAre(SIGUSR1));
}

TEST(SignalWatch, WakesALoopThatWaits) {
   EventLoop loop;
   int got = 0;
   SignalWatch watch(loop, {SIGUSR1}, [&](int signal) {
      got = signal;
      loop.stop();
   });
   loop.post([] { std::thread([] { send(SIGUSR1); }).detach(); });
   loop.run();
   EXPECT_EQ(SIGUSR1, got);
}

TEST(SignalWatch, TellsOfEachOfItsSignalsAndEachTime) {
   EventLoop loop;
   std::vector<int> got;
   SignalWatch watch(loop, std::vector<int>{SIGUSR1, SIGUSR2, SIGUSR1},
                     [&](int signal) { got.push_back(signal); });
   send(SIGUSR1);
   send(SIGUSR2);
   EXPECT_TRUE(loop.runUntil([&] { return got.size() == 2; }, longTime));
   EXPECT_THAT(got, UnorderedElementsAre(SIGUSR1, SIGUSR2));
   send(SIGUSR2);
   EXPECT_TRUE(loop.runUntil([&] { return got.size() == 3; }, longTime));
   EXPECT_EQ(SIGUSR2, got.back());
   EXPECT_EQ(0u, loop.poll());
}

TEST(SignalWatch, EveryWatchForASignalIsToldOnWhicheverLoop) {
   EventLoop one;
   EventLoop two;
   int calls = 0;
   SignalWatch first(one, {SIGUSR1}, [&](int) { ++calls; });
   SignalWatch second(one, {SIGUSR1}, [&](int) { ++calls; });
   SignalWatch third(two, {SIGUSR1, SIGUSR2}, [&](int) { calls += 10; });
   send(SIGUSR1);
   // Either loop may be the one that takes the signal from the system and passes it on.
   for (const auto end = std::chrono::steady_clock::now() + longTime;
        calls < 12 && std::chrono::steady_clock::now() < end;) {
      one.poll();
      two.poll();
   }
   EXPECT_EQ(12, calls);
}

TEST(SignalWatch, PutsBackWhatTheProcessDidBefore) {
   static std::atomic<int> handled{0};
   handled = 0;
   const Disposition mine(SIGUSR1, [](int) { ++handled; });
   const Disposition ignored(SIGUSR2, SIG_IGN);
   EventLoop loop;
   int watched = 0;
   {
      SignalWatch watch(loop, {SIGUSR1, SIGUSR2}, [&](int) { ++watched; });
      send(SIGUSR1);
      EXPECT_TRUE(loop.runUntil([&] { return watched == 1; }, longTime));
      EXPECT_EQ(0, handled);
   }
   send(SIGUSR1);
   send(SIGUSR2);
   EXPECT_EQ(1, handled);
   EXPECT_EQ(0u, loop.poll());
   EXPECT_EQ(1, watched);
   EXPECT_EQ(SIG_IGN, dispositionOf(SIGUSR2).sa_handler);
}

TEST(SignalWatch, TheLastWatchPutsItBackInWhateverOrderTheyGo) {
   for (const bool firstGoesFirst : {true, false}) {
      const Disposition ignored(SIGUSR1, SIG_IGN);
      EventLoop loop;
      int calls = 0;
      auto first =
         std::make_unique<SignalWatch>(loop, std::vector<int>{SIGUSR1}, [&](int) { ++calls; });
      auto second =
         std::make_unique<SignalWatch>(loop, std::vector<int>{SIGUSR1}, [&](int) { ++calls; });
      (firstGoesFirst ? first : second).reset();
      send(SIGUSR1);
      EXPECT_TRUE(loop.runUntil([&] { return calls == 1; }, longTime));
      (firstGoesFirst ? second : first).reset();
      EXPECT_EQ(SIG_IGN, dispositionOf(SIGUSR1).sa_handler);
      send(SIGUSR1);
      EXPECT_EQ(0u, loop.poll());
   }
}

TEST(SignalWatch, SystemCallsElsewhereAreRestarted) {
   EventLoop loop;
   SignalWatch watch(loop, {SIGUSR1}, [](int) {});
   EXPECT_NE(0, dispositionOf(SIGUSR1).sa_flags & SA_RESTART);
   int fds[2];
   ASSERT_EQ(0, ::pipe2(fds, O_CLOEXEC));
   ssize_t result = -2;
   std::thread thread([&] {
      char byte = 0;
      result = ::read(fds[0], &byte, 1);
   });
   for (int i = 0; i < 100; ++i) {
      ::pthread_kill(thread.native_handle(), SIGUSR1);
      std::this_thread::yield();
   }
   EXPECT_EQ(1, ::write(fds[1], "x", 1));
   thread.join();
   EXPECT_EQ(1, result);
   ::close(fds[0]);
   ::close(fds[1]);
}

TEST(SignalWatch, NoCallFollowsItsDestructionEvenIfTheSignalHadCome) {
   const Disposition ignored(SIGUSR1, SIG_IGN);
   EventLoop loop;
   {
      SignalWatch watch(loop, {SIGUSR1}, [](int) { ADD_FAILURE(); });
      send(SIGUSR1);
   }
   EXPECT_EQ(0u, loop.poll());
   EXPECT_EQ(0u, loop.run());
}

TEST(SignalWatch, ANeighbourDestroyedInTheHandlerIsNotCalledForTheSameSignal) {
   EventLoop loop;
   int calls = 0;
   std::unique_ptr<SignalWatch> first;
   std::unique_ptr<SignalWatch> second;
   const std::vector<int> signals{SIGUSR1};
   first = std::make_unique<SignalWatch>(loop, signals, [&](int) {
      ++calls;
      second.reset();
   });
   second = std::make_unique<SignalWatch>(loop, signals, [&](int) {
      ++calls;
      first.reset();
   });
   send(SIGUSR1);
   EXPECT_TRUE(loop.runUntil([&] { return calls > 0; }, longTime));
   EXPECT_EQ(0u, loop.poll());
   EXPECT_EQ(1, calls);
}

TEST(SignalWatch, MayDestroyItselfInItsHandlerWhichStaysAliveUntilItReturns) {
   EventLoop loop;
   auto held = std::make_shared<int>(41);
   const std::weak_ptr<int> watched = held;
   std::unique_ptr<SignalWatch> watch;
   int after = 0;
   watch = std::make_unique<SignalWatch>(loop, std::vector<int>{SIGUSR1},
                                         [&watch, &after, held = std::move(held)](int) {
                                            watch.reset();
                                            after = *held + 1;
                                         });
   send(SIGUSR1);
   loop.run(); // ends, as the watch that kept it running is gone
   EXPECT_EQ(42, after);
   EXPECT_TRUE(watched.expired());
}

TEST(SignalWatch, StaysInPlaceWhenItsHandlerThrows) {
   EventLoop loop;
   int calls = 0;
   SignalWatch watch(loop, {SIGUSR1}, [&](int) {
      ++calls;
      throw std::runtime_error("no");
   });
   send(SIGUSR1);
   EXPECT_THROW(loop.run(), std::runtime_error);
   send(SIGUSR1);
   EXPECT_THROW(loop.run(), std::runtime_error);
   EXPECT_EQ(2, calls);
}

TEST(SignalWatch, RefusesWhatIsNoSignalAndUndoesWhatWasSetUp) {
   const Disposition ignored(SIGUSR1, SIG_IGN);
   EventLoop loop;
   for (const int wrong : {0, -1, SIGKILL, SIGSTOP, 1000}) {
      try {
         SignalWatch watch(loop, {SIGUSR1, wrong}, [](int) { ADD_FAILURE(); });
         ADD_FAILURE() << wrong;
      } catch (const std::system_error& e) {
         EXPECT_EQ(EINVAL, e.code().value()) << e.what();
         EXPECT_THAT(e.what(), testing::HasSubstr("cannot watch signal " + std::to_string(wrong)));
      }
      EXPECT_EQ(SIG_IGN, dispositionOf(SIGUSR1).sa_handler);
   }
   EXPECT_EQ(0u, loop.run());
}

TEST(SignalWatch, RefusesNoSignalsAndAnEmptyHandler) {
   EventLoop loop;
   EXPECT_THROW(SignalWatch(loop, std::vector<int>{}, [](int) {}), std::invalid_argument);
   EXPECT_THROW(SignalWatch(loop, {SIGUSR1}, nullptr), std::invalid_argument);
}

TEST(SignalWatch, OutlivingItsLoopIsHarmlessAndTheSignalIsGivenBackWithTheLoop) {
   const Disposition ignored(SIGUSR1, SIG_IGN);
   auto loop = std::make_unique<EventLoop>();
   SignalWatch watch(*loop, {SIGUSR1}, [](int) { ADD_FAILURE(); });
   EXPECT_NE(SIG_IGN, dispositionOf(SIGUSR1).sa_handler);
   loop.reset();
   EXPECT_EQ(SIG_IGN, dispositionOf(SIGUSR1).sa_handler);
   send(SIGUSR1);
}

} // namespace
