#include "TarnRegFile/Utils.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <poll.h>
#include <pthread.h>
#include <sstream>
#include <stdexcept>
#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

using namespace TarnRegFile::Utils;
using testing::ElementsAre;

namespace {

std::atomic<int> flockCalls{0};
std::atomic<int> unlockCalls{0};
std::atomic<int> flockRefusals{0};

} // namespace

// The library's own calls arrive here on their way to the kernel, so that a test can tell how
// often it was asked, and wait until a lock has really been refused.
extern "C" __attribute__((visibility("default"))) int flock(int fd, int operation) noexcept {
   const int result = static_cast<int>(::syscall(SYS_flock, fd, operation));
   const int error = errno;
   ++flockCalls;
   if ((operation & LOCK_UN) != 0) {
      ++unlockCalls;
   }
   if (result < 0 && error == EWOULDBLOCK) {
      ++flockRefusals;
   }
   errno = error;
   return result;
}

namespace {

bool isOpen(int fd) {
   return ::fcntl(fd, F_GETFD) >= 0;
}

int someDescriptor() {
   const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
   EXPECT_GE(fd, 0);
   return fd;
}

// A file that exists only while the test runs; every open() gives a description of its own.
class LockFile {
public:
   LockFile() {
      std::string pattern = testing::TempDir() + "tarn-utils-XXXXXX";
      const int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
      EXPECT_GE(fd, 0);
      ::close(fd);
      _path = pattern;
   }
   ~LockFile() { ::unlink(_path.c_str()); }
   LockFile(const LockFile&) = delete;
   LockFile& operator=(const LockFile&) = delete;

   UnixFdRes open() const {
      const int fd = ::open(_path.c_str(), O_RDWR | O_CLOEXEC);
      EXPECT_GE(fd, 0);
      return UnixFdRes(fd);
   }

   // Whether somebody holds a lock that excludes `mode`.
   bool refuses(int mode) const {
      const UnixFdRes probe = open();
      return ::syscall(SYS_flock, probe.fd(), mode | LOCK_NB) < 0 && errno == EWOULDBLOCK;
   }

private:
   std::string _path;
};

std::string flockFailure(int fd, int mode) {
   try {
      UnixFlockRes lock(fd, mode);
   } catch (const std::runtime_error& e) {
      return e.what();
   }
   return "(no error)";
}

// Lets system calls be interrupted for the length of a test: a handler without SA_RESTART.
class Interrupts {
public:
   Interrupts() {
      struct sigaction action = {};
      action.sa_handler = [](int) {};
      EXPECT_EQ(0, ::sigaction(SIGUSR1, &action, &_before));
   }
   ~Interrupts() { ::sigaction(SIGUSR1, &_before, nullptr); }
   Interrupts(const Interrupts&) = delete;
   Interrupts& operator=(const Interrupts&) = delete;

