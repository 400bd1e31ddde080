#pragma once

#include <cstdint>

#include "platform/entity/EnumType.h"
#include "platform/entity/Export.h"

namespace Hardware {

/// The order of a value's bytes on the wire, in reads and in writes.
enum class ReadByteSwap : std::uint8_t {
   none = 0, ///< least significant byte first
   swap = 1, ///< most significant byte first
};
enum class WriteByteSwap : std::uint8_t { none = 0, swap = 1 };

/// One operation of the access manager: a register of a device is read or written. The device has
/// a 16-bit register pointer, which the operation sets first. A plain value.
struct SornOp {
   enum class Opcode : std::uint8_t { read = 0, write = 1 };

   Opcode opcode = Opcode::read;
   std::uint8_t device = 0; ///< address on the bus, 7 bits
   std::uint16_t registerAddress = 0;
   std::uint8_t size = 4; ///< bytes of the value: 4, or 2 for a 16-bit write
   bool mostSignificantFirst = true;
   std::uint32_t value = 0; ///< written

   /// Takes the access word of a request apart: bits 0 to 15 are the register's address, bits 32
   /// to 38 the device's. Throws RangeError if another bit is set.
   TARN_PLATFORM_API void addressIs(std::uint64_t accessWord);

   bool operator==(const SornOp&) const = default;
};

} // namespace Hardware

template <>
struct Platform::EnumTraits<Hardware::SornOp::Opcode> {
   static constexpr std::string_view name = "Hardware::SornOp::Opcode";
   static constexpr EnumEntry entries[] = {{0, "read"}, {1, "write"}};
};
