#include "platform/entity/BusErrorGuard.h"

#include <csetjmp>
#include <csignal>
#include <pthread.h>
#include <ucontext.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>

#include "platform/entity/PatchedMemory.h"

namespace Platform {

namespace {

// Where a guarded region is resumed, on the stack of the thread that runs it.
struct Recovery {
   sigjmp_buf environment;
   std::uintptr_t begin;
   std::uintptr_t end;
   Recovery* outer;
};

// The handler reads it, and in a shared library the usual model of thread-local storage may
// allocate at the first use on a thread. This one is a fixed distance from the thread pointer.
[[gnu::tls_model("initial-exec")]] constinit thread_local Recovery* innermost = nullptr;

// Written before the handler is installed, read by it.
struct sigaction previous = {};
constinit std::atomic<bool> previousSpent{false}; // an SA_RESETHAND handler has had its call

constinit std::atomic<bool> installed{false};
constinit std::atomic<bool> installsItself{true};
static_assert(std::atomic<bool>::is_always_lock_free);

// Whether the signal tells of the instruction that it interrupted, which runs again when the
// handler returns. Of what the kernel reports, only a memory error found in passing does not.
bool isFault(const siginfo_t& info) noexcept {
   return info.si_code > 0 && info.si_code != BUS_MCEERR_AO;
}

// What the kernel does for a process without a handler.
void defaultAction(int signal, const siginfo_t& info) noexcept {
   struct sigaction action = {};
   action.sa_handler = SIG_DFL;
   ::sigaction(signal, &action, nullptr);
   if (!isFault(info)) {
      ::raise(signal);
   }
   // A fault comes again when the handler returns, and is then reported with its own address.
}

// The signals that were blocked where the signal struck. While a handler runs, more may be blocked:
// what the kernel was asked for, and what a tool that stands between (a sanitizer) adds to it.
void restoreMask(const void* context) noexcept {
   ::pthread_sigmask(SIG_SETMASK, &static_cast<const ucontext_t*>(context)->uc_sigmask, nullptr);
}

void callPrevious(int signal, siginfo_t* info, void* context) {
   sigset_t blocked = previous.sa_mask;
   if (!(previous.sa_flags & SA_NODEFER)) {
      ::sigaddset(&blocked, signal);
   }
   restoreMask(context);
   ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
   if (previous.sa_flags & SA_SIGINFO) {
      previous.sa_sigaction(signal, info, context);
   } else {
      previous.sa_handler(signal);
   }
   // The return from our own handler restores the mask.
}

void forward(int signal, siginfo_t* info, void* context) {
   if (previous.sa_handler == SIG_IGN && !isFault(*info)) {
      return;
   }
   // Nobody can ignore a fault: the kernel takes the default action in its place.
   const bool none = previous.sa_handler == SIG_DFL || previous.sa_handler == SIG_IGN;
   const bool once = (static_cast<unsigned>(previous.sa_flags) & SA_RESETHAND) != 0;
   if (none || (once && previousSpent.exchange(true))) {
      defaultAction(signal, *info);
   } else {
      callPrevious(signal, info, context);
   }
}

} // namespace

// Of the class, as what it repairs is its friends' business.
void BusErrorGuard::_onBusError(int signal, siginfo_t* info, void* context) noexcept {
   const int error = errno;
   if (isFault(*info)) {
      const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
      for (Recovery* recovery = innermost; recovery; recovery = recovery->outer) {
         if (address >= recovery->begin && address < recovery->end) {
            innermost = recovery->outer;
            restoreMask(context);
            ::siglongjmp(recovery->environment, 1);
         }
      }
      if (PatchedMemory::repair(address)) {
         errno = error;
         return;
      }
   }
   forward(signal, info, context);
   errno = error;
}

void BusErrorGuard::initialize() {
   static std::once_flag once;
   std::call_once(once, [] {
      // Known before the first signal can reach the handler.
      ::sigaction(SIGBUS, nullptr, &previous);
      struct sigaction action = {};
      action.sa_sigaction = _onBusError;
      // Not deferred, since a handler behind this one may make a guarded access of its own. The
      // other stack, where a thread has one, is for handlers that count on it.
      action.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
      const bool isFunction = previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN;
      action.sa_flags |= isFunction ? previous.sa_flags & SA_RESTART : SA_RESTART;
      ::sigaction(SIGBUS, &action, nullptr);
      installed.store(true, std::memory_order_release);
   });
}

bool BusErrorGuard::initialized() noexcept {
   return installed.load(std::memory_order_acquire);
}

bool BusErrorGuard::autoInstall() noexcept {
   return installsItself.load(std::memory_order_relaxed);
}

void BusErrorGuard::autoInstallIs(bool autoInstall) noexcept {
   installsItself.store(autoInstall, std::memory_order_relaxed);
}

// The signal mask is not saved, to save the system call; the handler restores it.
//
// The second return of sigsetjmp finds the parameters and locals as they were: none of them
// changes after the first.
bool BusErrorGuard::run(const volatile void* begin, std::size_t size, Action action,
                        void* argument) noexcept {
   if (!initialized() && autoInstall()) [[unlikely]] {
      initialize();
   }
   const int error = errno;
   Recovery recovery;
   recovery.begin = reinterpret_cast<std::uintptr_t>(begin);
   recovery.end = recovery.begin + size;
   recovery.outer = innermost;
   if (sigsetjmp(recovery.environment, 0) != 0) {
      // The handler has taken this region, and those inside of it, out of force.
      errno = error;
      return false;
   }
   innermost = &recovery;
   // The compiler knows nothing of the handler: the region must neither begin before it is armed
   // nor end after it is disarmed.
   std::atomic_signal_fence(std::memory_order_seq_cst);
   action(argument);
   std::atomic_signal_fence(std::memory_order_seq_cst);
   innermost = recovery.outer;
   return true;
}

} // namespace Platform
