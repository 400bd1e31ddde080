#pragma once

#include <cstdint>
#include <string_view>

namespace TarnRegFile {

/// The rules of one line of a CSV register list, shared by the loader and the checker. Internal.

/// What the first line begins with.
inline constexpr std::string_view registerFileHeader = "number,name,type,writeable,width";

/// Fields of a record; what follows them is ignored.
inline constexpr unsigned registerFieldCount = 5;

/// The largest width, in bits.
inline constexpr std::uint32_t maxRegisterWidth = 32;

/// Bounds on what one file may define: a small file can ask for any number of registers through
/// array ranges.
inline constexpr std::uint64_t maxFileRegisters = 1U << 22;
inline constexpr std::uint64_t maxFileExpandedBytes = 1U << 30;

/// The number at the start of `line`, as the standard int conversion reads it. Throws
/// std::invalid_argument or std::out_of_range "stoi".
int registerNumber(std::string_view line);

/// The part of `line` that array ranges are expanded in: from the first comma on, and, when there
/// are five commas or more, as long as the offset of the fifth. Empty when there is no comma.
std::string_view expandablePart(std::string_view line) noexcept;

/// Reads decimal digits only, at least one, fitting in 32 bits. False for anything else.
bool parseDigits(std::string_view field, std::uint32_t& value) noexcept;

/// The text that an expansion counts as, towards maxFileExpandedBytes.
constexpr std::uint64_t expandedBytes(std::uint32_t count, std::string_view line) noexcept {
   return count > 1 ? static_cast<std::uint64_t>(count) * line.size() : 0;
}

} // namespace TarnRegFile
