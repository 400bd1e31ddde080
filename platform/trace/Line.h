#pragma once

#include <string>
#include <string_view>

#include "platform/entity/Export.h"
#include "platform/trace/Record.h"

namespace Platform::Trace {

/// `text` in a form that stays within its line and cannot steer a terminal: control characters,
/// bytes that are not UTF-8, and the characters that separate lines or turn the direction of
/// writing are replaced by `\n`, `\t`, `\r` or `\xNN` for each byte; a backslash is doubled, so
/// that the bytes can be told from the result. Any thread; throws only std::bad_alloc.
[[nodiscard]] TARN_PLATFORM_API std::string escaped(std::string_view text);

/// "SOURCE FUNCTION: TEXT", escaped, without an end of line. Any thread.
[[nodiscard]] TARN_PLATFORM_API std::string lineBody(const Record& record);

/// "2024-05-31T12:34:56.789012Z LEVEL SOURCE FUNCTION: TEXT", the time in UTC, escaped, without
/// an end of line: what the sinks that write text write. Any thread.
[[nodiscard]] TARN_PLATFORM_API std::string line(const Record& record);

} // namespace Platform::Trace
