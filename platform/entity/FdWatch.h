#pragma once

#include <functional>
#include <memory>

#include "platform/entity/Export.h"

namespace Platform {

class EventLoop;

/// Calls a handler on its event loop's thread for as long as a file descriptor is ready.
///
/// Level-triggered: the handler is called again and again until it has read, or written, all there
/// was to, or makes the watch inactive. The descriptor stays the caller's: the watch neither
/// closes it nor changes its flags; if it is blocking, a handler should make one read or write for
/// each call. Close it only after the watch is gone.
///
/// Owned by whoever wants to be called; destroying it, or making it inactive, takes effect at
/// once: no call follows, even if the descriptor was already found ready. The handler may do both,
/// and stays alive until it returns; it is never entered again while it runs, not even by a nested
/// run of the loop. A watch may outlive its loop; it is then never called.
///
/// All calls on the loop's thread (see EventLoop).
class TARN_PLATFORM_API FdWatch {
public:
   struct Events {
      bool read = false;
      bool write = false;
      /// Reported without being asked for: the other end is gone, or the descriptor has an error.
      /// What was asked for is then reported as ready too, so that reading or writing finds out.
      bool hangUp = false;

      bool operator==(const Events&) const = default;
   };

   /// Watches `fd`, at once active. Throws std::system_error if the descriptor cannot be watched:
   /// EBADF if it is not open, EPERM if it is of a kind that is always ready, such as a regular
   /// file. Throws std::invalid_argument if `handler` is empty.
   FdWatch(EventLoop& loop, int fd, Events events, std::function<void(Events)> handler);
   ~FdWatch();

   FdWatch(const FdWatch&) = delete;
   FdWatch& operator=(const FdWatch&) = delete;

   /// Starts or pauses watching. An inactive watch does not keep its loop running.
   void activeIs(bool active);

   bool active() const noexcept;

   int fd() const noexcept;

private:
   struct State;
   std::shared_ptr<State> _state;
};

} // namespace Platform
