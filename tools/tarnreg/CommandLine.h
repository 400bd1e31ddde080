#pragma once

#include "tools/tarnreg/ExitCode.h"

namespace TarnReg {

/// Runs the command as `argv` says, on the process's own streams, and returns its exit code.
ExitCode runCommandLine(int argc, char** argv);

} // namespace TarnReg
