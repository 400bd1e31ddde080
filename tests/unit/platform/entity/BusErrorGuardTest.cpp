#include "platform/entity/BusErrorGuard.h"

#include <linux/seccomp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "tests/support/FreshProcess.h"
#include "tests/support/RegisterSpace.h"

// The guard is installed once in a process, over the handler that is there then. So every test
// whose outcome depends on that handler has a process of its own.

namespace {

using Platform::BusErrorGuard;
using TestSupport::RegisterSpace;

constexpr std::size_t page = 4096;

/// Two pages of registers, mapped. present(false) takes them away.
class Device {
public:
   Device() : _base(::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, _space.fd(), 0)) {
      EXPECT_NE(_base, MAP_FAILED);
   }
   ~Device() { ::munmap(_base, size); }
   Device(const Device&) = delete;
   Device& operator=(const Device&) = delete;

   void present(bool present) { _space.sizeIs(present ? size : 0); }
   /// Takes the second page away.
   void halved() { _space.sizeIs(page); }

   volatile std::uint32_t& word(std::size_t offset = 0) const {
      return *reinterpret_cast<volatile std::uint32_t*>(static_cast<char*>(_base) + offset);
   }
   void touch(std::size_t offset = 0) const {
      [[maybe_unused]] const std::uint32_t value = word(offset);
   }
   const void* base() const { return _base; }

   static constexpr std::size_t size = 2 * page;

private:
   RegisterSpace _space{size};
   void* const _base;
};

/// Runs a lambda in a region that is guarded for `device`.
template <typename Body>
bool guarded(const Device& device, Body&& body) {
   return BusErrorGuard::run(
      device.base(), Device::size,
      [](void* argument) noexcept { (*static_cast<std::remove_reference_t<Body>*>(argument))(); },
      &body);
}

bool guardedRead(const Device& device, std::size_t offset = 0) {
   return guarded(device, [&] { device.touch(offset); });
}

bool guardedWrite(const Device& device, std::size_t offset, std::uint32_t value) {
   return guarded(device, [&] { device.word(offset) = value; });
}

// What the handlers below were called with, and what they do. Set by one test in its own process.
struct Calls {
   volatile sig_atomic_t count = 0;
   volatile int signal = 0;
   volatile int code = 0;
   void* volatile address = nullptr;
   volatile pid_t sender = 0;
   volatile bool hadContext = false;
   volatile bool sigbusBlocked = false;
   volatile bool sigusr2Blocked = false;
   Device* volatile repairs = nullptr; // the device to bring back, so that the access succeeds
} calls;

void note(int signal) {
   calls.count = calls.count + 1;
   calls.signal = signal;
   sigset_t mask;
   ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
   calls.sigbusBlocked = ::sigismember(&mask, SIGBUS) == 1;
   calls.sigusr2Blocked = ::sigismember(&mask, SIGUSR2) == 1;
   if (calls.repairs) {
      calls.repairs->present(true);
   }
   errno = EXDEV; // a handler that does not care
}

void plainHandler(int signal) {
   note(signal);
}

void infoHandler(int signal, siginfo_t* info, void* context) {
   calls.code = info->si_code;
   if (info->si_code > 0) {
      calls.address = info->si_addr;
   } else {
      calls.sender = info->si_pid;
   }
   calls.hadContext = context != nullptr;
   note(signal);
}

void plainHandlerIs(void (*handler)(int), int flags = 0) {
   struct sigaction action = {};
   action.sa_handler = handler;
   action.sa_flags = flags;
   ASSERT_EQ(::sigaction(SIGBUS, &action, nullptr), 0);
}

void infoHandlerIs(int flags = 0) {
   struct sigaction action = {};
   action.sa_sigaction = infoHandler;
   action.sa_flags = SA_SIGINFO | flags;
   ::sigaddset(&action.sa_mask, SIGUSR2);
   ASSERT_EQ(::sigaction(SIGBUS, &action, nullptr), 0);
}

