#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

namespace Board {

/// The number that the whole of `text` spells: decimal, 0x hexadecimal or 0b binary.
inline std::optional<std::uint64_t> numberFrom(std::string_view text) noexcept {
   int base = 10;
   if (text.starts_with("0x") || text.starts_with("0X")) {
      base = 16;
   } else if (text.starts_with("0b") || text.starts_with("0B")) {
      base = 2;
   }
   if (base != 10) {
      text.remove_prefix(2);
   }
   std::uint64_t number = 0;
   const char* end = text.data() + text.size();
   const auto [stop, error] = std::from_chars(text.data(), end, number, base);
   if (error != std::errc() || stop != end || text.empty()) {
      return std::nullopt;
   }
   return number;
}

} // namespace Board
