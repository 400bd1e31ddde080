#pragma once

#include <string>
#include <vector>

#include "tools/tarnsim/ExitCode.h"

namespace TarnSim {

/// Says one command, given as words, to the tarnsim that listens at `socket`, and prints the
/// answer. Throws Failure when there is nobody.
ExitCode runControlClient(const std::string& socket, const std::vector<std::string>& words);

} // namespace TarnSim