struct sigaction installedAction() {
   struct sigaction action = {};
   ::sigaction(SIGBUS, nullptr, &action);
   return action;
}

bool sameAction(const struct sigaction& a, const struct sigaction& b) {
   for (int signal = 1; signal < 32; ++signal) {
      if (::sigismember(&a.sa_mask, signal) != ::sigismember(&b.sa_mask, signal)) {
         return false;
      }
   }
   return a.sa_sigaction == b.sa_sigaction && a.sa_flags == b.sa_flags;
}

bool blocked(int signal) {
   sigset_t mask;
   ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
   return ::sigismember(&mask, signal) == 1;
}

// --- What is caught

TEST(BusErrorGuard, AGoodAccessIsMade) {
   BusErrorGuard::initialize();
   Device device;
   EXPECT_TRUE(guardedWrite(device, 8, 77));
   std::uint32_t value = 0;
   EXPECT_TRUE(guarded(device, [&] { value = device.word(8); }));
   EXPECT_EQ(value, 77u);
}

TEST(BusErrorGuard, AReadOfAVanishedDeviceEndsTheRegion) {
   BusErrorGuard::initialize();
   Device device;
   device.present(false);
   volatile bool reached = false;
   EXPECT_FALSE(guarded(device, [&] {
      device.touch();
      reached = true;
   }));
   EXPECT_FALSE(reached);
}

TEST(BusErrorGuard, AWriteToAVanishedDeviceEndsTheRegion) {
   BusErrorGuard::initialize();
   Device device;
   device.present(false);
   EXPECT_FALSE(guardedWrite(device, page, 1));
   device.present(true);
   EXPECT_EQ(device.word(page), 0u) << "nothing was written late";
   EXPECT_TRUE(guardedWrite(device, page, 1)) << "the device has come back";
}

TEST(BusErrorGuard, EveryByteOfTheRangeIsGuarded) {
   BusErrorGuard::initialize();
   Device device;
   device.present(false);
   EXPECT_FALSE(guardedRead(device, 0));
   EXPECT_FALSE(guardedRead(device, page));
   EXPECT_FALSE(guardedRead(device, Device::size - 4));
}

TEST(BusErrorGuard, CatchesAsOftenAsItTakes) {
   BusErrorGuard::initialize();
   Device device;
   device.halved();
   for (int i = 0; i < 5000; ++i) {
      ASSERT_FALSE(guardedRead(device, page));
      ASSERT_TRUE(guardedRead(device, 0));
   }
   EXPECT_FALSE(blocked(SIGBUS));
}

TEST(BusErrorGuard, LeavesTheSignalMaskAlone) {
   BusErrorGuard::initialize();
   Device device;
   device.present(false);
   sigset_t usr1;
   ::sigemptyset(&usr1);
   ::sigaddset(&usr1, SIGUSR1);
   ::pthread_sigmask(SIG_BLOCK, &usr1, nullptr);
   EXPECT_FALSE(guardedRead(device));
   EXPECT_TRUE(blocked(SIGUSR1));
   EXPECT_FALSE(blocked(SIGBUS));
   ::pthread_sigmask(SIG_UNBLOCK, &usr1, nullptr);
}

TEST(BusErrorGuard, WorksOnAnAlternateSignalStack) {
   BusErrorGuard::initialize();
   std::thread([] {
      std::vector<char> memory(1 << 16);
      stack_t stack = {};
      stack.ss_sp = memory.data();
      stack.ss_size = memory.size();
      stack_t before;
      ASSERT_EQ(::sigaltstack(&stack, &before), 0);
      Device device;
      device.present(false);
      // Were the stack not free again after each, it would overflow.
      for (int i = 0; i < 1000; ++i) {
         ASSERT_FALSE(guardedRead(device));
      }
      stack_t now;
      ::sigaltstack(&before, &now);
      EXPECT_FALSE(now.ss_flags & SS_ONSTACK);
   }).join();
}

