#pragma once

#include <cstddef>
#include <cstdint>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include "platform/tables/private/SharedWords.h"

/// Checks of what is stored in shared memory. They find damage (flipped bits, zeroed pages, pages
/// in the wrong place), not forgery: whoever may write the file can also compute a check.
namespace Platform::Tables {

/// Spreads every bit of `x` over the whole word; a bijection.
constexpr Word mixed(Word x) noexcept {
   x ^= x >> 32;
   x *= 0xD6E8FEB86659FD93U;
   x ^= x >> 32;
   x *= 0xD6E8FEB86659FD93U;
   x ^= x >> 32;
   return x;
}

/// A word of shared memory that can be checked by itself: 48 bits of value and 16 that depend on
/// the value and on a salt, which says whose and which word it is. One store changes both.
namespace Seal {

constexpr int valueBits = 48;
constexpr Word maxValue = (Word{1} << valueBits) - 1;

/// One multiplication: the upper bits of the product depend on every bit below, so no single
/// flipped bit goes unnoticed, and other damage once in 65,536 times. Never 0, so that no word of a
/// zeroed page is one of ours.
constexpr Word checkOf(Word value, Word salt) noexcept {
   const Word check = (value ^ salt) * 0x9FB21C651E98DF25U >> valueBits;
   return check + (check == 0);
}

constexpr Word sealed(Word value, Word salt) noexcept {
   return value << 16 | checkOf(value, salt);
}

/// Whether `word` is a sealed word of this salt; then `value` is its value.
constexpr bool unseal(Word word, Word salt, Word& value) noexcept {
   value = word >> 16;
   return checkOf(value, salt) == (word & 0xFFFF);
}

} // namespace Seal

/// Of a run of bytes, none of which is in shared memory.
inline Word hashOf(const void* bytes, std::size_t size) noexcept {
   return XXH3_64bits(bytes, size);
}

/// Of `size` bytes in words that are padded with zeros and not in shared memory. Keys and short
/// records take less than setting up the large hash would.
TARN_TABLES_INLINE Word hashOfWords(const Word* words, std::size_t size) noexcept {
   if (size > 64) {
      return hashOf(words, size);
   }
   Word hash = size;
   for (std::size_t i = 0; i < wordsFor(size); ++i) {
      // NOLINTNEXTLINE(clang-analyzer-core.UndefinedBinaryOperatorResult): the words are filled.
      hash = (hash ^ words[i]) * 0x9E3779B97F4A7C15U;
      hash ^= hash >> 32;
   }
   return hash;
}

} // namespace Platform::Tables
