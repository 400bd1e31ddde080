#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// The most texts that one expansion yields. A line of a register list could otherwise ask for
/// more registers than there is memory.
constexpr std::uint32_t maxArrayExpansion = 1U << 20;

/// The most bytes that one expansion yields, estimated as texts times the length of the text.
constexpr std::uint64_t maxArrayExpansionBytes = 1U << 28;

/// Expands the ranges in `text`: "Q[0:1]_X[2:3]" becomes Q[0]_X[2], Q[0]_X[3], Q[1]_X[2],
/// Q[1]_X[3]; a text without a range is taken as it stands. Appends to `out` and returns how many
/// texts were appended.
///
/// A range is a pair of square brackets, the innermost where they nest, that holds a colon. Its
/// bounds are read as standard decimal `int`s and written as unsigned 32-bit numbers. A bound that
/// is no number throws std::invalid_argument or std::out_of_range ("stoi"); bounds in the wrong
/// order stop the process; more than either limit above throws std::system_error EINVAL, "Register
/// array expands to more than {} registers" or "... bytes". `out` is unchanged when it throws.
TARN_API std::uint32_t _expandArray(std::string_view text, std::vector<String>& out);

/// Whether _expandArray() would stop the process for `text`. For tools that look at a file which
/// they do not trust.
TARN_API bool hasReversedArrayBounds(std::string_view text) noexcept;

} // namespace TarnRegFile
