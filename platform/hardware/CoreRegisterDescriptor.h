#pragma once

#include <cstdint>
#include <string_view>

#include "platform/entity/Export.h"
#include "platform/entity/TextRange.h"
#include "platform/entity/Types.h"

namespace Hardware {

using Platform::String;

/// What is known of one register of a hardware core beside its name. A plain value.
struct TARN_PLATFORM_API CoreRegisterDescriptor {
   std::uint32_t address = 0;
   bool notWritable = false; ///< values wanted for it are never written

   constexpr CoreRegisterDescriptor() = default;
   constexpr CoreRegisterDescriptor(std::uint32_t address_, bool notWritable_) noexcept
      : address(address_), notWritable(notWritable_) {}

   /// Reads the string form off the front of `range`. Throws RangeError.
   explicit CoreRegisterDescriptor(Platform::TextRange& range);

   friend constexpr bool operator==(const CoreRegisterDescriptor&,
                                    const CoreRegisterDescriptor&) = default;

   static std::string_view valueTypeName() noexcept { return "Hardware::CoreRegisterDescriptor"; }

   /// The string form, Value('Hardware::CoreRegisterDescriptor', address=64, notWritable=false).
   String stringRep() const;
};

} // namespace Hardware
