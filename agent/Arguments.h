#pragma once

#include <optional>
#include <string>
#include <vector>

#include "agent/Config.h"

namespace Agent {

/// What the command line of tarn-shadowd says. What it does not say is left to the board file. A
/// plain value.
struct Arguments {
   std::string boardFile;
   std::vector<std::string> cores; ///< in place of the file's, unless empty
   std::optional<std::string> metrics = std::nullopt;
   std::optional<std::string> traceLevels = std::nullopt;
   std::optional<LogTarget> log = std::nullopt;
   bool check = false; ///< only read the configuration
};

} // namespace Agent