TEST(BusErrorGuard, AThreadsVeryFirstAccessMayFault) {
   BusErrorGuard::initialize();
   Device device;
   device.present(false);
   bool good = true;
   std::thread([&] { good = guardedRead(device); }).join();
   EXPECT_FALSE(good);
}

TEST(BusErrorGuard, ThreadsDoNotDisturbEachOther) {
   BusErrorGuard::initialize();
   constexpr int threads = 4;
   constexpr int rounds = 2000;
   std::atomic<int> wrong{0};
   std::vector<std::thread> running;
   for (int t = 0; t < threads; ++t) {
      running.emplace_back([&wrong, t] {
         Device good;
         Device gone;
         gone.halved();
         for (std::uint32_t i = 0; i < rounds; ++i) {
            const std::uint32_t value = i * threads + static_cast<std::uint32_t>(t);
            std::uint32_t back = 0;
            const bool asExpected = guardedWrite(good, 4, value) && !guardedRead(gone, page) &&
                                    guarded(good, [&] { back = good.word(4); }) && back == value &&
                                    !guardedWrite(gone, page + 8, value) && guardedRead(gone, 0);
            wrong += !asExpected;
         }
      });
   }
   for (std::thread& thread : running) {
      thread.join();
   }
   EXPECT_EQ(wrong, 0);
}

TEST(BusErrorGuard, IsInForceInAForkedChild) {
   BusErrorGuard::initialize();
   Device device;
   device.present(false);
   const pid_t child = ::fork();
   if (child == 0) {
      ::_exit(guardedRead(device) ? 1 : 0);
   }
   int status = -1;
   ASSERT_EQ(::waitpid(child, &status, 0), child);
   EXPECT_EQ(status, 0);
}

// --- Nested regions

TEST(BusErrorGuard, AnInnerFaultEndsTheInnerRegionOnly) {
   BusErrorGuard::initialize();
   Device device;
   device.halved();
   bool inner = true;
   volatile bool wentOn = false;
   volatile bool reached = false;
   EXPECT_FALSE(guarded(device, [&] {
      inner = guardedRead(device, page);
      wentOn = true;
      device.touch(page); // the outer region is in force again
      reached = true;
   }));
   EXPECT_FALSE(inner);
   EXPECT_TRUE(wentOn);
   EXPECT_FALSE(reached);
}

TEST(BusErrorGuard, AfterAGoodInnerRegionTheOuterOneIsInForce) {
   BusErrorGuard::initialize();
   Device device;
   device.halved();
   bool inner = false;
   EXPECT_FALSE(guarded(device, [&] {
      inner = guardedRead(device, 0);
      device.touch(page);
   }));
   EXPECT_TRUE(inner);
}

TEST(BusErrorGuard, AFaultInTheOuterRangeAloneEndsBothRegions) {
   BusErrorGuard::initialize();
   Device outer;
   Device inner;
   outer.present(false);
   volatile bool reached = false;
   EXPECT_FALSE(guarded(outer, [&] {
      const bool good = guarded(inner, [&] {
         outer.touch();
         reached = true;
      });
      reached = good || !good;
   }));
   EXPECT_FALSE(reached);
   EXPECT_FALSE(guardedRead(outer)) << "and nothing of them is left";
}

