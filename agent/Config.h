#pragma once

#include <vector>

#include "agent/Settings.h"
#include "board/BoardFile.h"
#include "board/ServiceOptions.h"

namespace Agent {

/// Everything that can be said about how the agent is to run. A plain value; what configFrom()
/// gives has been checked as a whole.
struct Config : Board::ServiceOptions {
   std::vector<Board::DeviceEntry> cores; ///< at least one, each once
   Settings settings;
};

} // namespace Agent
