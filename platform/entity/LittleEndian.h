#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace Platform {

/// Numbers as they lie in stored records: least significant byte first, at any alignment. Each
/// reads or writes exactly the number's own bytes. Any thread.
namespace LittleEndian {

static_assert(std::endian::native == std::endian::little || std::endian::native == std::endian::big,
              "a machine of mixed byte order needs functions of its own");

inline void store32(std::uint8_t* to, std::uint32_t value) noexcept {
   if constexpr (std::endian::native == std::endian::big) {
      value = __builtin_bswap32(value);
   }
   std::memcpy(to, &value, sizeof value);
}

inline void store64(std::uint8_t* to, std::uint64_t value) noexcept {
   if constexpr (std::endian::native == std::endian::big) {
      value = __builtin_bswap64(value);
   }
   std::memcpy(to, &value, sizeof value);
}

inline std::uint32_t load32(const std::uint8_t* from) noexcept {
   std::uint32_t value = 0;
   std::memcpy(&value, from, sizeof value);
   if constexpr (std::endian::native == std::endian::big) {
      value = __builtin_bswap32(value);
   }
   return value;
}

inline std::uint64_t load64(const std::uint8_t* from) noexcept {
   std::uint64_t value = 0;
   std::memcpy(&value, from, sizeof value);
   if constexpr (std::endian::native == std::endian::big) {
      value = __builtin_bswap64(value);
   }
   return value;
}

} // namespace LittleEndian

} // namespace Platform
