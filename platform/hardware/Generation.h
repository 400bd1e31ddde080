#pragma once

#include <cstdint>
#include <string_view>

#include "platform/entity/Export.h"
#include "platform/entity/TextRange.h"
#include "platform/entity/Types.h"

namespace Hardware {

using Platform::String;

/// Tells one appearance of a piece of hardware from another: what was known of it belongs to the
/// generation in which it was learnt. `valid` says whether the hardware is there. A plain value; a
/// default-constructed one is the null generation, which no hardware ever has.
struct TARN_PLATFORM_API Generation {
   std::uint32_t id = 0;
   bool valid = false;

   constexpr Generation() = default;
   constexpr Generation(std::uint32_t id_, bool valid_) noexcept : id(id_), valid(valid_) {}

   /// Reads the string form off the front of `range`. Throws RangeError.
   explicit Generation(Platform::TextRange& range);

   /// Whether both fields are equal: one id, once valid and once not, is two generations.
   friend constexpr bool operator==(const Generation&, const Generation&) = default;

   static std::string_view valueTypeName() noexcept { return "Hardware::Generation"; }

   /// The string form, Value('Hardware::Generation', id=3, valid=true).
   String stringRep() const;
};

} // namespace Hardware
