#include "platform/entity/FdWatch.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <system_error>
#include <type_traits>
#include <unistd.h>
#include <vector>

#include "platform/entity/EventLoop.h"
#include "platform/entity/Timer.h"

using namespace std::chrono_literals;
using Platform::EventLoop;
using Platform::FdWatch;
using Events = FdWatch::Events;

namespace Platform {

void PrintTo(const FdWatch::Events& events, std::ostream* out) {
   *out << (events.read ? "read " : "") << (events.write ? "write " : "")
        << (events.hangUp ? "hangUp" : "");
}

} // namespace Platform

namespace {

constexpr auto longTime = 60s;
constexpr Events reading{true, false};
constexpr Events writing{false, true};
constexpr Events both{true, true};

static_assert(!std::is_copy_constructible_v<FdWatch>);
static_assert(!std::is_move_constructible_v<FdWatch>);

// Two connected descriptors: the ends of a pipe (0 reads, 1 writes) or of a socket pair.
class Ends {
public:
   ~Ends() {
      close(0);
      close(1);
   }
   Ends(const Ends&) = delete;
   Ends& operator=(const Ends&) = delete;

   int operator[](std::size_t i) const { return _fds[i]; }
   void close(std::size_t i) {
      if (_fds[i] >= 0) {
         ::close(_fds[i]);
         _fds[i] = -1;
      }
   }
   void put(std::size_t i, const std::string& bytes) const {
      EXPECT_EQ(static_cast<ssize_t>(bytes.size()), ::write(_fds[i], bytes.data(), bytes.size()));
   }
   std::string take(std::size_t i, std::size_t atMost = 100) const {
      std::string bytes(atMost, '\0');
      const ssize_t size = ::read(_fds[i], bytes.data(), bytes.size());
      EXPECT_GE(size, 0);
      bytes.resize(static_cast<std::size_t>(size));
      return bytes;
   }
   void fill(std::size_t i) const {
      const int flags = ::fcntl(_fds[i], F_GETFL);
      ::fcntl(_fds[i], F_SETFL, flags | O_NONBLOCK);
      const std::string block(4096, 'x');
      while (::write(_fds[i], block.data(), block.size()) > 0) {
      }
      EXPECT_EQ(EAGAIN, errno);
      ::fcntl(_fds[i], F_SETFL, flags);
   }

protected:
   Ends() = default;
   std::array<int, 2> _fds{-1, -1};
};

struct Pipe : Ends {
   Pipe() { EXPECT_EQ(0, ::pipe2(_fds.data(), O_CLOEXEC)); }
};

struct SocketPair : Ends {
   SocketPair() { EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, _fds.data())); }
};

int errorOf(EventLoop& loop, int fd, Events events) {
   try {
      FdWatch watch(loop, fd, events, [](Events) { ADD_FAILURE(); });
   } catch (const std::system_error& e) {
      EXPECT_EQ(std::system_category(), e.code().category());
      EXPECT_NE(std::string::npos, std::string(e.what()).find(std::to_string(fd))) << e.what();
      return e.code().value();
   }
   return 0;
}

TEST(FdWatch, TellsThatAPipeCanBeReadOnceSomethingIsInIt) {
   EventLoop loop;
   Pipe pipe;
   std::string got;
   FdWatch watch(loop, pipe[0], reading, [&](Events events) {
      EXPECT_EQ(reading, events);
      got += pipe.take(0);
   });
   EXPECT_TRUE(watch.active());
   EXPECT_EQ(pipe[0], watch.fd());
   EXPECT_EQ(0u, loop.poll());
   pipe.put(1, "one");
   EXPECT_TRUE(loop.runUntil([&] { return got == "one"; }, longTime));
   pipe.put(1, "two");
   EXPECT_TRUE(loop.runUntil([&] { return got == "onetwo"; }, longTime));
   EXPECT_EQ(0u, loop.poll());
}

TEST(FdWatch, SeesWhatWasThereBeforeTheWatch) {
   EventLoop loop;
   Pipe pipe;
   pipe.put(1, "early");
   std::string got;
   FdWatch watch(loop, pipe[0], reading, [&](Events) { got += pipe.take(0); });
   EXPECT_TRUE(loop.runUntil([&] { return got == "early"; }, longTime));
}

