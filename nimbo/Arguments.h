#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "nimbo/BusConfig.h"
#include "nimbo/Config.h"

namespace Nimbo {

/// What the command line of nimbod says. What it does not say is left to the configuration file.
/// A plain value.
struct Arguments : Board::ServiceArguments {
   std::string configFile;       ///< empty for none
   std::vector<BusConfig> buses; ///< in place of the file's, unless empty
   bool simulate = false;        ///< all buses
   std::optional<std::string> socketDirectory = std::nullopt;
   std::optional<std::string> socketFile = std::nullopt;
   std::optional<mode_t> socketMode = std::nullopt;
   std::optional<std::vector<uid_t>> allowedUsers = std::nullopt;
   std::optional<std::vector<gid_t>> allowedGroups = std::nullopt;
   std::optional<std::size_t> maxConnections = std::nullopt;
};

} // namespace Nimbo
