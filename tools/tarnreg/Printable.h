#pragma once

#include <string>
#include <string_view>

namespace TarnReg {

/// `text` with everything escaped that a terminal might obey: control characters, bytes that are
/// not UTF-8, characters that turn the direction of writing. Names come from files that nobody
/// vouches for. The result is always one line; other text stays as it is.
std::string printable(std::string_view text);

/// A register's name as a line shows it: as it is, or quoted when it is empty or holds what
/// printable() escapes.
std::string shownName(std::string_view name);

} // namespace TarnReg