TEST(BusErrorGuard, ASignalHandlerMayUseItWhileItsThreadIsInARegion) {
   BusErrorGuard::initialize();
   static Device* gone = nullptr;
   static volatile sig_atomic_t caught = 0;
   Device other;
   Device device;
   other.present(false);
   device.halved();
   gone = &other;
   caught = 0;
   ::signal(SIGUSR1, [](int) {
      // The thread sanitizer has handlers run with all signals blocked.
      sigset_t sigbus;
      ::sigemptyset(&sigbus);
      ::sigaddset(&sigbus, SIGBUS);
      ::pthread_sigmask(SIG_UNBLOCK, &sigbus, nullptr);
      caught = caught + !guardedRead(*gone);
   });
   volatile bool wentOn = false;
   EXPECT_FALSE(guarded(device, [&] {
      ::raise(SIGUSR1);
      wentOn = true;
      device.touch(page);
   }));
   ::signal(SIGUSR1, SIG_DFL);
   EXPECT_EQ(caught, 1);
   EXPECT_TRUE(wentOn);
}

// --- errno

TEST(BusErrorGuard, KeepsErrno) {
   BusErrorGuard::initialize();
   Device device;
   device.halved();
   errno = EBADMSG;
   EXPECT_TRUE(guardedRead(device, 0));
   EXPECT_EQ(errno, EBADMSG);
   EXPECT_FALSE(guardedRead(device, page));
   EXPECT_EQ(errno, EBADMSG);
   EXPECT_FALSE(guarded(device, [&] {
      errno = ENOTTY;
      device.touch(page);
   }));
   EXPECT_EQ(errno, EBADMSG) << "as it was before the region";
}

// --- Installing

void initialisesOnce() {
   EXPECT_FALSE(BusErrorGuard::initialized());
   const struct sigaction before = installedAction();
   BusErrorGuard::initialize();
   EXPECT_TRUE(BusErrorGuard::initialized());
   const struct sigaction first = installedAction();
   EXPECT_NE(first.sa_sigaction, before.sa_sigaction);
   EXPECT_TRUE(first.sa_flags & SA_SIGINFO);
   EXPECT_TRUE(first.sa_flags & SA_NODEFER);
   EXPECT_TRUE(first.sa_flags & SA_ONSTACK);
   EXPECT_FALSE(static_cast<unsigned>(first.sa_flags) & SA_RESETHAND);
   BusErrorGuard::initialize();
   EXPECT_TRUE(sameAction(installedAction(), first));

   plainHandlerIs(plainHandler);
   const struct sigaction later = installedAction();
   BusErrorGuard::initialize();
   Device device;
   EXPECT_TRUE(guardedRead(device));
   EXPECT_TRUE(sameAction(installedAction(), later)) << "what the program installed later stays";
}

TEST(BusErrorGuardDeathTest, IsInstalledOnce) {
   EXPECT_IN_A_FRESH_PROCESS(initialisesOnce);
}

void initialisesOnManyThreads() {
   infoHandlerIs();
   std::atomic<bool> go{false};
   std::atomic<int> good{0};
   std::vector<std::thread> threads;
   for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&] {
         Device device;
         device.present(false);
         while (!go) {
            std::this_thread::yield();
         }
         BusErrorGuard::initialize();
         good += !guardedRead(device);
      });
   }
   go = true;
   for (std::thread& thread : threads) {
      thread.join();
   }
   EXPECT_EQ(good, 8);
   EXPECT_EQ(calls.count, 0);
   ::raise(SIGBUS);
   EXPECT_EQ(calls.count, 1) << "and did not take itself for the handler that was there before";
}

TEST(BusErrorGuardDeathTest, MayBeInstalledByManyThreadsAtOnce) {
   EXPECT_IN_A_FRESH_PROCESS(initialisesOnManyThreads);
}

void autoInstalls() {
   EXPECT_TRUE(BusErrorGuard::autoInstall());
   const struct sigaction before = installedAction();
   BusErrorGuard::autoInstallIs(false);
   EXPECT_FALSE(BusErrorGuard::autoInstall());
   Device device;
   EXPECT_TRUE(guardedRead(device));
   EXPECT_FALSE(BusErrorGuard::initialized());
   EXPECT_TRUE(sameAction(installedAction(), before));
   BusErrorGuard::autoInstallIs(true);
   EXPECT_FALSE(BusErrorGuard::initialized()) << "the switch alone installs nothing";
   EXPECT_TRUE(guardedRead(device));
   EXPECT_TRUE(BusErrorGuard::initialized());
   BusErrorGuard::autoInstallIs(false);
   device.present(false);
   EXPECT_FALSE(guardedRead(device)) << "nor does it remove anything";
}

