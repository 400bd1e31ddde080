#include "platform/entity/Timer.h"

#include <stdexcept>

#include "platform/entity/private/EventLoopImpl.h"

namespace Platform {

namespace {

using Clock = std::chrono::steady_clock;

Clock::time_point fromNow(std::chrono::nanoseconds delay) {
   const Clock::time_point now = Clock::now();
   return delay > Clock::time_point::max() - now ? Clock::time_point::max() : now + delay;
}

} // namespace

void Timer::State::start(Clock::time_point time, std::chrono::nanoseconds period_) {
   const std::shared_ptr<EventLoop::Impl> impl = loop.lock();
   if (!impl || impl->gone()) {
      return;
   }
   impl->assertUsableHere("Timer::start");
   cancel(*impl);
   key = impl->timerAdded(time, shared_from_this());
   period = period_;
}

void Timer::State::cancel(EventLoop::Impl& impl) {
   if (key) {
      const EventLoop::Impl::TimerKey former = *key;
      key.reset();
      impl.timerRemoved(former);
   }
}

Timer::Timer(EventLoop& loop, std::function<void()> handler)
   : _state(std::make_shared<State>(loop._impl, std::move(handler))) {
   if (!_state->handler) {
      throw std::invalid_argument("empty timer handler");
   }
}

Timer::~Timer() {
   cancel();
}

void Timer::startIn(std::chrono::nanoseconds delay) {
   _state->start(fromNow(delay), std::chrono::nanoseconds(0));
}

void Timer::startAt(Clock::time_point time) {
   _state->start(time, std::chrono::nanoseconds(0));
}

void Timer::startEvery(std::chrono::nanoseconds period) {
   if (period.count() <= 0) {
      throw std::invalid_argument("timer period is not positive");
   }
   _state->start(fromNow(period), period);
}

void Timer::cancel() {
   if (const std::shared_ptr<EventLoop::Impl> impl = _state->loop.lock()) {
      impl->assertUsableHere("Timer::cancel");
      _state->cancel(*impl);
   }
}

bool Timer::active() const noexcept {
   return _state->key.has_value();
}

} // namespace Platform
