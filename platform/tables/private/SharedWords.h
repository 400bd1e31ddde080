#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

/// How memory that another process may change at any moment is touched: by relaxed atomic words,
/// never through ordinary objects. The fences around them are the algorithms' business.
// Of functions of a few instructions on the way of every get and put, which the compiler would call
// where they are used more than once.
#define TARN_TABLES_INLINE [[gnu::always_inline]] inline

namespace Platform::Tables {

using Word = std::uint64_t;

/// Words that hold `bytes` bytes.
constexpr std::size_t wordsFor(std::size_t bytes) noexcept {
   return (bytes + sizeof(Word) - 1) / sizeof(Word);
}

inline Word loadRelaxed(const Word* word) noexcept {
   return __atomic_load_n(word, __ATOMIC_RELAXED);
}

inline Word loadAcquire(const Word* word) noexcept {
   return __atomic_load_n(word, __ATOMIC_ACQUIRE);
}

inline void storeRelaxed(Word* word, Word value) noexcept {
   __atomic_store_n(word, value, __ATOMIC_RELAXED);
}

inline void storeRelease(Word* word, Word value) noexcept {
   __atomic_store_n(word, value, __ATOMIC_RELEASE);
}

/// Copies `count` words out of shared memory.
inline void copyOut(Word* to, const Word* shared, std::size_t count) noexcept {
   for (std::size_t i = 0; i < count; ++i) {
      to[i] = loadRelaxed(shared + i);
   }
}

/// Copies `count` words into shared memory.
inline void copyIn(Word* shared, const Word* from, std::size_t count) noexcept {
   for (std::size_t i = 0; i < count; ++i) {
      storeRelaxed(shared + i, from[i]);
   }
}

// The thread sanitizer does not follow fences, and the compiler says so. It has nothing to miss
// here: two mounts of a process map a table at two addresses, and one mount is used by one thread.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wtsan"
#endif

inline void fenceAcquire() noexcept {
   std::atomic_thread_fence(std::memory_order_acquire);
}

inline void fenceRelease() noexcept {
   std::atomic_thread_fence(std::memory_order_release);
}

inline void fenceFull() noexcept {
   std::atomic_thread_fence(std::memory_order_seq_cst);
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

} // namespace Platform::Tables