TEST(BusErrorGuardDeathTest, InstallsItselfUnlessToldNotTo) {
   EXPECT_IN_A_FRESH_PROCESS(autoInstalls);
}

TEST(BusErrorGuardDeathTest, IsWithoutEffectUntilItIsInstalled) {
   EXPECT_KILLED_BY(SIGBUS, [] {
      BusErrorGuard::autoInstallIs(false);
      Device device;
      EXPECT_TRUE(guardedWrite(device, 0, 1));
      device.present(false);
      static_cast<void>(guardedRead(device));
   });
}

// --- What is not caught

TEST(BusErrorGuardDeathTest, AFaultOutsideOfAnyRegionTakesTheDefaultAction) {
   EXPECT_KILLED_BY(SIGBUS, [] {
      BusErrorGuard::initialize();
      Device device;
      device.present(false);
      device.touch();
   });
}

TEST(BusErrorGuardDeathTest, AFaultAfterARegionThatFaultedTakesTheDefaultAction) {
   EXPECT_KILLED_BY(SIGBUS, [] {
      BusErrorGuard::initialize();
      Device device;
      device.present(false);
      static_cast<void>(guardedRead(device));
      device.touch();
   });
}

TEST(BusErrorGuardDeathTest, AFaultAfterNestedRegionsThatBothEndedTakesTheDefaultAction) {
   EXPECT_KILLED_BY(SIGBUS, [] {
      BusErrorGuard::initialize();
      Device outer;
      Device inner;
      outer.present(false);
      static_cast<void>(
         guarded(outer, [&] { static_cast<void>(guarded(inner, [&] { outer.touch(); })); }));
      outer.touch();
   });
}

TEST(BusErrorGuardDeathTest, AForeignFaultInARegionTakesTheDefaultAction) {
   EXPECT_KILLED_BY(SIGBUS, [] {
      BusErrorGuard::initialize();
      Device device;
      Device foreign;
      foreign.present(false);
      static_cast<void>(guarded(device, [&] { foreign.touch(); }));
   });
}

TEST(BusErrorGuardDeathTest, AnotherThreadsRegionDoesNotGuardThisOne) {
   EXPECT_KILLED_BY(SIGBUS, [] {
      BusErrorGuard::initialize();
      Device device;
      device.present(false);
      static_cast<void>(guarded(device, [&] { std::thread([&] { device.touch(); }).join(); }));
   });
}

TEST(BusErrorGuardDeathTest, ASentSignalTakesTheDefaultAction) {
   EXPECT_KILLED_BY(SIGBUS, [] {
      BusErrorGuard::initialize();
      ::kill(::getpid(), SIGBUS);
   });
   EXPECT_KILLED_BY(SIGBUS, [] {
      BusErrorGuard::initialize();
      Device device;
      static_cast<void>(guarded(device, [] { ::raise(SIGBUS); }));
   });
}

TEST(BusErrorGuardDeathTest, AForeignFaultGoesToTheHandlerThatWasThere) {
   EXPECT_IN_A_FRESH_PROCESS([] {
      infoHandlerIs();
      BusErrorGuard::initialize();
      Device device;
      device.present(false);
      calls.repairs = &device;
      errno = EBADMSG;
      EXPECT_EQ(device.word(page + 12), 0u) << "the handler has repaired it";
      EXPECT_EQ(errno, EBADMSG);
      EXPECT_EQ(calls.count, 1);
      EXPECT_EQ(calls.signal, SIGBUS);
      EXPECT_EQ(calls.code, BUS_ADRERR);
      EXPECT_EQ(calls.address, const_cast<std::uint32_t*>(&device.word(page + 12)));
      EXPECT_TRUE(calls.hadContext);
   });
}

