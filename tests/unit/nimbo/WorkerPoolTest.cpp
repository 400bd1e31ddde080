#include "nimbo/WorkerPool.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "TarnRegFile/Utils.h"

namespace Nimbo {
namespace {

using TarnRegFile::Utils::UnixFdRes;

/// Counts, and lets a test wait for a count.
class Count {
public:
   void up() {
      const std::scoped_lock lock(_mutex);
      ++_value;
      _changed.notify_all();
   }
   void waitFor(int value) {
      std::unique_lock lock(_mutex);
      _changed.wait(lock, [&] { return _value >= value; });
   }
   int value() {
      const std::scoped_lock lock(_mutex);
      return _value;
   }

private:
   std::mutex _mutex;
   std::condition_variable _changed;
   int _value = 0;
};

/// Work that holds its thread until it is let go.
class Hang {
public:
   std::function<void()> work() {
      return [this] {
         _begun.up();
         _goes.waitFor(1);
         _ended.up();
      };
   }
   void waitForBegin(int count = 1) { _begun.waitFor(count); }
   void waitForEnd(int count = 1) { _ended.waitFor(count); }
   void letGo() { _goes.up(); }
   int ended() { return _ended.value(); }

private:
   Count _begun;
   Count _goes;
   Count _ended;
};

void nothing(std::span<const WorkerPool::Event>) {}

/// How much is in the counts of this process's eventfds.
unsigned long eventCounts() {
   unsigned long sum = 0;
   for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
      std::ifstream info(entry.path());
      for (std::string word; info >> word;) {
         if (word == "eventfd-count:") {
            info >> word;
            sum += std::stoul(word, nullptr, 16);
         }
      }
   }
   return sum;
}

/// Whether `predicate` comes to hold: for what the system does a moment after it has said so.
bool comesToHold(const std::function<bool()>& predicate) {
   const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
   while (!predicate()) {
      if (std::chrono::steady_clock::now() > end) {
         return false;
      }
      std::this_thread::yield();
   }
   return true;
}

/// How many the process has. A sanitizer starts one of its own along with the first.
std::size_t threads() {
   std::thread([] {}).join();
   std::size_t count = 0;
   for ([[maybe_unused]] const auto& entry :
        std::filesystem::directory_iterator("/proc/self/task")) {
      ++count;
   }
   return count;
}

TEST(WorkerPool, RunsPostedWorkInTheOrderOfPosting) {
   Count done;
   std::vector<int> order; // one thread does it all
   WorkerPool pool(nothing);
   for (int i = 0; i < 5; ++i) {
      pool.post([&, i] {
         order.push_back(i);
         done.up();
      });
   }
   pool.sizeIs(1);
   done.waitFor(5);
   EXPECT_EQ(order, (std::vector{0, 1, 2, 3, 4}));
}

TEST(WorkerPool, HasNoThreadBeforeItHasASize) {
   const std::size_t before = threads();
   WorkerPool pool(nothing);
   EXPECT_EQ(pool.size(), 0U);
   EXPECT_LE(threads(), before);
}

TEST(WorkerPool, RunsWorkWhenAllThreadsButOneAreHeld) {
   Hang hang;
   Count done;
   {
      WorkerPool pool(nothing);
      pool.sizeIs(4);
      EXPECT_EQ(pool.size(), 4U);
      for (int i = 0; i < 3; ++i) {
         pool.post(hang.work());
      }
      hang.waitForBegin(3);
      for (int i = 0; i < 100; ++i) {
         pool.post([&] { done.up(); });
      }
      done.waitFor(100);
      hang.letGo();
   }
   hang.waitForEnd(3);
}

TEST(WorkerPool, GrowsWhileAllItsThreadsAreHeld) {
   Hang hang;
   Count done;
   WorkerPool pool(nothing);
   pool.sizeIs(1);
   pool.post(hang.work());
   hang.waitForBegin();
   pool.post([&] { done.up(); });
   EXPECT_EQ(done.value(), 0);
   pool.sizeIs(2);
   done.waitFor(1);
   hang.letGo();
}

TEST(WorkerPool, ShrinksByThreadsThatHaveNothingToDo) {
   Hang hang;
   Count done;
   WorkerPool pool(nothing);
   pool.sizeIs(4);
   pool.post(hang.work());
   hang.waitForBegin();
   pool.sizeIs(2);
   EXPECT_EQ(pool.size(), 2U);
   // The one that is left besides the one that is held does all of it.
   for (int i = 0; i < 20; ++i) {
      pool.post([&] { done.up(); });
   }
   done.waitFor(20);
   hang.letGo();
}

TEST(WorkerPool, KeepsAThreadThatIsHeldUntilItComesBackWhenItShrinksToLess) {
   Hang hang;
   Count done;
   WorkerPool pool(nothing);
   pool.sizeIs(3);
   for (int i = 0; i < 3; ++i) {
      pool.post(hang.work());
   }
   hang.waitForBegin(3);
   pool.sizeIs(1);
   hang.letGo();
   hang.waitForEnd(3);
   pool.post([&] { done.up(); });
   done.waitFor(1);
   pool.sizeIs(3);
   Hang again;
   for (int i = 0; i < 3; ++i) {
      pool.post(again.work());
   }
   again.waitForBegin(3);
   again.letGo();
   again.waitForEnd(3);
}

TEST(WorkerPool, GrowsAndShrinksAgainAndAgain) {
   Count done;
   const std::size_t before = threads();
   {
      WorkerPool pool(nothing);
      int posted = 0;
      for (std::size_t round = 0; round < 50; ++round) {
         pool.sizeIs(1 + round * 7 % 5);
         for (int i = 0; i < 10; ++i, ++posted) {
            pool.post([&] { done.up(); });
         }
      }
      done.waitFor(posted);
      // Those that have ended are waited for, before the others are.
      pool.sizeIs(1);
      pool.sizeIs(1);
   }
   EXPECT_TRUE(comesToHold([&] { return threads() <= before; }));
}

// A count that nobody takes back has all the threads look for work without a pause.
TEST(WorkerPool, ChangingTheSizeWhileWorkWaitsLeavesNothingBehind) {
   Hang hang;
   Count done;
   WorkerPool pool(nothing);
   pool.sizeIs(2);
   pool.post(hang.work());
   pool.post(hang.work());
   hang.waitForBegin(2);
   for (int i = 0; i < 3; ++i) {
      pool.post([&] { done.up(); });
   }
   pool.sizeIs(2);
   pool.sizeIs(1);
   pool.sizeIs(2);
   hang.letGo();
   done.waitFor(3);
   // Whatever was posted has been taken when what is posted last runs.
   pool.sizeIs(1);
   Count last;
   pool.post([&] { last.up(); });
   last.waitFor(1);
   EXPECT_TRUE(comesToHold([] { return eventCounts() == 0; }));
}

TEST(WorkerPool, ItsEndWaitsForWorkUnderWay) {
   Hang hang;
   std::thread letsGo;
   {
      WorkerPool pool(nothing);
      pool.sizeIs(2);
      pool.post(hang.work());
      hang.waitForBegin();
      letsGo = std::thread([&] { hang.letGo(); });
   }
   EXPECT_EQ(hang.ended(), 1);
   letsGo.join();
}

TEST(WorkerPool, ItsEndLeavesWorkAloneThatNobodyTook) {
   Count done;
   {
      WorkerPool pool(nothing);
      pool.post([&] { done.up(); });
   }
   EXPECT_EQ(done.value(), 0);
}

TEST(WorkerPool, ItsThreadsHaveAllSignalsBlocked) {
   ::sigset_t before;
   ::pthread_sigmask(SIG_SETMASK, nullptr, &before);
   ::sigset_t mask;
   ::sigemptyset(&mask);
   Count done;
   WorkerPool pool(nothing);
   pool.sizeIs(1);
   pool.post([&] {
      ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
      done.up();
   });
   done.waitFor(1);
   for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGPIPE}) {
      EXPECT_TRUE(::sigismember(&mask, signal)) << signal;
   }
   ::sigset_t after;
   ::pthread_sigmask(SIG_SETMASK, nullptr, &after);
   EXPECT_EQ(::sigismember(&after, SIGTERM), ::sigismember(&before, SIGTERM));
}