TEST(FdWatch, IsCalledAgainUntilAllIsRead) {
   EventLoop loop;
   Pipe pipe;
   pipe.put(1, "abc");
   std::string got;
   int calls = 0;
   FdWatch watch(loop, pipe[0], reading, [&](Events) {
      ++calls;
      got += pipe.take(0, 1);
   });
   EXPECT_TRUE(loop.runUntil([&] { return got.size() == 3; }, longTime));
   EXPECT_EQ("abc", got);
   EXPECT_EQ(3, calls);
   EXPECT_EQ(0u, loop.poll());
}

TEST(FdWatch, TellsThatASocketCanBeWrittenUntilItIsFullAndAgainWhenThereIsRoom) {
   EventLoop loop;
   SocketPair sockets;
   sockets.fill(0);
   int calls = 0;
   FdWatch watch(loop, sockets[0], writing, [&](Events events) {
      EXPECT_EQ(writing, events);
      ++calls;
      sockets.fill(0);
   });
   EXPECT_EQ(0u, loop.poll());
   while (::recv(sockets[1], std::string(65536, '\0').data(), 65536, MSG_DONTWAIT) > 0) {
   }
   EXPECT_TRUE(loop.runUntil([&] { return calls == 1; }, longTime));
   EXPECT_EQ(0u, loop.poll());
}

TEST(FdWatch, ReportsReadingAndWritingTogether) {
   EventLoop loop;
   SocketPair sockets;
   sockets.put(1, "x");
   Events seen;
   FdWatch watch(loop, sockets[0], both, [&](Events events) {
      seen = events;
      watch.activeIs(false);
   });
   EXPECT_EQ(1u, loop.run());
   EXPECT_EQ(both, seen);
}

TEST(FdWatch, ReportsOnlyWhatWasAskedFor) {
   EventLoop loop;
   SocketPair sockets;
   FdWatch reader(loop, sockets[0], reading, [](Events) { ADD_FAILURE(); });
   EXPECT_EQ(0u, loop.poll()); // it could be written all the time
   Events seen;
   FdWatch writer(loop, sockets[1], writing, [&](Events events) {
      seen = events;
      writer.activeIs(false);
   });
   reader.activeIs(false);
   sockets.put(0, "x");
   EXPECT_EQ(1u, loop.run());
   EXPECT_EQ(writing, seen);
}

TEST(FdWatch, TwoWatchesOnOneDescriptorEachSeeTheirOwn) {
   EventLoop loop;
   SocketPair sockets;
   std::vector<std::string> seen;
   FdWatch reader(loop, sockets[0], reading, [&](Events) { seen.push_back(sockets.take(0)); });
   FdWatch writer(loop, sockets[0], writing, [&](Events) {
      writer.activeIs(false);
      sockets.put(1, "ping");
      seen.push_back("wrote");
   });
   EXPECT_TRUE(loop.runUntil([&] { return seen.size() == 2; }, longTime));
   EXPECT_EQ((std::vector<std::string>{"wrote", "ping"}), seen);
}

TEST(FdWatch, ReportsTheEndOfAPipeAsReadableAndHungUp) {
   EventLoop loop;
   Pipe pipe;
   Events seen;
   std::string last = "?";
   FdWatch watch(loop, pipe[0], reading, [&](Events events) {
      seen = events;
      last = pipe.take(0);
      watch.activeIs(false);
   });
   pipe.close(1);
   EXPECT_EQ(1u, loop.run());
   EXPECT_EQ((Events{true, false, true}), seen);
   EXPECT_EQ("", last);
}

TEST(FdWatch, WhatWasWrittenBeforeTheEndIsStillRead) {
   EventLoop loop;
   SocketPair sockets;
   sockets.put(1, "last words");
   sockets.close(1);
   std::string got;
   FdWatch watch(loop, sockets[0], reading, [&](Events events) {
      EXPECT_TRUE(events.read);
      EXPECT_TRUE(events.hangUp);
      const std::string bytes = sockets.take(0, 4);
      got += bytes;
      if (bytes.empty()) {
         watch.activeIs(false);
      }
   });
   loop.run();
   EXPECT_EQ("last words", got);
}