TEST(BusErrorGuardDeathTest, AForeignFaultInARegionGoesToTheHandlerThatWasThere) {
   EXPECT_IN_A_FRESH_PROCESS([] {
      infoHandlerIs();
      BusErrorGuard::initialize();
      Device device;
      Device foreign;
      foreign.present(false);
      calls.repairs = &foreign;
      volatile bool reached = false;
      EXPECT_TRUE(guarded(device, [&] {
         foreign.word() = 5;
         reached = true;
      }));
      EXPECT_TRUE(reached);
      EXPECT_EQ(foreign.word(), 5u);
      EXPECT_EQ(calls.count, 1);
      device.present(false);
      EXPECT_FALSE(guardedRead(device));
      EXPECT_EQ(calls.count, 1) << "what is guarded does not reach it";
   });
}

TEST(BusErrorGuardDeathTest, APlainHandlerIsCalledToo) {
   EXPECT_IN_A_FRESH_PROCESS([] {
      plainHandlerIs(plainHandler);
      BusErrorGuard::initialize();
      Device device;
      device.present(false);
      calls.repairs = &device;
      EXPECT_EQ(device.word(), 0u);
      EXPECT_EQ(calls.count, 1);
      EXPECT_EQ(calls.signal, SIGBUS);
      ::raise(SIGBUS);
      EXPECT_EQ(calls.count, 2);
   });
}

TEST(BusErrorGuardDeathTest, ASentSignalGoesToTheHandlerThatWasThereEvenInARegion) {
   EXPECT_IN_A_FRESH_PROCESS([] {
      infoHandlerIs();
      BusErrorGuard::initialize();
      Device device;
      volatile bool reached = false;
      EXPECT_TRUE(guarded(device, [&] {
         ::kill(::getpid(), SIGBUS);
         reached = true;
      }));
      EXPECT_TRUE(reached);
      EXPECT_EQ(calls.count, 1);
      EXPECT_LE(calls.code, 0);
      EXPECT_EQ(calls.sender, ::getpid());
   });
}

// A report of bad memory that nobody has touched yet says nothing about the access under way.
TEST(BusErrorGuardDeathTest, AMemoryErrorFoundInPassingIsNotTakenForAFault) {
   EXPECT_IN_A_FRESH_PROCESS([] {
      infoHandlerIs();
      BusErrorGuard::initialize();
      Device device;
      siginfo_t info = {};
      info.si_signo = SIGBUS;
      info.si_code = BUS_MCEERR_AO;
      info.si_addr = const_cast<void*>(device.base());
      volatile bool sent = false;
      EXPECT_TRUE(guarded(device, [&] {
         sent = ::syscall(SYS_rt_tgsigqueueinfo, ::getpid(), ::gettid(), SIGBUS, &info) == 0;
      }));
      EXPECT_TRUE(sent);
      EXPECT_EQ(calls.count, 1);
      EXPECT_EQ(calls.code, BUS_MCEERR_AO);
   });
}

TEST(BusErrorGuardDeathTest, TheHandlerThatWasThereRunsWithItsOwnMask) {
   EXPECT_IN_A_FRESH_PROCESS([] {
      infoHandlerIs();
      BusErrorGuard::initialize();
      ::raise(SIGBUS);
      EXPECT_TRUE(calls.sigusr2Blocked);
      EXPECT_TRUE(calls.sigbusBlocked);
      EXPECT_FALSE(blocked(SIGUSR2));
      EXPECT_FALSE(blocked(SIGBUS));
   });
   EXPECT_IN_A_FRESH_PROCESS([] {
      infoHandlerIs(SA_NODEFER);
      BusErrorGuard::initialize();
      ::raise(SIGBUS);
      EXPECT_TRUE(calls.sigusr2Blocked);
      EXPECT_FALSE(calls.sigbusBlocked);
   });
}

