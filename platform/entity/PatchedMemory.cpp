#include "platform/entity/PatchedMemory.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

#include "platform/entity/BusErrorGuard.h"
#include "platform/entity/Errors.h"

namespace Platform {

namespace {

// The handler reads this while others come and go. `end` is set last and cleared first, and a range
// is gone before its memory is: whoever faults inside of one has it mapped.
struct Range {
   std::atomic<std::uintptr_t> begin{0};
   std::atomic<std::uintptr_t> end{0};
   std::atomic<int> protection{0};
   std::atomic<std::atomic<bool>*> lost{nullptr};
};

constinit Range ranges[PatchedMemory::maxRanges];
constinit std::atomic<std::size_t> rangesUsed{0}; // so many may be in use, from the first on
constinit std::mutex mutex;

std::uintptr_t pageSize() noexcept {
   static const auto size = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
   return size;
}

} // namespace

PatchedMemory::PatchedMemory(void* begin, std::size_t size, int protection) {
   const auto address = reinterpret_cast<std::uintptr_t>(begin);
   if (address % pageSize() != 0) {
      throwError(EINVAL, "memory to be patched must begin with a page");
   }
   BusErrorGuard::initialize();
   const std::lock_guard lock(mutex);
   while (_slot < maxRanges && ranges[_slot].end.load(std::memory_order_relaxed) != 0) {
      ++_slot;
   }
   if (_slot == maxRanges) {
      throwError(ENFILE, "too many files are mapped as shared memory");
   }
   Range& range = ranges[_slot];
   range.begin.store(address, std::memory_order_relaxed);
   range.protection.store(protection, std::memory_order_relaxed);
   range.lost.store(&_lost, std::memory_order_relaxed);
   range.end.store(address + size, std::memory_order_release);
   if (_slot >= rangesUsed.load(std::memory_order_relaxed)) {
      rangesUsed.store(_slot + 1, std::memory_order_release);
   }
}

PatchedMemory::~PatchedMemory() {
   const std::lock_guard lock(mutex);
   ranges[_slot].end.store(0, std::memory_order_release);
}

bool PatchedMemory::repair(std::uintptr_t address) noexcept {
   const std::size_t used = rangesUsed.load(std::memory_order_acquire);
   for (std::size_t i = 0; i < used; ++i) {
      Range& range = ranges[i];
      const std::uintptr_t end = range.end.load(std::memory_order_acquire);
      if (address >= end || address < range.begin.load(std::memory_order_relaxed)) {
         continue;
      }
      // Said before anybody can go on with the zeros.
      range.lost.load(std::memory_order_relaxed)->store(true, std::memory_order_relaxed);
      // Past the C library, whose functions a tool may have replaced by some that take locks.
      const long page = ::syscall(SYS_mmap, address / pageSize() * pageSize(), pageSize(),
                                  range.protection.load(std::memory_order_relaxed),
                                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
      return page != -1;
   }
   return false;
}

} // namespace Platform
