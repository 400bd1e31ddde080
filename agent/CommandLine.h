#pragma once

#include <optional>

#include "agent/Arguments.h"
#include "agent/ExitCode.h"

namespace Agent {

/// Parses the command line of tarn-shadowd into `arguments`. Returns nothing if there is work to
/// do, and otherwise what to exit with: after --help or --version, which have been printed on
/// standard output, or a wrong command line, of which standard error has been told.
std::optional<ExitCode> parseCommandLine(int argc, const char* const* argv, Arguments& arguments);

} // namespace Agent
