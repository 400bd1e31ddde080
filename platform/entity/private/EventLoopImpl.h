#pragma once

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_set>
#include <utility>

#include "platform/entity/EventLoop.h"
#include "platform/entity/Timer.h"

namespace Platform {

// What a loop and its timers and watches share. Not for anybody else: not installed, and the only
// place, with the watches' sources, that knows Asio.
//
// Posted work and timers have queues of their own, with one Asio operation each that serves the
// first entry. Asio's queues would do, but cannot take an entry back out: what is cancelled while
// in the queue still arrives, and callables would live until then.
class EventLoop::Impl {
public:
   using Clock = std::chrono::steady_clock;
   // The number orders timers of equal times by their start.
   using TimerKey = std::pair<Clock::time_point, std::uint64_t>;

   // Something with an Asio object, which must not outlive the io_context.
   class Attachment {
   public:
      virtual void loopGone() noexcept = 0;

   protected:
      ~Attachment() = default;
   };

   // One call that runs the loop; they nest.
   class RunScope {
   public:
      RunScope(Impl& impl, bool mayNest);
      ~RunScope();
      RunScope(const RunScope&) = delete;
      RunScope& operator=(const RunScope&) = delete;

      std::size_t executed() const { return _impl._executed - _executedBefore; }

   private:
      Impl& _impl;
      std::size_t _executedBefore = 0;
   };

   explicit Impl(EventLoop* owner);
   Impl(const Impl&) = delete;
   Impl& operator=(const Impl&) = delete;

   // The loop is being destroyed: drops everything that waits.
   void loopGone();
   bool gone() const { return _gone; }

   void post(std::function<void()> work);
   void stop();
   bool stopRequested() const { return _stopRequested.load(std::memory_order_relaxed); }
   bool running() const { return _depth.load(std::memory_order_relaxed) > 0; }
   bool isOwnThread() const noexcept {
      return _thread.load(std::memory_order_relaxed) == std::this_thread::get_id();
   }
   // Debug builds only: fatal on another thread than the one that runs the loop now.
   void assertUsableHere(const char* function) const;

   TimerKey timerAdded(Clock::time_point time, std::shared_ptr<Timer::State> timer);
   void timerRemoved(const TimerKey& key);
   // Has poll() see the timers that are due, without leaving it to the system's timer to have
   // noticed yet.
   void expediteTimers();

   // Calls `call` as a callable of this loop.
   template <typename Call>
   void execute(Call&& call) {
      const CurrentScope scope(_owner);
      ++_executed;
      std::forward<Call>(call)();
   }

   static EventLoop* current() noexcept;

   asio::io_context io;
   std::optional<asio::executor_work_guard<asio::io_context::executor_type>> keepRunning;
   std::unordered_set<Attachment*> attachments;

private:
   class CurrentScope {
   public:
      explicit CurrentScope(EventLoop* loop);
      ~CurrentScope();
      CurrentScope(const CurrentScope&) = delete;
      CurrentScope& operator=(const CurrentScope&) = delete;

   private:
      EventLoop* _before;
   };

   // What the one operation for all timers is doing.
   enum class TimerOperation { none, waiting, queued };

   void _runPosted();
   void _serveTimers();
   void _waitForTimers();
   void _queueTimers();
   void _stopWaiting();

   EventLoop* _owner;
   std::atomic<std::thread::id> _thread{std::this_thread::get_id()};
   std::atomic<int> _depth{0};
   std::atomic<bool> _stopRequested{false};
   std::size_t _executed = 0;

   // Held to change the thread, the depth and the request to stop, and for the posted work.
   std::mutex _mutex;
   std::deque<std::function<void()>> _posted;
   bool _gone = false;

   std::map<TimerKey, std::shared_ptr<Timer::State>> _timers;
   std::uint64_t _timersStarted = 0;
   asio::steady_timer _systemTimer{io};
   TimerOperation _timerOperation = TimerOperation::none;
   Clock::time_point _waitingUntil;
   // Tells the wait under way from one that was cancelled but had already ended.
   std::uint64_t _wait = 0;
};

// What outlives the timer while its handler runs.
struct Timer::State : std::enable_shared_from_this<Timer::State> {
   State(const std::shared_ptr<EventLoop::Impl>& loop_, std::function<void()> handler_)
      : loop(loop_), handler(std::move(handler_)) {}

   void start(EventLoop::Impl::Clock::time_point time, std::chrono::nanoseconds period_);
   void cancel(EventLoop::Impl& impl);

   std::weak_ptr<EventLoop::Impl> loop;
   std::function<void()> handler;
   std::optional<EventLoop::Impl::TimerKey> key; // while in the loop's queue
   std::chrono::nanoseconds period{0};           // zero: fires once
};

} // namespace Platform
