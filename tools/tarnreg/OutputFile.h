#pragma once

#include <string>

namespace TarnReg {

/// Makes `text` what is in the file at `path`: all of it or, when that fails, what was there before
/// remains. A device or a pipe is written as it is. Throws Failure (general).
void writeOutputFile(const std::string& path, const std::string& text);

} // namespace TarnReg
