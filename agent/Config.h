#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/Settings.h"
#include "board/BoardFile.h"

namespace Agent {

/// Where the trace goes.
enum class LogTarget : std::uint8_t { standardError, systemLog };

/// Everything that can be said about how the agent is to run. A plain value; what configFrom()
/// gives has been checked as a whole.
struct Config {
   std::vector<Board::DeviceEntry> cores; ///< at least one, each once
   Settings settings;
   std::string metrics;     ///< address to show metrics at; empty for none
   std::string traceLevels; ///< empty: what the environment says
   LogTarget log = LogTarget::standardError;
};

} // namespace Agent
