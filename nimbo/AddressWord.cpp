#include "nimbo/AddressWord.h"

#include <stdexcept>

#include <fmt/format.h>

namespace Nimbo {

namespace {

constexpr std::uint64_t oneByte = 1;
constexpr std::uint64_t twoBytes = 2;
constexpr std::uint64_t fourBytes = 4;

/// `width` bits of `word` from bit `low` on.
constexpr std::uint64_t bits(std::uint64_t word, unsigned low, unsigned width) {
   return (word >> low) & ((std::uint64_t{1} << width) - 1);
}

} // namespace

AddressWord AddressWord::from(std::uint64_t word) {
   if (bits(word, 60, 4) != 0) {
      throw std::invalid_argument(fmt::format("address {:#x}: bits 60 to 63 must be 0", word));
   }
   AddressWord where;
   where.offset = static_cast<std::uint32_t>(bits(word, 0, 32));
   where.device = static_cast<std::uint8_t>(bits(word, 32, 7));
   where.bus = static_cast<std::uint8_t>(bits(word, 39, 7));
   where.controller = static_cast<std::uint16_t>(bits(word, 46, 11));
   switch (bits(word, 57, 3)) {
   case oneByte:
      where.offsetBytes = 1;
      break;
   case twoBytes:
      where.offsetBytes = 2;
      break;
   case fourBytes:
      where.offsetBytes = 4;
      break;
   default:
      throw std::invalid_argument(
         fmt::format("address {:#x}: exactly one of the bits 57 to 59 must be set", word));
   }
   if (where.offsetBytes < 4 && (where.offset >> (8U * where.offsetBytes)) != 0) {
      throw std::invalid_argument(
         fmt::format("address {:#x}: offset {:#x} does not fit in {} byte{}", word, where.offset,
                     where.offsetBytes, where.offsetBytes == 1 ? "" : "s"));
   }
   return where;
}

std::string pciToString(std::uint32_t pciBdf) {
   return fmt::format("{:04x}:{:02x}:{:02x}.{}", pciBdf >> 16, (pciBdf >> 8) & 0xff,
                      (pciBdf >> 3) & 0x1f, pciBdf & 7);
}

} // namespace Nimbo
