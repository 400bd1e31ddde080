#pragma once

#include <chrono>
#include <cstdint>

#include "platform/tables/private/MountRegister.h"

namespace Platform::Tables {

/// The lock that a table's writers take turns by: a word of shared memory that names the mount
/// which has it (its place and nonce in the MountRegister).
///
/// Taking and giving back costs two atomic instructions. Whoever finds it taken asks the kernel
/// whether that mount is still there, and takes the lock over if not: then what the dead one was
/// doing has to be put in order. A robust mutex of the C library would do as much in principle. It
/// keeps pointers of its owner's address space in the shared memory, which a damaged file or a
/// hostile process turns into wild writes; it takes thread numbers of other process namespaces for
/// its own; and a flipped bit in it waits forever. Here the worst that a wrong word does is that
/// writers give up after a while and say so.

class TableLock {
public:
   /// How long a living holder is waited for.
   static constexpr std::chrono::seconds patience{5};

   TableLock(std::uint32_t* word, const MountRegister& mounts) noexcept
      : _word(word), _mounts(&mounts), _own(mounts.index() << indexShift | mounts.nonce()) {}

   enum class Taken {
      clean,
      fromTheDead, ///< The one before did not finish.
      timedOut,    ///< Not taken: a living mount has held it for longer than `patience`.
      alreadyOwn,  ///< Not taken: this mount has it.
   };

   Taken take() noexcept {
      std::uint32_t free = 0;
      if (__atomic_compare_exchange_n(_word, &free, _own, false, __ATOMIC_ACQUIRE,
                                      __ATOMIC_RELAXED)) {
         _held = true;
         return Taken::clean;
      }
      const Taken taken = _wait();
      _held = _held || taken == Taken::clean || taken == Taken::fromTheDead;
      return taken;
   }

   void giveBack() noexcept { _leave(0); }

   /// Gives the lock up in the middle of work: the next one takes it as if from the dead.
   void abandon() noexcept { _leave(abandoned); }

   /// Whether a lock with this word may be somebody's, alive or dead.
   static bool isTaken(std::uint32_t word) noexcept {
      return (word & ~waitersBit) != 0 && (word & ~waitersBit) != abandoned;
   }

   /// Place of the mount that has the lock, or had it last and died; -1 if nobody has.
   int holder() const noexcept;

private:
   static constexpr std::uint32_t waitersBit = 1U << 31;
   static constexpr int indexShift = 21;
   static constexpr std::uint32_t nonceMask = (1U << indexShift) - 1;
   // The place that no mount has.
   static constexpr std::uint32_t abandoned = MountRegister::maxMounts << indexShift;

   Taken _wait() noexcept;
   void _leave(std::uint32_t word) noexcept;
   bool _exchange(std::uint32_t expected, std::uint32_t desired) noexcept {
      return __atomic_compare_exchange_n(_word, &expected, desired, false, __ATOMIC_ACQUIRE,
                                         __ATOMIC_RELAXED);
   }

   std::uint32_t* const _word;
   const MountRegister* const _mounts;
   const std::uint32_t _own;
   bool _held = false;
};

} // namespace Platform::Tables
