#pragma once

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers' own, whose header not every compiler comes with.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#else
#include <malloc.h>
#endif

namespace TestSupport {

/// What the process has on its heap at the moment.
inline std::size_t allocatedBytes() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
   return __sanitizer_get_current_allocated_bytes();
#else
   return ::mallinfo2().uordblks;
#endif
}

} // namespace TestSupport
