#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/entity/Export.h"

namespace Platform {

/// Keeps a mapped file usable, in a way, when parts of it vanish: when it is cut off, or when its
/// file system can give no memory. The SIGBUS of an access to such a page is answered by putting a
/// page of zeros in its place, private to this process, and by setting lost(). The access then goes
/// on. So whoever reads and writes such memory pays nothing for the case, finds zeros where data
/// was, writes where nobody reads, and asks lost() when it is done.
///
/// For memory in which zeros do no harm. BusErrorGuard, which it installs, is for the other kind:
/// the registers of a device. Where both are responsible the guard comes first.
///
/// Owned by whoever owns the mapping, and gone before that is unmapped. May be used, and asked, on
/// any thread.
class TARN_PLATFORM_API PatchedMemory {
public:
   /// How many there can be at once in a process.
   static constexpr std::size_t maxRanges = 4096;

   /// Answers for the `size` bytes from `begin` on, which begin and end with a page. `protection`
   /// is what the mapping has (PROT_READ and the like). Throws std::system_error: ENFILE (generic
   /// category) if there are too many, EINVAL (generic) if `begin` is inside a page.
   PatchedMemory(void* begin, std::size_t size, int protection);
   ~PatchedMemory();

   PatchedMemory(const PatchedMemory&) = delete;
   PatchedMemory& operator=(const PatchedMemory&) = delete;

   /// Whether a page has vanished so far. Says so from the moment that the access goes on.
   bool lost() const noexcept { return _lost.load(std::memory_order_relaxed); }

private:
   friend class BusErrorGuard;

   /// Puts a page at `address` if it is in one of the ranges. For the signal handler.
   static bool repair(std::uintptr_t address) noexcept;

   std::atomic<bool> _lost{false};
   std::size_t _slot = 0;
};

} // namespace Platform
