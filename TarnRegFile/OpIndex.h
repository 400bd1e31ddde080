#pragma once

#include <compare>
#include <concepts>
#include <cstdint>
#include <string_view>
#include <utility>

#include "platform/entity/TextRange.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile::Sable {

/// A place in the arrays of an OrderedRegisterOp: 0 to 127, in 8 bits. A plain value.
///
/// String form: the number.
class TARN_API OpIndex {
public:
   static constexpr std::uint8_t min = 0;
   static constexpr std::uint8_t max = 127;

   constexpr OpIndex() noexcept = default;

   /// Takes an integer of any type, so that no place is mistaken for another by a conversion before
   /// it is looked at. Throws Platform::RangeError for one outside of the range.
   constexpr explicit OpIndex(std::integral auto value) {
      if (std::cmp_less(value, min) || std::cmp_greater(value, max)) [[unlikely]] {
         _throwOutOfRange();
      }
      _value = static_cast<std::uint8_t>(value);
   }

   /// Reads the number off the front of `range`. Throws RangeError, `range` then unchanged.
   explicit OpIndex(Platform::TextRange& range);

   constexpr std::uint8_t value() const noexcept { return _value; }

   // NOLINTNEXTLINE(modernize-use-nullptr): there is none in it.
   friend constexpr auto operator<=>(const OpIndex&, const OpIndex&) = default;

   static constexpr std::string_view valueTypeName() noexcept {
      return "TarnRegFile::Sable::OpIndex";
   }
   String stringRep() const { return std::to_string(_value); }

private:
   [[noreturn]] static void _throwOutOfRange();

   std::uint8_t _value = min;
};

} // namespace TarnRegFile::Sable
