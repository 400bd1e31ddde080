#pragma once

#include <functional>
#include <initializer_list>
#include <memory>
#include <vector>

#include "platform/entity/Export.h"

namespace Platform {

class EventLoop;

/// Calls a handler on its event loop's thread, as ordinary code, after the process received one of
/// a set of signals.
///
/// While a watch for a signal exists, the signal has no other effect; system calls on other
/// threads are restarted where the system can. When the last watch for it goes, what the process
/// did about the signal before is put back. Each watch for a signal is told, on whichever loop it
/// is.
///
/// Owned by whoever wants to be called; no call follows its destruction, even if a signal had
/// already come. The handler may destroy the watch, and stays alive until it returns. A watch may
/// outlive its loop; it then takes no signals any more. A watch keeps its loop running until
/// stop().
///
/// All calls on the loop's thread (see EventLoop).
class TARN_PLATFORM_API SignalWatch {
public:
   /// Throws std::system_error (EINVAL) for a number that is no signal or one that cannot be
   /// caught, and std::invalid_argument for no signal at all or an empty `handler`. What was
   /// already set up is then undone.
   SignalWatch(EventLoop& loop, const std::vector<int>& signals, std::function<void(int)> handler);
   SignalWatch(EventLoop& loop, std::initializer_list<int> signals,
               std::function<void(int)> handler);
   ~SignalWatch();

   SignalWatch(const SignalWatch&) = delete;
   SignalWatch& operator=(const SignalWatch&) = delete;

private:
   struct State;
   std::shared_ptr<State> _state;
};

} // namespace Platform
