#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "platform/entity/Export.h"

namespace Platform {

class EventLoop;

/// Calls a handler on its event loop's thread when a time has come, once or periodically. Times
/// are those of the monotonic clock: setting the system's date moves no timer.
///
/// Owned by whoever wants to be called; destroying it cancels. A cancelled or restarted timer
/// never fires for the earlier time, even if that had already come. Timers fire in the order of
/// their times, those of equal times in the order in which they were started.
///
/// The handler may destroy, cancel and restart the timer; it stays alive until it returns. When
/// it is called, a timer that fires once is already inactive and a periodic one is already set to
/// its next time. A timer may outlive its loop: it is then never active.
///
/// All calls on the loop's thread (see EventLoop).
class TARN_PLATFORM_API Timer {
public:
   /// An inactive timer. Throws std::invalid_argument if `handler` is empty.
   Timer(EventLoop& loop, std::function<void()> handler);
   ~Timer();

   Timer(const Timer&) = delete;
   Timer& operator=(const Timer&) = delete;

   /// Fires once, `delay` from now; a delay of zero or less is due at once, but is still only
   /// called by the loop. Replaces any earlier start.
   void startIn(std::chrono::nanoseconds delay);

   /// Fires once, at `time`. Replaces any earlier start.
   void startAt(std::chrono::steady_clock::time_point time);

   /// Fires at every multiple of `period` from now. The multiples stay where they are however late
   /// the loop is; those that passed unserved are left out rather than made up for. Replaces any
   /// earlier start. Throws std::invalid_argument, and changes nothing, if `period` is not
   /// positive.
   void startEvery(std::chrono::nanoseconds period);

   /// Makes the timer inactive; no effect on one that is.
   void cancel();

   /// Whether the timer will fire.
   bool active() const noexcept;

private:
   struct State;
   friend class EventLoop;
   std::shared_ptr<State> _state;
};

} // namespace Platform
