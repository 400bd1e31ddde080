#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "board/SimulatedBoard.h"
#include "nimbo/BusConfig.h"

namespace Nimbo {

/// What the name of the socket that the daemon tells its status at has more than that of its
/// socket.
constexpr const char* statusSuffix = ".status";

/// Where a program's trace goes.
enum class LogTarget : std::uint8_t { standardError, systemLog };

/// Everything that can be said about how the daemon is to run. A plain value; what ConfigSource
/// gives has been checked as a whole.
struct Config {
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

   std::string metrics;     ///< address to show metrics at; empty for none
   std::string traceLevels; ///< empty: what the environment says
   LogTarget log = LogTarget::standardError;

   /// How long transactions under way have to end when the daemon is told to stop.
   std::chrono::milliseconds stopTimeout{5000};

   [[nodiscard]] std::string socketPath() const { return socketDirectory + '/' + socketFile; }
};

} // namespace Nimbo
