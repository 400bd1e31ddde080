#pragma once

#include <cstdint>
#include <string_view>

#include "platform/entity/Export.h"
#include "platform/entity/TextRange.h"
#include "platform/entity/Types.h"
#include "platform/hardware/HardwareRegisterType.h"

namespace Hardware {

using Platform::String;

/// One register of a device, as its register list describes it. A plain value; a
/// default-constructed one is the empty record, which stands for "no such register".
struct TARN_PLATFORM_API HardwareRegister {
   String name;                    ///< as callers name it, array index included: "RX_CNT[3]"
   std::uint32_t address = 0;      ///< in address units: register number times block size
   std::uint32_t width = 0;        ///< bits that carry meaning, 0 to 32
   std::uint32_t arraySize = 0;    ///< registers in the array it belongs to; 1 for a plain one
   std::uint32_t accessWidth = 32; ///< bits of one access
   HardwareRegisterType type = HardwareRegisterType::unknown;
   bool writable = false; ///< what the list says; transports do not enforce it

   HardwareRegister() = default;

   /// Reads the string form off the front of `range`. Throws RangeError.
   explicit HardwareRegister(Platform::TextRange& range);

   /// Whether all fields are equal.
   bool isEq(const HardwareRegister& other) const noexcept;
   friend bool operator==(const HardwareRegister& a, const HardwareRegister& b) noexcept {
      return a.isEq(b);
   }

   /// The type with this name; `unknown` for any other text.
   static HardwareRegisterType regTypeFromString(std::string_view name) noexcept;

   /// The name of `type`; "unknown" when it has none.
   static std::string_view regTypeToString(HardwareRegisterType type) noexcept;

   static std::string_view valueTypeName() noexcept { return "Hardware::HardwareRegister"; }

   /// The string form, Value('Hardware::HardwareRegister', name='...', ...).
   String stringRep() const;
};

} // namespace Hardware