TEST(FdWatch, AHalfClosedSocketIsReadableAndHungUp) {
   EventLoop loop;
   SocketPair sockets;
   ::shutdown(sockets[1], SHUT_WR);
   Events seen;
   FdWatch watch(loop, sockets[0], reading, [&](Events events) {
      seen = events;
      watch.activeIs(false);
   });
   EXPECT_EQ(1u, loop.run());
   EXPECT_EQ((Events{true, false, true}), seen);
}

TEST(FdWatch, AWriterWhoseReaderIsGoneIsToldSo) {
   EventLoop loop;
   Pipe pipe;
   pipe.fill(1);
   Events seen;
   FdWatch watch(loop, pipe[1], writing, [&](Events events) {
      seen = events;
      watch.activeIs(false);
   });
   EXPECT_EQ(0u, loop.poll());
   pipe.close(0);
   EXPECT_EQ(1u, loop.run());
   EXPECT_EQ((Events{false, true, true}), seen);
}

TEST(FdWatch, AWatchThatAsksForNothingIsToldOfAHangUpOnly) {
   EventLoop loop;
   Pipe pipe;
   Events seen;
   FdWatch watch(loop, pipe[0], {}, [&](Events events) {
      seen = events;
      watch.activeIs(false);
   });
   pipe.put(1, "x");
   EXPECT_EQ(0u, loop.poll());
   pipe.close(1);
   EXPECT_EQ(1u, loop.run());
   EXPECT_EQ((Events{false, false, true}), seen);
}

TEST(FdWatch, NeitherChangesTheDescriptorsFlagsNorClosesIt) {
   EventLoop loop;
   SocketPair sockets;
   for (const int extra : {0, O_NONBLOCK}) {
      ::fcntl(sockets[0], F_SETFL, ::fcntl(sockets[0], F_GETFL) | extra);
      const int flags = ::fcntl(sockets[0], F_GETFL);
      const int descriptorFlags = ::fcntl(sockets[0], F_GETFD);
      {
         int calls = 0;
         FdWatch watch(loop, sockets[0], both, [&](Events) { ++calls; });
         EXPECT_EQ(flags, ::fcntl(sockets[0], F_GETFL));
         EXPECT_TRUE(loop.runUntil([&] { return calls > 0; }, longTime));
         EXPECT_EQ(flags, ::fcntl(sockets[0], F_GETFL));
      }
      EXPECT_EQ(flags, ::fcntl(sockets[0], F_GETFL));
      EXPECT_EQ(descriptorFlags, ::fcntl(sockets[0], F_GETFD));
   }
}

TEST(FdWatch, LeavesNoDescriptorBehind) {
   EventLoop loop;
   Pipe pipe;
   const int next = ::dup(pipe[0]);
   ::close(next);
   {
      FdWatch watch(loop, pipe[0], reading, [](Events) {});
   }
   EXPECT_NE(0, errorOf(loop, -1, reading));
   const int again = ::dup(pipe[0]);
   ::close(again);
   EXPECT_EQ(next, again);
}

TEST(FdWatch, RefusesWhatCannotBeWatched) {
   EventLoop loop;
   EXPECT_EQ(EBADF, errorOf(loop, -1, reading));
   Pipe pipe;
   const int closed = pipe[0];
   pipe.close(0);
   EXPECT_EQ(EBADF, errorOf(loop, closed, reading));
   std::string path = testing::TempDir() + "tarn-fdwatch-XXXXXX";
   const int file = ::mkostemp(path.data(), O_CLOEXEC);
   ASSERT_GE(file, 0);
   EXPECT_EQ(EPERM, errorOf(loop, file, reading));
   ::close(file);
   ::unlink(path.c_str());
   EXPECT_EQ(0u, loop.run());
}

TEST(FdWatch, RefusesAnEmptyHandler) {
   EventLoop loop;
   Pipe pipe;
   EXPECT_THROW(FdWatch(loop, pipe[0], reading, nullptr), std::invalid_argument);
}

TEST(FdWatch, KeepsTheLoopRunningOnlyWhileActive) {
   EventLoop loop;
   Pipe pipe;
   FdWatch watch(loop, pipe[0], reading, [](Events) { ADD_FAILURE(); });
   Platform::Timer timer(loop, [&] { watch.activeIs(false); });
   timer.startIn(1ms);
   EXPECT_EQ(1u, loop.run());
   EXPECT_FALSE(watch.active());
}

