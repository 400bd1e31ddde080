#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "TarnRegFile/CoreOwner.h"
#include "TarnRegFile/CoreState.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace Platform {
class EventLoop;
}

namespace Platform::Tables {
class TableService;
}

namespace TarnRegFile::Sable {

/// How a core that another process owns is doing: what its owner says, whether that owner lives,
/// and so how much the core's shadow registers are worth. Needs only the right to read, but for
/// resync(). Any number of them may look at one core.
///
///    CoreMonitor fpga(loop, service, "fpga");
///    if (!fpga.isReady()) {
///       std::cerr << "the fpga's registers are old: " << fpga.summary() << '\n';
///    }
///
/// Owned by the program, or by a ShadowClient; on the thread of the event loop. Functions throw
/// ShadowError: notPermitted if this user may not read how the core is, damaged; and
/// std::system_error for what is none of its kinds (errors.md).
class TARN_API CoreMonitor {
public:
   /// `loop` is that of `service`, and both outlive the monitor. Looks at nothing yet: the core's
   /// owner may come later.
   CoreMonitor(Platform::EventLoop& loop, Platform::Tables::TableService& service,
               const String& coreName);
   ~CoreMonitor();

   CoreMonitor(const CoreMonitor&) = delete;
   CoreMonitor& operator=(const CoreMonitor&) = delete;

   const String& coreName() const noexcept;

   /// What an owner of the core has said last; none if none has said anything yet. Whoever said it
   /// need not live any more: see owner().
   std::optional<CoreState> state() const;

   /// Whether the owner that state() is of lives. Throws nothing.
   OwnerLife owner() const noexcept;

   /// Whether the core is ready: an owner that is not known to be gone serves a valid generation.
   /// What ShadowClient::read() gives is then what the hardware has, as of CoreState::accessWall at
   /// the earliest for what changes by itself; otherwise it is of a generation that has ended.
   bool isReady() const;

   /// Whether `condition` holds for what the core's tables have of one generation while it is
   /// ready. It only looks at tables; it is called once at most, and not if the core is not ready.
   bool isReadyAnd(const std::function<bool()>& condition) const;

   /// For people, how the core is: "it is waiting; its last error: ...". Without the core's name.
   String summary() const;

   /// Told what state() and owner() have become.
   using Handler = std::function<void(const std::optional<CoreState>& state, OwnerLife owner)>;

   /// For as long as it is held, the handler is called. Letting go of it may happen anywhere.
   using Following = std::shared_ptr<const void>;

   /// Has `handler` called by the loop whenever state() or owner() has become another one than it
   /// was told last, or than it was when this was called. Several changes may be told as one. An
   /// owner's coming and going is noticed within 100 ms. The handler may do anything, end the
   /// monitor included; what it throws reaches who runs the loop, after the others had their turn.
   /// So does ShadowError damaged, once, if the state is found damaged; when its owner has replaced
   /// it, the handler is told what the new one says.
   [[nodiscard]] Following follow(Handler handler);

   /// Asks the owner to begin a new generation, which reads every register of the hardware anew and
   /// writes what is wished, and runs the loop until the core is ready in one that has begun after
   /// this was called. Returns the state then. May be called in a handler of the loop. Any number
   /// of clients may ask at once: one generation, or one after the other, serves them all.
   ///
   /// Without an owner the request stands: whoever comes begins with a generation anyway.
   ///
   /// Throws ShadowError timedOut, with summary() in its text, when that was not so within
   /// `timeout` or the loop was stopped; the request stands. notPermitted if this user may not ask,
   /// damaged.
   CoreState resync(std::chrono::nanoseconds timeout);

   /// What is wrong with a table that was found damaged; empty if none was, and again when another
   /// one in its place has been looked at.
   String damage() const;

private:
   class Impl;
   std::shared_ptr<Impl> _impl;
};

} // namespace TarnRegFile::Sable
