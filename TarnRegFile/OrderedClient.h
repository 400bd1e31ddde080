#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <string_view>

#include "platform/entity/UniqueId.h"
#include "TarnRegFile/CoreMonitor.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/OrderedOutcome.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile::Sable {

using Platform::UniqueId;

/// Sequences of register writes that the owner of a core makes in their order, each once, with
/// nothing of anybody else's in between, and whose outcome it tells. Writes the shared table
/// CORE/ops, reads CORE/ops-status, and never touches the hardware.
///
///    OrderedClient fpga(loop, service, "fpga", registers);
///    const auto id = fpga.submit({{{"RESET", 1}, {"MODE", 3}, {"RESET", 0}}});
///    const OrderedOutcome outcome = fpga.wait(id, std::chrono::seconds(5));
///    if (!outcome.isComplete()) {
///       std::cerr << outcome.writes.size() << " were made: " << outcome.lastError << '\n';
///    }
///
/// What was submitted is the owner's business: it is carried out also when the client has ended
/// meanwhile, and when the owner comes later, or its device comes back. Any process may ask for the
/// outcome of an operation whose id it knows.
///
/// Owned by the program, on the thread of the event loop. Functions throw ShadowError, and
/// std::system_error for what is none of its kinds, a full table for one (errors.md).
class TARN_API OrderedClient {
public:
   /// As many writes as one operation may have.
   static constexpr std::size_t mostWrites = 128;

   /// One of them.
   struct Write {
      std::string_view regName;
      std::uint32_t value;
   };

   /// `registers` are the core's, as a ShadowClient has them. `loop` is that of `service`, and both
   /// outlive the client. Looks at nothing yet.
   OrderedClient(Platform::EventLoop& loop, Platform::Tables::TableService& service,
                 const String& coreName, const Ptr<HardwareRegisterFile>& registers);
   ~OrderedClient();

   OrderedClient(const OrderedClient&) = delete;
   OrderedClient& operator=(const OrderedClient&) = delete;

   const String& coreName() const noexcept;

   /// How the core is. The client's own, for as long as that is there.
   CoreMonitor& monitor() noexcept;
   const CoreMonitor& monitor() const noexcept;

   /// Asks for `writes` to be made in their order, a register as often as it is named, and returns
   /// at once with the operation's identity, which no other process of the machine gives. Those
   /// that one process submits while there is no owner are begun in the order of submission.
   ///
   /// Throws, with nothing submitted: Platform::RangeError for none or more than `mostWrites`;
   /// ShadowError unknownRegister, notPermitted (a register that is not writable, too), damaged;
   /// std::system_error ENOBUFS (generic category) when too many operations wait.
   UniqueId submit(std::span<const Write> writes);
   UniqueId submit(std::initializer_list<Write> writes) {
      return submit(std::span(writes.begin(), writes.size()));
   }

   /// What is known of an operation at this moment. Throws ShadowError: notPermitted if this user
   /// may not know, damaged.
   OrderedOutcome outcome(UniqueId id) const;

   /// Runs the loop until the operation has ended, however it did, and returns what came of it. May
   /// be called in a handler of the loop. Outcomes are kept for a while only: of an operation that
   /// ended long ago all that is known may be that it has.
   ///
   /// Throws ShadowError timedOut, with what is known of the operation and of the core in its text,
   /// when it had not ended within `timeout`, or the loop was stopped: the operation stands. Also
   /// when its owner has died over it, until another one has come, which tells it as far as it is
   /// known and does not go on with it. Else as outcome().
   OrderedOutcome wait(UniqueId id, std::chrono::nanoseconds timeout) const;

   /// Takes an operation back that has not begun. True: it was waiting, and nothing of it is going
   /// to be written. False: there is none, or it has begun, and goes on to its end; if it began at
   /// this very moment it ends before its next write. Throws ShadowError notPermitted, damaged.
   bool takeBack(UniqueId id);

   /// What is wrong with a table that was found damaged; empty if none was, and again when another
   /// one in its place has been looked at.
   String damage() const;

private:
   class Impl;
   std::shared_ptr<Impl> _impl;
};

} // namespace TarnRegFile::Sable
