#pragma once

#include <atomic>

#include "platform/entity/Export.h"

namespace Platform {

namespace Detail {
extern TARN_PLATFORM_API std::atomic<bool> multiThreaded;
} // namespace Detail

/// Declares that objects of this process may from now on be referenced from several threads:
/// reference counts change atomically from here on. Call it before the second thread starts; there
/// is no way back, because a count may by then be shared. A process that never calls it pays a
/// plain add for each reference.
TARN_PLATFORM_API void multiThreadedIs() noexcept;

/// Whether multiThreadedIs() has been called. Any thread.
inline bool multiThreaded() noexcept {
   return Detail::multiThreaded.load(std::memory_order_relaxed);
}

} // namespace Platform
