#include "platform/hardware/SornOp.h"

#include <fmt/format.h>

#include "platform/entity/Errors.h"

namespace Hardware {

namespace {

constexpr unsigned deviceShift = 32;
constexpr std::uint64_t deviceMask = 0x7f;
constexpr std::uint64_t registerMask = 0xffff;

} // namespace

void SornOp::addressIs(std::uint64_t accessWord) {
   if ((accessWord & ~(deviceMask << deviceShift | registerMask)) != 0) {
      throw Platform::RangeError(fmt::format(
         "access word {:#x} has bits beyond those of a 7-bit device and a 16-bit register",
         accessWord));
   }
   device = static_cast<std::uint8_t>(accessWord >> deviceShift);
   registerAddress = static_cast<std::uint16_t>(accessWord & registerMask);
}

} // namespace Hardware