TEST(BusErrorGuardDeathTest, AHandlerForOneCallGetsOneCall) {
   EXPECT_IN_A_FRESH_PROCESS([] {
      plainHandlerIs(plainHandler, static_cast<int>(SA_RESETHAND));
      BusErrorGuard::initialize();
      Device device;
      device.present(false);
      EXPECT_FALSE(guardedRead(device)) << "no call of it";
      ::raise(SIGBUS);
      EXPECT_EQ(calls.count, 1);
      EXPECT_FALSE(guardedRead(device)) << "the guard stays in force";
   });
   EXPECT_KILLED_BY(SIGBUS, [] {
      plainHandlerIs(plainHandler, static_cast<int>(SA_RESETHAND));
      BusErrorGuard::initialize();
      ::raise(SIGBUS);
      ::raise(SIGBUS);
   });
}

TEST(BusErrorGuardDeathTest, SystemCallsAreRestartedIfTheHandlerThatWasThereWantsIt) {
   EXPECT_IN_A_FRESH_PROCESS([] {
      plainHandlerIs(plainHandler, SA_RESTART);
      BusErrorGuard::initialize();
      EXPECT_TRUE(installedAction().sa_flags & SA_RESTART);
   });
   EXPECT_IN_A_FRESH_PROCESS([] {
      plainHandlerIs(plainHandler);
      BusErrorGuard::initialize();
      EXPECT_FALSE(installedAction().sa_flags & SA_RESTART);
   });
   EXPECT_IN_A_FRESH_PROCESS([] {
      ::signal(SIGBUS, SIG_IGN);
      BusErrorGuard::initialize();
      EXPECT_TRUE(installedAction().sa_flags & SA_RESTART);
   });
}

TEST(BusErrorGuardDeathTest, AnIgnoredSignalThatIsSentIsStillIgnored) {
   EXPECT_IN_A_FRESH_PROCESS([] {
      ::signal(SIGBUS, SIG_IGN);
      BusErrorGuard::initialize();
      ::raise(SIGBUS);
      ::kill(::getpid(), SIGBUS);
      Device device;
      EXPECT_TRUE(guarded(device, [] { ::raise(SIGBUS); }));
      device.present(false);
      EXPECT_FALSE(guardedRead(device));
   });
}

// As without the guard: the kernel does not let a process ignore its own faults.
TEST(BusErrorGuardDeathTest, AFaultIsFatalEvenIfTheSignalWasIgnored) {
   EXPECT_KILLED_BY(SIGBUS, [] {
      ::signal(SIGBUS, SIG_IGN);
      BusErrorGuard::initialize();
      Device device;
      device.present(false);
      device.touch();
   });
}

// --- The path of an access

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// In the kernel's strict mode every system call but read, write, exit and the return from a signal
// handler is answered with SIGKILL.
TEST(BusErrorGuardDeathTest, ARegionMakesNoSystemCall) {
   EXPECT_IN_A_FRESH_PROCESS([] {
      BusErrorGuard::initialize();
      Device device;
      if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT) != 0) {
         return; // a kernel without it
      }
      bool good = true;
      for (int i = 0; i < 100; ++i) {
         good = guardedWrite(device, 0, 7) && guardedRead(device, page) && good;
      }
      ::syscall(SYS_exit, good ? 0 : 1);
   });
}
#endif

TEST(BusErrorGuard, AccessesLeaveTheInstalledHandlerAlone) {
   BusErrorGuard::initialize();
   const struct sigaction before = installedAction();
   Device device;
   device.halved();
   EXPECT_TRUE(guardedRead(device, 0));
   EXPECT_FALSE(guardedRead(device, page));
   EXPECT_TRUE(sameAction(installedAction(), before));
}

} // namespace
