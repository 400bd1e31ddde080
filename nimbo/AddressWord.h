#pragma once

#include <cstdint>
#include <string>

namespace Nimbo {

/// Where a request goes, taken out of its 64-bit address word. A plain value.
struct AddressWord {
   std::uint32_t offset = 0;
   std::uint8_t offsetBytes = 1; ///< 1, 2 or 4 bytes of the offset go over the wire
   std::uint8_t device = 0;      ///< address on the bus, 7 bits
   std::uint8_t bus = 0;         ///< number of the bus, 7 bits
   std::uint16_t controller = 0; ///< 11 bits

   /// Takes `word` apart; the bits are listed in smbus.proto. Throws std::invalid_argument, saying
   /// why, unless exactly one size is given, the offset fits in it, and the bits above are 0.
   static AddressWord from(std::uint64_t word);

   bool operator==(const AddressWord&) const = default;
};

/// "0000:01:00.0", from a PCI function as requests give it.
std::string pciToString(std::uint32_t pciBdf);

} // namespace Nimbo
