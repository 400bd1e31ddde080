#pragma once

#include <cstdint>

#include "platform/tables/private/SharedWords.h"

namespace Platform::Tables {

/// How work on a table's memory ended. A plain value: that work runs with the table's lock held,
/// and in paths of some nanoseconds, where nothing throws.
struct Finding {
   enum class Kind : std::uint8_t {
      done,
      absent,    ///< No record has the key, or there is no further one.
      full,      ///< The table holds as many records as it was made for.
      noSpace,   ///< The file system gave no memory: `error` says why.
      changing,  ///< What was looked at changed meanwhile: to be looked at again.
      corrupted, ///< `what` is wrong, at `where`.
   };

   Kind kind = Kind::done;
   int error = 0;
   const char* what = "";
   Word where = 0;

   bool isDone() const noexcept { return kind == Kind::done; }

   static Finding absent() noexcept { return {.kind = Kind::absent}; }
   static Finding corrupted(const char* what, Word where = 0) noexcept {
      return {.kind = Kind::corrupted, .what = what, .where = where};
   }
};

} // namespace Platform::Tables
