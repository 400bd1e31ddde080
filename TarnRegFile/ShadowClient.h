#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include "TarnRegFile/CoreMonitor.h"
#include "TarnRegFile/CoreRegister.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace Platform {
class EventLoop;
}

namespace Platform::Tables {
class TableService;
}

namespace TarnRegFile::Sable {

/// The registers of a core that another process owns, by name: what they hold, what they are wished
/// to hold, and changes of the former. Reads the shared table CORE/status, writes CORE/config, and
/// never touches the hardware.
///
/// Reading gives what the table has, which stays when the device is lost or the owner ends; the
/// monitor() says how much that is worth. Waiting is for what the core holds while it is ready.
///
///    ShadowClient fpga(loop, service, "fpga", registers);
///    fpga.read("FPGA_ID");
///    fpga.write("SCRATCH", 5, std::chrono::seconds(1));
///    if (!fpga.monitor().isReady()) { ... } // FPGA_ID is of a generation that has ended
///
/// Only reading is needed to read: the table of wishes is mounted as a writer, and made if there is
/// none, with the first wish. The table of status is the owner's to make; until it has, there are
/// no values, and the client looks again.
///
/// A damaged table is the owner's to replace. Whoever meets the damage is thrown ShadowError
/// damaged; once another table is in its place, the next call that needs it uses that one, and
/// followers are told of what it has that differs from what they were told.
///
/// Owned by the program, on the thread of the event loop. Functions throw ShadowError, and
/// std::system_error for what is none of its kinds, a full table for one (errors.md).
class TARN_API ShadowClient {
public:
   /// `registers` are the core's, with the addresses that its owner uses, which are the numbers of
   /// the register list; it does not change meanwhile. `loop` is that of `service`, and both
   /// outlive the client. Throws ShadowError: notPermitted if this user may not read the values,
   /// damaged.
   ShadowClient(Platform::EventLoop& loop, Platform::Tables::TableService& service,
                const String& coreName, const Ptr<HardwareRegisterFile>& registers);
   ~ShadowClient();

   ShadowClient(const ShadowClient&) = delete;
   ShadowClient& operator=(const ShadowClient&) = delete;

   const String& coreName() const noexcept;
   const Ptr<HardwareRegisterFile>& registers() const noexcept;

   /// How the core is: ready or not, whether its owner lives, and a new generation on demand. The
   /// client's own, for as long as that is there.
   CoreMonitor& monitor() noexcept;
   const CoreMonitor& monitor() const noexcept;

   /// What the register holds, or held last if the core is not ready: whoever needs to know asks
   /// the monitor() first, which costs a few microseconds, or follows it. Allocates nothing unless
   /// it throws: unknownRegister, noValue, damaged.
   std::uint32_t read(std::string_view regName) const;

   /// The same by address; the register list is not asked.
   std::uint32_t read(std::uint32_t address) const;

   /// The same; none while nothing is known of the register.
   std::optional<std::uint32_t> value(std::string_view regName) const;
   std::optional<std::uint32_t> value(std::uint32_t address) const;

   /// What the register is wished to hold, by whichever client; none if nobody wishes anything.
   std::optional<std::uint32_t> wish(std::string_view regName) const;
   std::optional<std::uint32_t> wish(std::uint32_t address) const;

   /// Wishes the register to hold `value`, and returns at once. Throws ShadowError unknownRegister,
   /// notPermitted (a register that is not writable, too), damaged; nothing has changed then.
   void wishIs(std::string_view regName, std::uint32_t value);

   /// Takes a wish back, which writes nothing to the hardware. Returns whether there was one.
   /// Throws as wishIs().
   bool wishDel(std::string_view regName);

   /// Runs the loop until every one of `wished` is held at a time by a core that is ready, which
   /// gives true, or until `timeout` has passed or the loop is stopped, which gives false. Looks
   /// before it waits. May be called in a handler of the loop.
   ///
   /// What is left of a generation that has ended, or of an owner that has, does not count: the
   /// device may have forgotten it. A value counts as held as soon as the owner says so, which is
   /// when it has sent the write; if that fails the value is taken back a moment later. Who needs
   /// to know what became of each write uses an OrderedClient. Throws ShadowError: notPermitted if
   /// this user may not read how the core is, damaged.
   bool waitUntilHeld(std::span<const CoreRegister> wished, std::chrono::nanoseconds timeout) const;

   /// wishIs(), and waits until the register holds the value, as waitUntilHeld() does. Throws
   /// ShadowError timedOut when it did not in time, with the monitor's summary; the wish stands.
   void write(std::string_view regName, std::uint32_t value, std::chrono::nanoseconds timeout);

   /// Told of a register: its name, and what it holds now; none when that is not known any more.
   using Handler = std::function<void(const String& regName, std::optional<std::uint32_t> value)>;

   /// For as long as it is held, the handler is called. Letting go of it may happen anywhere.
   using Following = std::shared_ptr<const void>;

   /// Has `handler` called by the loop whenever the register's value becomes another one than it
   /// was told last, or was when this was called. It may do anything, end the client included; what
   /// it throws reaches who runs the loop, after the others had their turn. Throws ShadowError
   /// unknownRegister, damaged.
   [[nodiscard]] Following follow(std::string_view regName, Handler handler);

   /// The same for every register of the list, under the name that the list has for the address.
   [[nodiscard]] Following follow(Handler handler);

   /// What is wrong with a table that was found damaged; empty if none was, and again when a call,
   /// or a follower's look every 50 ms, has found another table in its place. Until then nothing is
   /// told of its changes.
   String damage() const;

private:
   class Impl;
   std::shared_ptr<Impl> _impl;
};

} // namespace TarnRegFile::Sable
