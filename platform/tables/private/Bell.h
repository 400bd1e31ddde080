#pragma once

#include <unistd.h>

#include "platform/tables/private/SharedWords.h"

namespace Platform::Tables {

/// How sleeping readers are woken. A word of shared memory has a bit for each mount that wants to
/// be; a writer that finds one set writes a byte to the bell file, which the readers watch with
/// inotify. While nobody sleeps, writers make no system call.
class Bell {
public:
   /// `armed` is the word, `fd` the bell file, -1 for who never rings. `bit` is the mount's own; a
   /// writer does not ring for the bits in `ignored`.
   Bell(Word* armed, int fd, Word bit, Word ignored) noexcept
      : _armed(armed), _fd(fd), _bit(bit), _ignored(ignored) {}

   /// Asks to be woken. To be followed by a last look for changes: either the writer sees the bit,
   /// or what it wrote is seen here.
   void arm() noexcept {
      __atomic_fetch_or(_armed, _bit, __ATOMIC_SEQ_CST);
      fenceFull();
   }

   /// Wakes those who sleep, or everybody if `always`. Called after what they are to see was
   /// published.
   ///
   /// The word is cleared first: a reader that arms itself after that is rung for by the next
   /// writer, and one that did before hears this one. The other way round a reader that was quick
   /// to go back to sleep would have its bit cleared and never be woken.
   void ring(bool always) noexcept {
      fenceFull();
      if (!always && (__atomic_load_n(_armed, __ATOMIC_RELAXED) & ~_ignored) == 0) {
         return;
      }
      const Word sleepers = __atomic_fetch_and(_armed, _ignored, __ATOMIC_SEQ_CST) & ~_ignored;
      if (sleepers != 0 || always) {
         write();
      }
   }

protected:
   /// Overwrites a byte that is there, so that no lack of memory can keep it from ringing.
   void write() noexcept { [[maybe_unused]] const ssize_t written = ::pwrite(_fd, "", 1, 0); }

   Word* const _armed;
   const int _fd;
   const Word _bit;
   const Word _ignored;
};

} // namespace Platform::Tables
