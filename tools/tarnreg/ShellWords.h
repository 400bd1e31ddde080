#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace TarnReg {

/// The words of a line, taken apart as a shell does: blanks separate, quotes and backslashes keep
/// together, and a # at the beginning of a word begins a comment. Nothing is expanded. Throws
/// Failure (usage) for a quote that is not closed and a backslash behind which nothing is.
std::vector<std::string> shellWords(std::string_view line);

} // namespace TarnReg
