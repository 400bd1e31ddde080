#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "board/ServiceOptions.h"

namespace Agent {

/// What the command line of tarn-shadowd says. What it does not say is left to the board file. A
/// plain value.
struct Arguments : Board::ServiceArguments {
   std::string boardFile;
   std::vector<std::string> cores;            ///< in place of the file's, unless empty
   std::optional<gid_t> group = std::nullopt; ///< of the tables
   bool othersRead = false;                   ///< whether everybody may read them
};

} // namespace Agent