/// What the handler was told.
class Told {
public:
   WorkerPool::Handler handler() {
      return [this](std::span<const WorkerPool::Event> events) {
         const std::scoped_lock lock(_mutex);
         for (const WorkerPool::Event& each : events) {
            ++_times;
            _tags.insert(each.tag);
            _isEnd = _isEnd || each.hangUp;
         }
         _changed.notify_all();
      };
   }
   void waitFor(int times) {
      std::unique_lock lock(_mutex);
      _changed.wait(lock, [&] { return _times >= times; });
   }
   void waitForEnd() {
      std::unique_lock lock(_mutex);
      _changed.wait(lock, [&] { return _isEnd; });
   }
   bool isEnd() {
      const std::scoped_lock lock(_mutex);
      return _isEnd;
   }
   std::set<std::uint64_t> tags() {
      const std::scoped_lock lock(_mutex);
      return _tags;
   }

private:
   std::mutex _mutex;
   std::condition_variable _changed;
   int _times = 0;
   bool _isEnd = false;
   std::set<std::uint64_t> _tags;
};

struct Pair {
   Pair() {
      std::array<int, 2> ends{};
      EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()),
                0);
      mine = UnixFdRes(ends[0]);
      theirs = UnixFdRes(ends[1]);
   }
   UnixFdRes mine{-1};
   UnixFdRes theirs{-1};
};