   // One signal may come before the call has begun to block, so signal until it has taken effect.
   template <typename Done>
   void interruptUntil(std::thread& thread, Done done) {
      while (!done()) {
         ::pthread_kill(thread.native_handle(), SIGUSR1);
         std::this_thread::yield();
      }
   }

private:
   struct sigaction _before = {};
};

std::vector<std::string> lines(const std::string& bytes) {
   std::istringstream stream(bytes);
   std::string buffer;
   std::string_view line;
   std::vector<std::string> result;
   while (getline_lea(stream, buffer, line)) {
      result.emplace_back(line);
   }
   return result;
}

std::vector<std::string> tokens(std::string_view text, char delim = ',') {
   std::vector<std::string> result;
   std::size_t pos = 0;
   std::string_view token;
   while (tokenize(text, pos, token, delim)) {
      result.emplace_back(token);
   }
   return result;
}

struct Conversion {
   std::uint32_t value;
   bool ok;
   bool operator==(const Conversion&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Conversion& c) {
   return out << c.value << (c.ok ? " ok" : " not ok");
}

Conversion convert(const char* text, bool okBefore = false) {
   bool ok = okBefore;
   const std::uint32_t value = strtouint32_checked(text, ok);
   return {value, ok};
}

constexpr Conversion notANumber{0, false};

// ---------------------------------------------------------------------------------------------

static_assert(!std::is_copy_constructible_v<UnixFdRes>);
static_assert(!std::is_copy_assignable_v<UnixFdRes>);
static_assert(std::is_nothrow_move_constructible_v<UnixFdRes>);
static_assert(std::is_nothrow_move_assignable_v<UnixFdRes>);
static_assert(sizeof(UnixFdRes) == sizeof(std::int32_t));
static_assert(!std::is_copy_constructible_v<UnixFlockRes>);
static_assert(!std::is_copy_assignable_v<UnixFlockRes>);
static_assert(!std::is_move_constructible_v<UnixFlockRes>);
static_assert(!std::is_move_assignable_v<UnixFlockRes>);

TEST(UnixFdRes, HoldsTheDescriptorItWasGivenAndClosesItWhenDestroyed) {
   const int fd = someDescriptor();
   {
      const UnixFdRes owner(fd);
      EXPECT_EQ(fd, owner.fd());
      EXPECT_TRUE(isOpen(fd));
   }
   EXPECT_FALSE(isOpen(fd));
}

TEST(UnixFdRes, DescriptorZeroIsADescriptorLikeAnyOther) {
   const int saved = ::dup(0);
   const int fd = someDescriptor();
   ASSERT_EQ(0, ::dup2(fd, 0));
   { const UnixFdRes owner(0); }
   EXPECT_FALSE(isOpen(0));
   ::close(fd);
   if (saved >= 0) {
      ::dup2(saved, 0);
      ::close(saved);
   }
}

TEST(UnixFdRes, TakesAnyNegativeValueAsNoneAndKeepsIt) {
   const UnixFdRes none(-1);
   const UnixFdRes low(std::numeric_limits<int>::min());
   EXPECT_EQ(-1, none.fd());
   EXPECT_EQ(std::numeric_limits<int>::min(), low.fd());
}

TEST(UnixFdRes, AFailingCloseOnDestructionIsIgnored) {
   const int fd = someDescriptor();
   ::close(fd);
   EXPECT_NO_THROW({ const UnixFdRes owner(fd); });
}

TEST(UnixFdRes, ReleaseGivesUpTheDescriptorWithoutClosingItEvenOnAConstOwner) {
   const int fd = someDescriptor();
   {
      const UnixFdRes owner(fd);
      owner.release();
      EXPECT_EQ(-1, owner.fd());
      owner.release();
      EXPECT_EQ(-1, owner.fd());
   }
   EXPECT_TRUE(isOpen(fd));
   ::close(fd);
}

TEST(UnixFdRes, MoveConstructionTakesTheDescriptorAndLeavesNone) {
   const int fd = someDescriptor();
   {
      UnixFdRes first(fd);
      UnixFdRes second(std::move(first));
      EXPECT_EQ(-1, first.fd());
      EXPECT_EQ(fd, second.fd());
      EXPECT_TRUE(isOpen(fd));
      second.release();
   }
   EXPECT_TRUE(isOpen(fd));
   ::close(fd);
}

TEST(UnixFdRes, AMovedFromOwnerClosesNothingWhenDestroyed) {
   const int fd = someDescriptor();
   UnixFdRes keeper(-1);
   {
      UnixFdRes first(fd);
      keeper = std::move(first);
      EXPECT_EQ(-1, first.fd());
   }
   EXPECT_EQ(fd, keeper.fd());
   EXPECT_TRUE(isOpen(fd));
}

TEST(UnixFdRes, MoveAssignmentClosesWhatItHeldAndReturnsTheObject) {
   const int held = someDescriptor();
   const int taken = someDescriptor();
   UnixFdRes owner(held);
   UnixFdRes other(taken);
   UnixFdRes& result = (owner = std::move(other));
   EXPECT_EQ(&owner, &result);
   EXPECT_FALSE(isOpen(held));
   EXPECT_TRUE(isOpen(taken));
   EXPECT_EQ(taken, owner.fd());
   EXPECT_EQ(-1, other.fd());
}

TEST(UnixFdRes, MoveAssignmentFromAnEmptyOwnerClosesWhatItHeld) {
   const int held = someDescriptor();
   UnixFdRes owner(held);
   owner = UnixFdRes(-1);
   EXPECT_FALSE(isOpen(held));
   EXPECT_EQ(-1, owner.fd());
}

TEST(UnixFdRes, MoveAssignmentIntoAnEmptyOwnerClosesNothing) {
   const int fd = someDescriptor();
   UnixFdRes owner(-7);
   owner = UnixFdRes(fd);
   EXPECT_EQ(fd, owner.fd());
   EXPECT_TRUE(isOpen(fd));
}

TEST(UnixFdRes, MovedIntoItselfItClosesItsDescriptorAndHoldsNone) {
   const int fd = someDescriptor();
   UnixFdRes owner(fd);
   UnixFdRes& sameOwner = owner;
   owner = std::move(sameOwner);
   EXPECT_EQ(-1, owner.fd());
   EXPECT_FALSE(isOpen(fd));
}

// ---------------------------------------------------------------------------------------------

TEST(UnixFlockRes, RefusesANegativeDescriptorBeforeLookingAtTheMode) {
   EXPECT_EQ("Invalid fd", flockFailure(-1, LOCK_EX));
   EXPECT_EQ("Invalid fd", flockFailure(-1, 0));
   EXPECT_EQ("Invalid fd", flockFailure(std::numeric_limits<int>::min(), LOCK_UN));
}

TEST(UnixFlockRes, RefusesAModeWithNeitherSharedNorExclusive) {
   const LockFile file;
   const UnixFdRes fd = file.open();
   EXPECT_EQ("Unsupported lock mode", flockFailure(fd.fd(), 0));
   EXPECT_EQ("Unsupported lock mode", flockFailure(fd.fd(), LOCK_UN));
   EXPECT_EQ("Unsupported lock mode", flockFailure(fd.fd(), LOCK_NB));
   EXPECT_EQ("Unsupported lock mode", flockFailure(fd.fd(), LOCK_NB | LOCK_UN));
   EXPECT_EQ("Unsupported lock mode", flockFailure(fd.fd(), 16));
}

TEST(UnixFlockRes, RefusesToUnlock) {
   const LockFile file;
   const UnixFdRes fd = file.open();
   EXPECT_EQ("Cannot unlock flock on constructor", flockFailure(fd.fd(), LOCK_EX | LOCK_UN));
   EXPECT_EQ("Cannot unlock flock on constructor", flockFailure(fd.fd(), LOCK_SH | LOCK_UN));
   EXPECT_EQ("Cannot unlock flock on constructor",
             flockFailure(fd.fd(), LOCK_SH | LOCK_EX | LOCK_NB | LOCK_UN));
}

TEST(UnixFlockRes, ARefusedRequestNeverReachesTheSystem) {
   const LockFile file;
   const UnixFdRes fd = file.open();
   const int before = flockCalls;
   flockFailure(-1, LOCK_EX);
   flockFailure(fd.fd(), 0);
   flockFailure(fd.fd(), LOCK_EX | LOCK_UN);
   EXPECT_EQ(before, flockCalls);
}

TEST(UnixFlockRes, ReportsTheSystemsErrorText) {
   const int fd = someDescriptor();
   ::close(fd);
   EXPECT_EQ("flock error: Bad file descriptor", flockFailure(fd, LOCK_EX));
}

TEST(UnixFlockRes, SharedAndExclusiveTogetherAreLeftToTheSystemToRefuse) {
   const LockFile file;
   const UnixFdRes fd = file.open();
   EXPECT_EQ("flock error: Invalid argument", flockFailure(fd.fd(), LOCK_SH | LOCK_EX));
}

TEST(UnixFlockRes, HoldsAndUnlocksNothingWhenTheConstructorThrows) {
   const LockFile file;
   const UnixFdRes fd = file.open();
   const UnixFlockRes held(fd.fd(), LOCK_EX);
   const int before = unlockCalls;
   // The same description holds the lock; an unlock by one of these would take it away.
   flockFailure(fd.fd(), 0);
   flockFailure(fd.fd(), LOCK_EX | LOCK_UN);
   flockFailure(fd.fd(), LOCK_SH | LOCK_EX);
   EXPECT_EQ(before, unlockCalls);
   EXPECT_TRUE(file.refuses(LOCK_SH));
}

TEST(UnixFlockRes, AnExclusiveLockExcludesOtherDescriptionsUntilDestroyed) {
   const LockFile file;
   const UnixFdRes fd = file.open();
   {
      const UnixFlockRes lock(fd.fd(), LOCK_EX);
      EXPECT_TRUE(file.refuses(LOCK_SH));
      EXPECT_TRUE(file.refuses(LOCK_EX));
   }
   EXPECT_FALSE(file.refuses(LOCK_EX));
}

TEST(UnixFlockRes, SharedLocksGoTogetherAndExcludeAnExclusiveOne) {
   const LockFile file;
   const UnixFdRes one = file.open();
   const UnixFdRes two = file.open();
   const UnixFlockRes first(one.fd(), LOCK_SH);
   {
      const UnixFlockRes second(two.fd(), LOCK_SH);
      EXPECT_TRUE(file.refuses(LOCK_EX));
   }
   EXPECT_FALSE(file.refuses(LOCK_SH));
   EXPECT_TRUE(file.refuses(LOCK_EX));
}

TEST(UnixFlockRes, UnlocksOnceAndLeavesTheDescriptorOpen) {
   const LockFile file;
   const UnixFdRes fd = file.open();
   const int calls = flockCalls;
   const int unlocks = unlockCalls;
   { const UnixFlockRes lock(fd.fd(), LOCK_EX | LOCK_NB); }
   EXPECT_EQ(calls + 2, flockCalls);
   EXPECT_EQ(unlocks + 1, unlockCalls);
   EXPECT_TRUE(isOpen(fd.fd()));
}

TEST(UnixFlockRes, AFailingUnlockIsIgnored) {
   const LockFile file;
   UnixFdRes fd = file.open();
   EXPECT_NO_THROW({
      const UnixFlockRes lock(fd.fd(), LOCK_EX);
      fd = UnixFdRes(-1);
   });
}

TEST(UnixFlockRes, ANonBlockingRequestKeepsPollingUntilTheOtherDescriptionUnlocks) {
   const LockFile file;
   const UnixFdRes holder = file.open();
   const UnixFdRes waiter = file.open();
   std::atomic<bool> released{false};
   bool releasedWhenTaken = false;
   const int refusals = flockRefusals;
   std::thread thread;
   {
      const UnixFlockRes held(holder.fd(), LOCK_EX);
      thread = std::thread([&] {
         const UnixFlockRes lock(waiter.fd(), LOCK_EX | LOCK_NB);
         releasedWhenTaken = released;
         EXPECT_TRUE(file.refuses(LOCK_SH));
      });
      while (flockRefusals < refusals + 5) {
         std::this_thread::yield();
      }
      released = true;
   }
   thread.join();
   EXPECT_TRUE(releasedWhenTaken);
}

TEST(UnixFlockRes, ABlockingRequestSurvivesInterruptionsAndGetsTheLock) {
   const LockFile file;
   const UnixFdRes holder = file.open();
   const UnixFdRes waiter = file.open();
   Interrupts interrupts;
   std::atomic<bool> taken{false};
   std::thread thread;
   const int calls = flockCalls;
   {
      const UnixFlockRes held(holder.fd(), LOCK_EX);
      thread = std::thread([&] {
         const UnixFlockRes lock(waiter.fd(), LOCK_EX);
         taken = true;
      });
      // A call is counted when it comes back: the holder's own, then one for each interruption.
      interrupts.interruptUntil(thread, [&] { return flockCalls >= calls + 4; });
      EXPECT_FALSE(taken);
   }
   thread.join();
   EXPECT_TRUE(taken);
}

TEST(UnixFlockRes, ExcludesOtherProcesses) {
   const LockFile file;
   int ready[2];
   int finish[2];
   ASSERT_EQ(0, ::pipe2(ready, O_CLOEXEC));
   ASSERT_EQ(0, ::pipe2(finish, O_CLOEXEC));
   const pid_t child = ::fork();
   ASSERT_GE(child, 0);
   if (child == 0) {
      char byte = 'r';
      ::close(finish[1]);
      const UnixFdRes fd = file.open();
      {
         const UnixFlockRes lock(fd.fd(), LOCK_EX);
         if (::write(ready[1], &byte, 1) != 1 || ::read(finish[0], &byte, 1) != 1) {
            ::_exit(1);
         }
      }
      // Unlocked although the descriptor is still open.
      if (::write(ready[1], &byte, 1) != 1 || ::read(finish[0], &byte, 1) != 0) {
         ::_exit(2);
      }
      ::_exit(0);
   }
   char byte = 0;
   ASSERT_EQ(1, ::read(ready[0], &byte, 1));
   EXPECT_TRUE(file.refuses(LOCK_SH));
   ASSERT_EQ(1, ::write(finish[1], &byte, 1));
   {
      const UnixFdRes fd = file.open();
      const UnixFlockRes lock(fd.fd(), LOCK_EX | LOCK_NB);
      ASSERT_EQ(1, ::read(ready[0], &byte, 1));
   }
   ::close(finish[1]);
   int status = -1;
   EXPECT_EQ(child, ::waitpid(child, &status, 0));
   EXPECT_EQ(0, status);
   ::close(ready[0]);
   ::close(ready[1]);
   ::close(finish[0]);
}

TEST(UnixFlockRes, ALockOfAProcessThatDiedIsFree) {
   const LockFile file;
   const pid_t child = ::fork();
   ASSERT_GE(child, 0);
   if (child == 0) {
      const UnixFdRes fd = file.open();
      const UnixFlockRes lock(fd.fd(), LOCK_EX);
      ::_exit(0);
   }
   int status = -1;
   EXPECT_EQ(child, ::waitpid(child, &status, 0));
   EXPECT_EQ(0, status);
   EXPECT_FALSE(file.refuses(LOCK_EX));
}

// ---------------------------------------------------------------------------------------------

TEST(SyscallAutoRetry, ReturnsTheFirstResultThatIsNotNegative) {
   for (const long result : {0L, 1L, std::numeric_limits<long>::max()}) {
      int calls = 0;
      errno = EINTR; // of an earlier call; says nothing about this one
      EXPECT_EQ(result, syscallAutoRetry(
                           [&] {
                              ++calls;
                              return result;
                           },
                           true, true));
      EXPECT_EQ(1, calls);
   }
}

// Fails `failures` times with `error`, then gives 42.
struct Failing {
   int error;
   int failures;
   long failure = -1;
   int calls = 0;

