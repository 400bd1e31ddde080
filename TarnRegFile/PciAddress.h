#pragma once

#include <cstdint>
#include <optional>

#include "platform/entity/ValueTraits.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// Which function of which PCI device. A plain value; nothing is checked.
struct PciAddress {
   std::uint16_t domain = 0;
   std::uint16_t bus = 0;     ///< 8 bits are used
   std::uint8_t device = 0;   ///< 5 bits
   std::uint8_t function = 0; ///< 3 bits

   friend bool operator==(const PciAddress&, const PciAddress&) = default;
};

} // namespace TarnRegFile

/// Value('TarnRegFile::PciAddress', domain=0, bus=3, device=0, function=1).
template <>
struct TARN_API Platform::ValueTraits<TarnRegFile::PciAddress> {
   static String name() { return "TarnRegFile::PciAddress"; }
   static String write(const TarnRegFile::PciAddress& address);
   static TarnRegFile::PciAddress read(TextRange& range);
};

/// As above, or "none".
template <>
struct TARN_API Platform::ValueTraits<std::optional<TarnRegFile::PciAddress>> {
   static String name() { return "Optional<TarnRegFile::PciAddress>"; }
   static String write(const std::optional<TarnRegFile::PciAddress>& address);
   static std::optional<TarnRegFile::PciAddress> read(TextRange& range);
};
