#pragma once

#include <cstdint>

namespace Hardware {

/// One entry of an SPI request: what to do, and the byte to do it with. A plain value.
struct SpiCmdData {
   /// The command that clocks `data` out as it stands; the only one there is.
   static constexpr std::uint16_t writeByte = 0;

   std::uint16_t command = writeByte;
   std::uint8_t data = 0;

   friend bool operator==(const SpiCmdData&, const SpiCmdData&) = default;
};

} // namespace Hardware