TEST(WorkerPool, TellsOfADescriptorByItsTag) {
   const Pair one;
   const Pair other;
   Told told;
   WorkerPool pool(told.handler());
   pool.sizeIs(2);
   pool.add(one.mine.fd(), 7, EPOLLIN);
   pool.add(other.mine.fd(), ~std::uint64_t{0}, EPOLLIN);
   ASSERT_EQ(::write(one.theirs.fd(), "x", 1), 1);
   told.waitFor(1);
   EXPECT_EQ(told.tags(), std::set<std::uint64_t>{7});
   ASSERT_EQ(::write(other.theirs.fd(), "x", 1), 1);
   told.waitFor(2);
   EXPECT_EQ(told.tags(), (std::set<std::uint64_t>{7, ~std::uint64_t{0}}));
   EXPECT_FALSE(told.isEnd());
}

TEST(WorkerPool, TellsAgainWhenMoreComesAndWhenWatchedAnew) {
   const Pair pair;
   Told told;
   WorkerPool pool(told.handler());
   pool.sizeIs(2);
   pool.add(pair.mine.fd(), 7, EPOLLIN);
   ASSERT_EQ(::write(pair.theirs.fd(), "x", 1), 1);
   told.waitFor(1);
   ASSERT_EQ(::write(pair.theirs.fd(), "x", 1), 1);
   told.waitFor(2);
   pool.eventsAre(pair.mine.fd(), 8, EPOLLIN | EPOLLOUT);
   told.waitFor(3);
   EXPECT_EQ(told.tags(), (std::set<std::uint64_t>{7, 8}));
}

TEST(WorkerPool, SaysWhenTheEndIsBehindWhatCanBeRead) {
   const Pair pair;
   Told told;
   WorkerPool pool(told.handler());
   pool.sizeIs(1);
   ASSERT_EQ(::write(pair.theirs.fd(), "x", 1), 1);
   ::shutdown(pair.theirs.fd(), SHUT_WR);
   pool.add(pair.mine.fd(), 7, EPOLLIN);
   told.waitForEnd();
}

TEST(WorkerPool, SaysWhenADescriptorCannotBeWatched) {
   WorkerPool pool(nothing);
   const Pair pair;
   pool.add(pair.mine.fd(), 7, EPOLLIN);
   const auto errorOf = [](const std::function<void()>& body) {
      try {
         body();
      } catch (const std::system_error& error) {
         return error.code().value();
      }
      return 0;
   };
   EXPECT_EQ(errorOf([&] { pool.add(pair.mine.fd(), 7, EPOLLIN); }), EEXIST);
   EXPECT_EQ(errorOf([&] { pool.add(-1, 7, EPOLLIN); }), EBADF);
   EXPECT_EQ(errorOf([&] { pool.eventsAre(pair.theirs.fd(), 7, EPOLLIN); }), ENOENT);
}

TEST(WorkerPool, TellsOfDescriptorsThatCameBeforeItsThreads) {
   const Pair pair;
   Told told;
   WorkerPool pool(told.handler());
   pool.add(pair.mine.fd(), 7, EPOLLIN);
   ASSERT_EQ(::write(pair.theirs.fd(), "x", 1), 1);
   pool.sizeIs(1);
   told.waitFor(1);
}

} // namespace
} // namespace Nimbo
