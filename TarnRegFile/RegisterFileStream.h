#pragma once

#include <fstream>

#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// Opens a register list for reading. Internal. A directory opens but cannot be read, and a device
/// node may never end: both are refused like a file that does not open. Throws std::system_error
/// with errno (system category), "Error opening CSV file {}".
std::ifstream openRegisterFile(const String& path);

/// Reads the first line and says whether it is the header that it must be. Looks at the first
/// characters before it reads the line as a whole, so that a large file of another kind is refused
/// at once. `buffer` is used for reading.
bool readRegisterFileHeader(std::ifstream& in, String& buffer);

/// Tells the end of the file from a failure to read on. Throws std::system_error with errno
/// (system category), "Error reading CSV file {}".
void checkReadToEnd(const std::ifstream& in, const String& path);

} // namespace TarnRegFile
