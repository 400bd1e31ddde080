#include "platform/entity/EventLoop.h"

#include <algorithm>
#include <asio/post.hpp>
#include <stdexcept>

#include "platform/entity/Fatal.h"
#include "platform/entity/private/EventLoopImpl.h"

namespace Platform {

namespace {

constexpr const char* source = "platform/entity/EventLoop";

// How long runUntil lets a change that nobody posts go unnoticed.
constexpr auto predicateInterval = std::chrono::milliseconds(5);

thread_local EventLoop* currentLoop = nullptr;

using Clock = std::chrono::steady_clock;

Clock::time_point later(Clock::time_point now, std::chrono::nanoseconds duration) {
   return duration > Clock::time_point::max() - now ? Clock::time_point::max() : now + duration;
}

} // namespace

// -- one call that runs the loop -----------------------------------------------------------------

EventLoop::Impl::RunScope::RunScope(Impl& impl, bool mayNest) : _impl(impl) {
   const std::lock_guard lock(impl._mutex);
   if (impl._depth > 0 && !impl.isOwnThread()) {
      throw std::logic_error("event loop is already running on another thread");
   }
   if (impl._depth > 0 && !mayNest) {
      // The handler that asks for it counts as work, so that it would never end.
      throw std::logic_error("event loop is already running");
   }
   if (impl._depth == 0) {
      impl._thread = std::this_thread::get_id();
      impl.io.restart();
   }
   ++impl._depth;
   _executedBefore = impl._executed;
}

EventLoop::Impl::RunScope::~RunScope() {
   const std::lock_guard lock(_impl._mutex);
   if (--_impl._depth == 0) {
      _impl._stopRequested = false;
   }
}

EventLoop::Impl::CurrentScope::CurrentScope(EventLoop* loop) : _before(currentLoop) {
   currentLoop = loop;
}

EventLoop::Impl::CurrentScope::~CurrentScope() {
   currentLoop = _before;
}

// -- the loop's inside ---------------------------------------------------------------------------

EventLoop::Impl::Impl(EventLoop* owner) : _owner(owner) {}

void EventLoop::Impl::loopGone() {
   // Callables are destroyed here, and may own timers and watches, and post. All of these find a
   // loop that is whole but takes nothing new, and what the last steps leave is harmless to them.
   std::deque<std::function<void()>> posted;
   {
      const std::lock_guard lock(_mutex);
      _gone = true;
      posted.swap(_posted);
   }
   // Before the callables, which then see their timers inactive.
   for (const auto& [key, timer] : std::exchange(_timers, {})) {
      timer->key.reset();
   }
   while (!posted.empty()) { // in the order of posting
      const std::function<void()> work = std::move(posted.front());
      posted.pop_front();
   }
   while (!attachments.empty()) {
      Attachment* attachment = *attachments.begin();
      attachments.erase(attachments.begin());
      attachment->loopGone();
   }
}

void EventLoop::Impl::post(std::function<void()> work) {
   const std::lock_guard lock(_mutex);
   if (_gone) {
      return; // by the destructor of other posted work; destroyed with the argument
   }
   _posted.push_back(std::move(work));
   if (_posted.size() == 1) {
      // Inside the lock, so that run() cannot find itself without work in between.
      try {
         asio::post(io, [this] { _runPosted(); });
      } catch (...) {
         _posted.pop_back();
         throw;
      }
   }
}

void EventLoop::Impl::_runPosted() {
   std::function<void()> work;
   {
      const std::lock_guard lock(_mutex);
      // Before anything is taken out, so that a failure here loses nothing.
      if (_posted.size() > 1) {
         asio::post(io, [this] { _runPosted(); });
      }
      work = std::move(_posted.front());
      _posted.pop_front();
   }
   execute(work);
}

void EventLoop::Impl::stop() {
   const std::lock_guard lock(_mutex);
   _stopRequested = true;
   io.stop();
}

void EventLoop::Impl::assertUsableHere([[maybe_unused]] const char* function) const {
#ifdef TARN_DEBUG_CHECKS
   if (running() && !isOwnThread()) {
      fatalAssertion(source, function, "called on the thread that runs the event loop");
   }
#endif
}

EventLoop* EventLoop::Impl::current() noexcept {
   return currentLoop;
}

// -- timers --------------------------------------------------------------------------------------

EventLoop::Impl::TimerKey EventLoop::Impl::timerAdded(Clock::time_point time,
                                                      std::shared_ptr<Timer::State> timer) {
   const TimerKey key{time, ++_timersStarted};
   const auto position = _timers.emplace(key, std::move(timer)).first;
   if (position == _timers.begin()) {
      if (time <= Clock::now()) {
         _queueTimers();
      } else {
         _waitForTimers();
      }
   }
   return key;
}

void EventLoop::Impl::timerRemoved(const TimerKey& key) {
   _timers.erase(key);
   // With timers left, waking up for the one that is gone costs less than setting the system's
   // timer again each time, as most timers are cancelled.
   if (_timers.empty()) {
      _stopWaiting();
   }
}

void EventLoop::Impl::expediteTimers() {
   if (!_timers.empty() && _timers.begin()->first.first <= Clock::now()) {
      _queueTimers();
   }
}

void EventLoop::Impl::_queueTimers() {
   if (_timerOperation == TimerOperation::queued) {
      return;
   }
   _stopWaiting();
   asio::post(io, [this] { _serveTimers(); });
   _timerOperation = TimerOperation::queued;
}

void EventLoop::Impl::_waitForTimers() {
   const Clock::time_point time = _timers.begin()->first.first;
   if (_timerOperation == TimerOperation::queued ||
       (_timerOperation == TimerOperation::waiting && _waitingUntil <= time)) {
      return;
   }
   _stopWaiting();
   _systemTimer.expires_at(time);
   _systemTimer.async_wait([this, wait = _wait](const asio::error_code&) {
      if (wait == _wait) {
         _serveTimers();
      }
   });
   _waitingUntil = time;
   _timerOperation = TimerOperation::waiting;
}

void EventLoop::Impl::_stopWaiting() {
   if (_timerOperation == TimerOperation::waiting) {
      ++_wait;
      _systemTimer.cancel();
      _timerOperation = TimerOperation::none;
   }
}

void EventLoop::Impl::_serveTimers() {
   _timerOperation = TimerOperation::none;
   if (_timers.empty()) {
      return;
   }
   const Clock::time_point now = Clock::now();
   if (_timers.begin()->first.first > now) {
      _waitForTimers();
      return;
   }
   auto entry = _timers.extract(_timers.begin());
   const std::shared_ptr<Timer::State> timer = entry.mapped();
   if (timer->period.count() > 0) {
      const Clock::time_point due = entry.key().first;
      const auto missed = (now - due) / timer->period;
      entry.key() = {later(due + missed * timer->period, timer->period), ++_timersStarted};
      timer->key = entry.key();
      _timers.insert(std::move(entry));
   } else {
      timer->key.reset();
   }
   // Everything is in place before the handler is called: it may throw. One timer at a time, so
   // that stop() takes effect between two that are due.
   if (!_timers.empty()) {
      if (_timers.begin()->first.first <= now) {
         _queueTimers();
      } else {
         _waitForTimers();
      }
   }
   execute(timer->handler);
}

// -- the loop ------------------------------------------------------------------------------------

EventLoop::EventLoop() : _impl(std::make_shared<Impl>(this)) {}

EventLoop::~EventLoop() {
   if (_impl->running()) {
      fatalAssertion(source, "~EventLoop", "not running");
   }
   _impl->loopGone();
}

std::size_t EventLoop::run() {
   const Impl::RunScope scope(*_impl, false);
   if (!_impl->stopRequested()) {
      _impl->io.run();
   }
   return scope.executed();
}

std::size_t EventLoop::poll() {
   const Impl::RunScope scope(*_impl, true);
   if (!_impl->stopRequested()) {
      _impl->expediteTimers();
      _impl->io.poll();
   }
   return scope.executed();
}

std::size_t EventLoop::runFor(std::chrono::nanoseconds duration) {
   const Impl::RunScope scope(*_impl, true);
   const auto guard = asio::make_work_guard(_impl->io);
   const Clock::time_point deadline = later(Clock::now(), duration);
   while (!_impl->stopRequested() && Clock::now() < deadline) {
      _impl->io.run_one_until(deadline);
   }
   return scope.executed();
}

bool EventLoop::runUntil(const std::function<bool()>& predicate, std::chrono::nanoseconds timeout) {
   const Impl::RunScope scope(*_impl, true);
   const auto guard = asio::make_work_guard(_impl->io);
   const Clock::time_point deadline = later(Clock::now(), timeout);
   while (!predicate()) {
      const Clock::time_point now = Clock::now();
      if (_impl->stopRequested() || now >= deadline) {
         return false;
      }
      _impl->io.run_one_until(std::min(deadline, later(now, predicateInterval)));
   }
   return true;
}

void EventLoop::stop() {
   _impl->stop();
}

void EventLoop::post(std::function<void()> work) {
   if (!work) {
      throw std::invalid_argument("empty work posted to an event loop");
   }
   _impl->post(std::move(work));
}

void EventLoop::keepRunningIs(bool keepRunning) {
   _impl->assertUsableHere("keepRunningIs");
   if (!keepRunning) {
      _impl->keepRunning.reset();
   } else if (!_impl->keepRunning) {
      _impl->keepRunning.emplace(_impl->io.get_executor());
   }
}

bool EventLoop::isOwnThread() const noexcept {
   return _impl->isOwnThread();
}

EventLoop* EventLoop::current() noexcept {
   return Impl::current();
}

} // namespace Platform
