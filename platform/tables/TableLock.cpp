#include "platform/tables/private/TableLock.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace Platform::Tables {

namespace {

// A writer is done in a fraction of a microsecond, unless it is not running.
constexpr int spins = 200;

// A holder that dies does not wake those who wait.
constexpr long sleepNanoseconds = 2'000'000;

void sleepWhile(const std::uint32_t* word, std::uint32_t value) noexcept {
   const timespec timeout = {.tv_sec = 0, .tv_nsec = sleepNanoseconds};
   ::syscall(SYS_futex, word, FUTEX_WAIT, value, &timeout, nullptr, 0);
}

void wakeOne(const std::uint32_t* word) noexcept {
   ::syscall(SYS_futex, word, FUTEX_WAKE, 1, nullptr, nullptr, 0);
}

void pause() noexcept {
#ifdef __x86_64__
   __builtin_ia32_pause();
#endif
}

} // namespace

TableLock::Taken TableLock::_wait() noexcept {
   const auto deadline = std::chrono::steady_clock::now() + patience;
   for (int i = 0; i < spins; ++i) {
      if (__atomic_load_n(_word, __ATOMIC_RELAXED) == 0 && _exchange(0, _own)) {
         return Taken::clean;
      }
      pause();
   }
   for (;;) {
      const std::uint32_t seen = __atomic_load_n(_word, __ATOMIC_RELAXED);
      if (seen == 0) {
         // Others may be asleep whose mark went with the holder's word.
         if (_exchange(0, _own | waitersBit)) {
            return Taken::clean;
         }
         continue;
      }
      const std::uint32_t holder = seen & ~waitersBit;
      if (holder == _own) {
         // Not by this mount's doing unless it is at work: then the word is damaged.
         return _held ? Taken::alreadyOwn : Taken::fromTheDead;
      }
      const std::uint32_t index = holder >> indexShift;
      if (index >= MountRegister::maxMounts || !_mounts->mayBeAlive(index, holder & nonceMask)) {
         if (_exchange(seen, _own | waitersBit)) {
            return Taken::fromTheDead;
         }
         continue;
      }
      if (std::chrono::steady_clock::now() >= deadline) {
         return Taken::timedOut;
      }
      if ((seen & waitersBit) || _exchange(seen, seen | waitersBit)) {
         sleepWhile(_word, seen | waitersBit);
      }
   }
}

void TableLock::_leave(std::uint32_t word) noexcept {
   _held = false;
   if (__atomic_exchange_n(_word, word, __ATOMIC_RELEASE) & waitersBit) {
      wakeOne(_word);
   }
}

int TableLock::holder() const noexcept {
   const std::uint32_t seen = __atomic_load_n(_word, __ATOMIC_RELAXED) & ~waitersBit;
   return seen == 0 ? -1 : static_cast<int>(seen >> indexShift);
}

} // namespace Platform::Tables
