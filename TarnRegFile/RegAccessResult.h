#pragma once

#include <cstdint>
#include <ostream>

#include "platform/entity/EnumType.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// How a register access ended. Stored in 8 bits.
enum class RegAccessResult : std::uint8_t {
   Unknown = 0, ///< no outcome yet; the default
   Success = 1, ///< the access completed
   Error = 2,   ///< the access failed
};

/// The result with this number or name. Throws RangeError for any other.
TARN_API RegAccessResult RegAccessResultInstance(std::uint32_t value);
TARN_API RegAccessResult RegAccessResultInstance(const String& name);

/// "Unknown", "Success" or "Error"; "RegAccessResult(n)" for a number that has no name.
TARN_API String stringValue(RegAccessResult result);

/// Writes the string form.
TARN_API std::ostream& operator<<(std::ostream& out, const RegAccessResult& result);

/// Reads the string form off the front of `range` into `result`. Throws RangeError, and then
/// changes neither.
TARN_API void sequenceToValue(Platform::TextRange& range, RegAccessResult* result);

} // namespace TarnRegFile

template <>
struct Platform::EnumTraits<TarnRegFile::RegAccessResult> {
   static constexpr std::string_view name = "TarnRegFile::RegAccessResult";
   static constexpr EnumEntry entries[] = {{0, "Unknown"}, {1, "Success"}, {2, "Error"}};
};
