#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "board/ServiceOptions.h"
#include "board/SimulatedBoard.h"
#include "nimbo/BusConfig.h"

namespace Nimbo {

/// What the name of the socket that the daemon tells its status at has more than that of its
/// socket.
constexpr const char* statusSuffix = ".status";

/// Everything that can be said about how the daemon is to run. A plain value; what ConfigSource
/// gives has been checked as a whole.
struct Config : Board::ServiceOptions {
   std::string socketDirectory = "/var/run/platform";
   std::string socketFile = "smbus";
   mode_t socketMode = 0660;
   std::optional<uid_t> socketOwner = std::nullopt; ///< otherwise the daemon's own
   std::optional<gid_t> socketGroup = std::nullopt;

   /// Who may connect; everybody whom the socket's mode lets, if both are empty.
   std::vector<uid_t> allowedUsers;
   std::vector<gid_t> allowedGroups;
   std::size_t maxConnections = 256;

   std::vector<BusConfig> buses;    ///< at least one
   Board::SimulatedBoard simulated; ///< has the device of each bus that is simulated

   /// How long transactions under way have to end when the daemon is told to stop.
   std::chrono::milliseconds stopTimeout{5000};

   [[nodiscard]] std::string socketPath() const { return socketDirectory + '/' + socketFile; }
};

} // namespace Nimbo