   long run(bool retryOnEagain, bool retryOnEintr) {
      return syscallAutoRetry(
         [this]() -> long {
            if (++calls <= failures) {
               errno = error;
               return failure;
            }
            return 42;
         },
         retryOnEagain, retryOnEintr);
   }
};

TEST(SyscallAutoRetry, RepeatsAnInterruptedCallIfAskedTo) {
   Failing call{EINTR, 1000};
   EXPECT_EQ(42, call.run(false, true));
   EXPECT_EQ(1001, call.calls);
}

TEST(SyscallAutoRetry, ReturnsTheFirstInterruptionUnchangedIfNotAskedToRepeat) {
   Failing call{EINTR, 1, -7};
   EXPECT_EQ(-7, call.run(true, false));
   EXPECT_EQ(EINTR, errno);
   EXPECT_EQ(1, call.calls);
}

TEST(SyscallAutoRetry, RepeatsATemporaryFailureIfAskedToAtMostOnceAMillisecond) {
   Failing call{EAGAIN, 5};
   const auto start = std::chrono::steady_clock::now();
   EXPECT_EQ(42, call.run(true, false));
   EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(5));
   EXPECT_EQ(6, call.calls);
}

TEST(SyscallAutoRetry, ReturnsTheFirstTemporaryFailureUnchangedIfNotAskedToRepeat) {
   Failing call{EAGAIN, 1, -9};
   EXPECT_EQ(-9, call.run(false, true));
   EXPECT_EQ(EAGAIN, errno);
   EXPECT_EQ(1, call.calls);
}

TEST(SyscallAutoRetry, ReturnsAnyOtherFailureAtOnceWithItsErrno) {
   for (const int error : {EIO, EBADF, EINVAL, ENXIO, EDEADLK}) {
      Failing call{error, 1, -3};
      EXPECT_EQ(-3, call.run(true, true));
      EXPECT_EQ(error, errno);
      EXPECT_EQ(1, call.calls);
   }
}

TEST(SyscallAutoRetry, LooksAtEachFailureAnew) {
   const std::vector<int> errors{EINTR, EAGAIN, EINTR, EAGAIN, ENODEV};
   std::size_t calls = 0;
   EXPECT_EQ(-1, syscallAutoRetry(
                    [&]() -> long {
                       errno = errors.at(calls++);
                       return -1;
                    },
                    true, true));
   EXPECT_EQ(ENODEV, errno);
   EXPECT_EQ(errors.size(), calls);
}

TEST(SyscallAutoRetry, AnEmptyCallableRaisesTheStandardError) {
   EXPECT_THROW(syscallAutoRetry({}, true, true), std::bad_function_call);
   EXPECT_THROW(syscallAutoRetry(nullptr, false, false), std::bad_function_call);
}

TEST(SyscallAutoRetry, LetsWhatTheCallThrowsThrough) {
   EXPECT_THROW(syscallAutoRetry([]() -> long { throw std::logic_error("no"); }, true, true),
                std::logic_error);
}

TEST(SyscallAutoRetry, ARealSignalEndsABlockingReadWhenInterruptionsAreNotRepeated) {
   int fds[2];
   ASSERT_EQ(0, ::pipe2(fds, O_CLOEXEC));
   const UnixFdRes reader(fds[0]);
   const UnixFdRes writer(fds[1]);
   Interrupts interrupts;
   std::atomic<bool> done{false};
   long result = 0;
   int error = 0;
   std::thread thread([&] {
      char byte = 0;
      result = syscallAutoRetry([&] { return ::read(reader.fd(), &byte, 1); }, true, false);
      error = errno;
      done = true;
   });
   interrupts.interruptUntil(thread, [&] { return done.load(); });
   thread.join();
   EXPECT_EQ(-1, result);
   EXPECT_EQ(EINTR, error);
}

TEST(SyscallAutoRetry, ABlockingReadSurvivesRealSignals) {
   int fds[2];
   ASSERT_EQ(0, ::pipe2(fds, O_CLOEXEC));
   const UnixFdRes reader(fds[0]);
   const UnixFdRes writer(fds[1]);
   Interrupts interrupts;
   std::atomic<int> calls{0};
   long result = 0;
   char byte = 0;
   std::thread thread([&] {
      result = syscallAutoRetry(
         [&] {
            ++calls;
            return ::read(reader.fd(), &byte, 1);
         },
         false, true);
   });
   interrupts.interruptUntil(thread, [&] { return calls >= 4; });
   EXPECT_EQ(1, ::write(writer.fd(), "x", 1));
   thread.join();
   EXPECT_EQ(1, result);
   EXPECT_EQ('x', byte);
}

TEST(SyscallAutoRetry, PollsANonBlockingDescriptorUntilItHasSomething) {
   int fds[2];
   ASSERT_EQ(0, ::pipe2(fds, O_CLOEXEC | O_NONBLOCK));
   const UnixFdRes reader(fds[0]);
   const UnixFdRes writer(fds[1]);
   int calls = 0;
   char byte = 0;
   EXPECT_EQ(1, syscallAutoRetry(
                   [&] {
                      if (++calls == 3) {
                         EXPECT_EQ(1, ::write(writer.fd(), "y", 1));
                      }
                      return ::read(reader.fd(), &byte, 1);
                   },
                   true, false));
   EXPECT_EQ('y', byte);
   EXPECT_EQ(3, calls);
}

// ---------------------------------------------------------------------------------------------

TEST(GetlineLea, LeavesOutEitherLineEnd) {
   EXPECT_THAT(lines("a\nbc\r\n\n\r\nd\n"), ElementsAre("a", "bc", "", "", "d"));
}

TEST(GetlineLea, LeavesOutOneCarriageReturnOnly) {
   EXPECT_THAT(lines("ab\r\n"), ElementsAre("ab"));
   EXPECT_THAT(lines("ab\r\r\n"), ElementsAre("ab\r"));
   EXPECT_THAT(lines("\r\r\n"), ElementsAre("\r"));
}

TEST(GetlineLea, ACarriageReturnElsewhereIsText) {
   EXPECT_THAT(lines("a\rb\n\rc\n"), ElementsAre("a\rb", "\rc"));
}

TEST(GetlineLea, ALastLineWithoutLineEndCounts) {
   EXPECT_THAT(lines("ab"), ElementsAre("ab"));
   EXPECT_THAT(lines("x\nab\r"), ElementsAre("x", "ab"));
}

TEST(GetlineLea, AnEmptyStreamHasNoLine) {
   EXPECT_THAT(lines(""), ElementsAre());
}

TEST(GetlineLea, KeepsEveryOtherByte) {
   EXPECT_THAT(lines(std::string("a\0b\xff\n", 5)), ElementsAre(std::string("a\0b\xff", 4)));
}

TEST(GetlineLea, TheBufferKeepsTheCarriageReturnAndTheLineViewsTheBuffer) {
   std::istringstream stream("ab\r\ncd\n");
   std::string buffer = "old";
   std::string_view line = "old";
   std::istream& returned = getline_lea(stream, buffer, line);
   EXPECT_EQ(&stream, &returned);
   EXPECT_EQ("ab\r", buffer);
   EXPECT_EQ("ab", line);
   EXPECT_EQ(buffer.data(), line.data());
}

TEST(GetlineLea, AfterTheLastLineTheLineIsEmptyAndTheStreamHasFailed) {
   std::istringstream stream("ab");
   std::string buffer;
   std::string_view line;
   EXPECT_TRUE(getline_lea(stream, buffer, line));
   EXPECT_TRUE(stream.eof());
   EXPECT_EQ("ab", line);
   EXPECT_FALSE(getline_lea(stream, buffer, line));
   EXPECT_TRUE(line.empty());
   EXPECT_FALSE(getline_lea(stream, buffer, line));
   EXPECT_TRUE(line.empty());
}

TEST(GetlineLea, AStreamThatIsBadGivesAnEmptyLine) {
   std::istringstream stream("ab\n");
   stream.setstate(std::ios::badbit);
   std::string buffer;
   std::string_view line = "old";
   EXPECT_FALSE(getline_lea(stream, buffer, line));
   EXPECT_TRUE(line.empty());
}

TEST(GetlineLea, AStreamThatFailsWhileReadingGivesAnEmptyLine) {
   struct Broken : std::streambuf {
      int_type underflow() override { throw std::runtime_error("device gone"); }
   } broken;
   std::istream stream(&broken);
   std::string buffer;
   std::string_view line = "old";
   EXPECT_FALSE(getline_lea(stream, buffer, line));
   EXPECT_TRUE(stream.bad());
   EXPECT_TRUE(line.empty());
}

// ---------------------------------------------------------------------------------------------

TEST(Tokenize, SplitsAtTheDelimiter) {
   EXPECT_THAT(tokens("a,b,c"), ElementsAre("a", "b", "c"));
   EXPECT_THAT(tokens("one"), ElementsAre("one"));
   EXPECT_THAT(tokens("a b,c", ' '), ElementsAre("a", "b,c"));
}

TEST(Tokenize, EmptyFieldsCountButNotBehindATrailingDelimiter) {
   EXPECT_THAT(tokens(""), ElementsAre());
   EXPECT_THAT(tokens("a,,b"), ElementsAre("a", "", "b"));
   EXPECT_THAT(tokens(",a"), ElementsAre("", "a"));
   EXPECT_THAT(tokens("a,b,"), ElementsAre("a", "b"));
   EXPECT_THAT(tokens(","), ElementsAre(""));
   EXPECT_THAT(tokens(",,"), ElementsAre("", ""));
}

TEST(Tokenize, MovesThePositionBehindTheDelimiter) {
   const std::string_view text = "ab,c";
   std::size_t pos = 0;
   std::string_view token;
   EXPECT_TRUE(tokenize(text, pos, token, ','));
   EXPECT_EQ(3u, pos);
   EXPECT_EQ(text.data(), token.data());
   EXPECT_TRUE(tokenize(text, pos, token, ','));
   EXPECT_EQ("c", token);
   EXPECT_EQ(text.size() + 1, pos);
   EXPECT_FALSE(tokenize(text, pos, token, ','));
   EXPECT_EQ(text.size() + 1, pos);
}

TEST(Tokenize, ATrailingDelimiterLeavesThePositionAtTheEnd) {
   std::size_t pos = 0;
   std::string_view token;
   EXPECT_TRUE(tokenize("a,", pos, token, ','));
   EXPECT_EQ(2u, pos);
   EXPECT_FALSE(tokenize("a,", pos, token, ','));
}

TEST(Tokenize, LeavesTheTokenAloneAtTheEnd) {
   std::string_view token = "kept";
   for (std::size_t start : {std::size_t{3}, std::size_t{4}, std::string_view::npos}) {
      std::size_t pos = start;
      EXPECT_FALSE(tokenize("a,b", pos, token, ','));
      EXPECT_EQ("kept", token);
      EXPECT_EQ(start, pos);
   }
}

TEST(Tokenize, StartsWhereThePositionSays) {
   std::size_t pos = 1;
   std::string_view token;
   EXPECT_TRUE(tokenize("abc,d", pos, token, ','));
   EXPECT_EQ("bc", token);
   EXPECT_EQ(4u, pos);
}

TEST(Tokenize, TheNulCharacterCanDelimit) {
   EXPECT_THAT(tokens(std::string_view("a\0b", 3), '\0'), ElementsAre("a", "b"));
}

// ---------------------------------------------------------------------------------------------

TEST(ErrnoMsg, GivesNumberAndText) {
   errno = ENOENT;
   EXPECT_EQ("2 (No such file or directory)", errnoMsg());
   errno = 0;
   EXPECT_EQ("0 (Success)", errnoMsg());
   errno = 99999;
   EXPECT_EQ("99999 (Unknown error 99999)", errnoMsg());
}

// ---------------------------------------------------------------------------------------------

TEST(StrToUint32Checked, ConvertsDecimalNumbers) {
   EXPECT_EQ((Conversion{0, true}), convert("0"));
   EXPECT_EQ((Conversion{42, true}), convert("42"));
   EXPECT_EQ((Conversion{10, true}), convert("0010"));
   EXPECT_EQ((Conversion{4294967295, true}), convert("4294967295"));
}

TEST(StrToUint32Checked, RefusesWhatDoesNotFit) {
   EXPECT_EQ(notANumber, convert("4294967296", true));
   EXPECT_EQ(notANumber, convert("18446744073709551615", true));
   EXPECT_EQ(notANumber, convert("18446744073709551616", true));
   EXPECT_EQ(notANumber, convert("99999999999999999999999", true));
}

TEST(StrToUint32Checked, RefusesWhatIsNotWhollyANumber) {
   for (const char* text : {"", " ", "12x", "0x10", "x", "7 ", "1.5", "+", "-", "+-1", "1,2"}) {
      EXPECT_EQ(notANumber, convert(text, true)) << text;
   }
}

TEST(StrToUint32Checked, KeepsTheStandardConversionsWhiteSpaceAndSigns) {
   EXPECT_EQ((Conversion{7, true}), convert(" 7"));
   EXPECT_EQ((Conversion{7, true}), convert("\t\n 7"));
   EXPECT_EQ((Conversion{7, true}), convert("+7"));
   EXPECT_EQ((Conversion{0, true}), convert("-0"));
   EXPECT_EQ(notANumber, convert("-1", true));
   EXPECT_EQ(notANumber, convert("-4294967295", true));
   // Wraps round to 1 in the standard conversion, which is not an error there.
   EXPECT_EQ((Conversion{1, true}), convert("-18446744073709551615"));
}

TEST(StrToUint32Checked, AnEarlierRangeErrorDoesNotCount) {
   errno = ERANGE;
   EXPECT_EQ((Conversion{5, true}), convert("5"));
   EXPECT_EQ(0, errno);
}

} // namespace
