#pragma once

#include <csignal>
#include <cstddef>

#include "platform/entity/Export.h"

namespace Platform {

/// Turns the SIGBUS that an access to a vanished device raises into a return value. Of the
/// process, like the signal itself; every function may be used on any thread.
///
/// Only what is guarded is caught: a fault that the kernel reports, on the thread that runs a
/// guarded region, at an address inside that region's range. Every other SIGBUS goes to the handler
/// that was there when the guard was installed, as if the guard were not: the default action still
/// ends the process, an ignored signal that somebody sends is still ignored.
///
/// A program that wants a SIGBUS handler of its own installs it before the guard. One that
/// installs it later takes the guard out of force for good.
class TARN_PLATFORM_API BusErrorGuard {
public:
   BusErrorGuard() = delete;

   /// Installs the handler. The first call does, all others do nothing; when any of them returns,
   /// the guard is in force. Must not be called from a signal handler.
   static void initialize();

   /// Whether the guard was installed.
   static bool initialized() noexcept;

   /// Whether run(), and so every guarded access, installs the guard if it is not installed; true
   /// unless changed. With it off, and until somebody calls initialize(), a guarded access behaves
   /// like a plain one.
   static bool autoInstall() noexcept;
   static void autoInstallIs(bool autoInstall) noexcept;

   /// What a guarded region does. After a bus error the rest of it is skipped as if by a jump, so
   /// it must own nothing at the access: no objects with destructors, no locks. Nor may it leave
   /// the region in any other way than by returning.
   using Action = void (*)(void* argument) noexcept;

   /// Calls `action` with `argument`, guarded for the `size` bytes from `begin` on. Returns false
   /// if a bus error in that range ended it, with errno as it was before the call. Regions may be
   /// nested: a fault ends the innermost one whose range it is in, and the others stay in force.
   ///
   /// Allocates nothing, takes no lock, and unless there is a fault, makes no system call. SIGBUS
   /// must not be blocked on this thread: the kernel ends a process that faults with the signal
   /// blocked.
   [[nodiscard]] static bool run(const volatile void* begin, std::size_t size, Action action,
                                 void* argument) noexcept;

private:
   static void _onBusError(int signal, siginfo_t* info, void* context) noexcept;
};

} // namespace Platform