TEST(FdWatch, AnInactiveWatchIsNotCalledUntilActiveAgain) {
   EventLoop loop;
   Pipe pipe;
   std::string got;
   FdWatch watch(loop, pipe[0], reading, [&](Events) { got += pipe.take(0); });
   pipe.put(1, "x");
   watch.activeIs(false);
   watch.activeIs(false);
   EXPECT_EQ(0u, loop.run());
   watch.activeIs(true);
   watch.activeIs(true);
   EXPECT_TRUE(loop.runUntil([&] { return got == "x"; }, longTime));
   EXPECT_EQ(0u, loop.poll());
}

TEST(FdWatch, PausedAndResumedWhileTheReadinessIsQueuedItIsCalledOnce) {
   EventLoop loop;
   Pipe pipe;
   int calls = 0;
   FdWatch watch(loop, pipe[0], reading, [&](Events) {
      ++calls;
      pipe.take(0);
   });
   pipe.put(1, "x");
   for (int i = 0; i < 3; ++i) {
      watch.activeIs(false);
      watch.activeIs(true);
   }
   EXPECT_TRUE(loop.runUntil([&] { return calls > 0; }, longTime));
   EXPECT_EQ(0u, loop.poll());
   EXPECT_EQ(1, calls);
}

// Both are ready before the loop first looks, so that both are in its queue when the first of
// them is called.
template <typename Do>
void whenBothAreReady(Do doToTheOther) {
   EventLoop loop;
   Pipe one;
   Pipe two;
   std::unique_ptr<FdWatch> first;
   std::unique_ptr<FdWatch> second;
   int calls = 0;
   first = std::make_unique<FdWatch>(loop, one[0], reading, [&](Events) {
      ++calls;
      one.take(0);
      doToTheOther(second);
   });
   second = std::make_unique<FdWatch>(loop, two[0], reading, [&](Events) {
      ++calls;
      two.take(0);
      doToTheOther(first);
   });
   one.put(1, "x");
   two.put(1, "x");
   EXPECT_TRUE(loop.runUntil([&] { return calls > 0; }, longTime));
   EXPECT_EQ(0u, loop.poll());
   EXPECT_EQ(1, calls);
}

TEST(FdWatch, ANeighbourDestroyedWhenBothAreReadyIsNotCalled) {
   whenBothAreReady([](std::unique_ptr<FdWatch>& other) { other.reset(); });
}

TEST(FdWatch, ANeighbourMadeInactiveWhenBothAreReadyIsNotCalled) {
   whenBothAreReady([](std::unique_ptr<FdWatch>& other) { other->activeIs(false); });
}

TEST(FdWatch, IsNotCalledWhenANeighbourHasReadItsDescriptorEmpty) {
   EventLoop loop;
   Pipe pipe;
   int calls = 0;
   const auto drain = [&](Events) {
      ++calls;
      pipe.take(0);
   };
   FdWatch first(loop, pipe[0], reading, drain);
   FdWatch second(loop, pipe[0], reading, drain);
   pipe.put(1, "x");
   EXPECT_TRUE(loop.runUntil([&] { return calls > 0; }, longTime));
   EXPECT_EQ(0u, loop.poll());
   EXPECT_EQ(1, calls);
}

TEST(FdWatch, MayDestroyItselfInItsHandlerWhichStaysAliveUntilItReturns) {
   EventLoop loop;
   Pipe pipe;
   pipe.put(1, "x");
   auto held = std::make_shared<int>(41);
   const std::weak_ptr<int> watched = held;
   std::unique_ptr<FdWatch> watch;
   int after = 0;
   watch = std::make_unique<FdWatch>(loop, pipe[0], reading,
                                     [&watch, &after, held = std::move(held)](Events) {
                                        watch.reset();
                                        after = *held + 1;
                                     });
   EXPECT_EQ(1u, loop.run());
   EXPECT_EQ(42, after);
   EXPECT_TRUE(watched.expired());
}

