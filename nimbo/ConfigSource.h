#pragma once

#include <string>

#include "nimbo/Arguments.h"
#include "nimbo/Config.h"

namespace Nimbo {

/// Where the configuration comes from: the command line, else the file that it names, else the
/// environment (NM_SOCKET_DIR and NM_SOCKET_FILE, as clients look for the socket), else what Config
/// has by itself.
///
/// A plain value, for one thread at a time.
class ConfigSource {
public:
   explicit ConfigSource(Arguments arguments) : _arguments(std::move(arguments)) {}

   /// Reads everything anew and changes nothing: at the start, and whenever the daemon is told to
   /// look again, of which only the buses are to be used.
   ///
   /// Buses of the command line replace those of the file. To simulate without naming a bus is to
   /// serve every "/dev/i2c-N" that the file simulates as bus N.
   ///
   /// Throws Board::FileError for what is wrong in the file, UsageError for what the command line
   /// asks for in vain, std::runtime_error for what is wrong with all of it together.
   [[nodiscard]] Config read() const;

   [[nodiscard]] const Arguments& arguments() const noexcept { return _arguments; }

private:
   Arguments _arguments;
};

} // namespace Nimbo
