#pragma once

#include <cstdint>
#include <iterator>
#include <span>
#include <string>

#include <fmt/format.h>

namespace TarnSim {

/// One access as the journal shows it: "read 0x10: aa bb", "write 0x10: 01", "read 0x10: error 5".
inline std::string journalLine(bool isRead, std::uint32_t address,
                               std::span<const std::uint8_t> bytes, int error) {
   std::string line = fmt::format("{} {:#x}:", isRead ? "read" : "write", address);
   if (error != 0) {
      fmt::format_to(std::back_inserter(line), " error {}", error);
   }
   for (const std::uint8_t byte : bytes) {
      fmt::format_to(std::back_inserter(line), " {:02x}", byte);
   }
   return line;
}

} // namespace TarnSim