TEST(FdWatch, ItsHandlerIsDestroyedWithItAndNotLater) {
   EventLoop loop;
   Pipe pipe;
   pipe.put(1, "x");
   const auto held = std::make_shared<int>(0);
   {
      FdWatch watch(loop, pipe[0], reading, [held](Events) { ADD_FAILURE(); });
   }
   EXPECT_EQ(1, held.use_count());
   EXPECT_EQ(0u, loop.run());
}

TEST(FdWatch, MayBePausedAndResumedInItsHandler) {
   EventLoop loop;
   Pipe pipe;
   std::string got;
   FdWatch watch(loop, pipe[0], reading, [&](Events) {
      got += pipe.take(0, 1);
      watch.activeIs(false);
      watch.activeIs(true);
   });
   pipe.put(1, "abc");
   EXPECT_TRUE(loop.runUntil([&] { return got == "abc"; }, longTime));
   EXPECT_EQ(0u, loop.poll());
}

TEST(FdWatch, StaysInPlaceWhenItsHandlerThrows) {
   EventLoop loop;
   Pipe pipe;
   int calls = 0;
   FdWatch watch(loop, pipe[0], reading, [&](Events) {
      pipe.take(0, 1);
      if (++calls < 3) {
         throw std::runtime_error("no");
      }
      watch.activeIs(false);
   });
   pipe.put(1, "abc");
   EXPECT_THROW(loop.run(), std::runtime_error);
   EXPECT_THROW(loop.run(), std::runtime_error);
   EXPECT_TRUE(watch.active());
   EXPECT_EQ(1u, loop.run());
   EXPECT_EQ(3, calls);
}

TEST(FdWatch, IsNotEnteredAgainByANestedRun) {
   EventLoop loop;
   Pipe pipe;
   int depth = 0;
   std::string got;
   FdWatch watch(loop, pipe[0], reading, [&](Events) {
      EXPECT_EQ(1, ++depth);
      bool posted = false;
      loop.post([&] { posted = true; });
      EXPECT_TRUE(loop.runUntil([&] { return posted; }, longTime));
      loop.poll();
      got += pipe.take(0, 1);
      --depth;
   });
   pipe.put(1, "ab");
   EXPECT_TRUE(loop.runUntil([&] { return got == "ab"; }, longTime));
}

TEST(FdWatch, ADescriptorClosedWhileWatchedIsForgotten) {
   EventLoop loop;
   Pipe one;
   FdWatch watch(loop, one[0], reading, [](Events) { ADD_FAILURE(); });
   const int number = one[0];
   one.close(0);
   // The number goes to another pipe, which nobody watches.
   Pipe two;
   ASSERT_EQ(number, two[0]);
   two.put(1, "x");
   EXPECT_EQ(0u, loop.poll());
   EXPECT_EQ(0u, loop.runFor(1ms));
}

TEST(FdWatch, WatchesTheDescriptorsOfOtherMachineryToo) {
   EventLoop loop;
   Pipe pipe;
   const int instance = ::epoll_create1(EPOLL_CLOEXEC);
   epoll_event event = {};
   event.events = EPOLLIN;
   ASSERT_EQ(0, ::epoll_ctl(instance, EPOLL_CTL_ADD, pipe[0], &event));
   bool seen = false;
   FdWatch watch(loop, instance, reading, [&](Events) {
      seen = true;
      watch.activeIs(false);
   });
   EXPECT_EQ(0u, loop.poll());
   pipe.put(1, "x");
   EXPECT_EQ(1u, loop.run());
   EXPECT_TRUE(seen);
   ::close(instance);
}

TEST(FdWatch, OutlivingItsLoopIsHarmless) {
   auto loop = std::make_unique<EventLoop>();
   Pipe pipe;
   pipe.put(1, "x");
   FdWatch watch(*loop, pipe[0], reading, [](Events) { ADD_FAILURE(); });
   FdWatch paused(*loop, pipe[0], reading, [](Events) { ADD_FAILURE(); });
   paused.activeIs(false);
   loop.reset();
   EXPECT_FALSE(watch.active());
   watch.activeIs(true);
   paused.activeIs(true);
   EXPECT_FALSE(watch.active());
   EXPECT_FALSE(paused.active());
   EXPECT_EQ("x", pipe.take(0));
}

} // namespace
