#include "nimbo/ConfigSource.h"

#include <sys/un.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <set>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

#include "board/TomlTable.h"
#include "nimbo/ConfigFile.h"
#include "nimbo/ConfigValues.h"
#include "nimbo/UsageError.h"

namespace Nimbo {

namespace {

constexpr const char* directoryVariable = "NM_SOCKET_DIR";
constexpr const char* fileVariable = "NM_SOCKET_FILE";

Config fromEnvironment() {
   Config config;
   if (const char* directory = std::getenv(directoryVariable)) {
      config.socketDirectory = directory;
   }
   if (const char* file = std::getenv(fileVariable)) {
      config.socketFile = file;
   }
   return config;
}

template <typename Value>
void replace(Value& value, const std::optional<Value>& by) {
   if (by) {
      value = *by;
   }
}

/// Every simulated bus under its own number.
std::vector<BusConfig> busesOf(const Board::SimulatedBoard& board) {
   std::vector<BusConfig> buses;
   std::set<std::string> seen;
   for (const Board::I2cSpec& spec : board.i2c) {
      if (!seen.insert(spec.bus).second) {
         continue;
      }
      const unsigned number = i2cBusNumber(spec.bus).value_or(mostBusNumber + 1U);
      if (number > mostBusNumber) {
         throw std::runtime_error(
            fmt::format("the simulated {} has no number from 0 to {}: give it one with --bus or in "
                        "a table [nimbod.buses.NAME]",
                        spec.bus, mostBusNumber));
      }
      BusConfig bus;
      bus.number = static_cast<std::uint8_t>(number);
      bus.name = fmt::format("bus{}", number);
      bus.device = spec.bus;
      bus.simulated = true;
      buses.push_back(std::move(bus));
   }
   std::sort(buses.begin(), buses.end(), [](const BusConfig& left, const BusConfig& right) {
      return left.number < right.number;
   });
   return buses;
}

void checkSocketPath(const Config& config) {
   constexpr std::size_t longest = sizeof(sockaddr_un::sun_path) - 1;
   if (config.socketDirectory.empty() || config.socketDirectory.find('\0') != std::string::npos) {
      throw std::runtime_error("the socket's directory has no name");
   }
   // From the environment it comes unchecked.
   (void)socketFileFrom(config.socketFile);
   const std::string path = config.socketPath();
   if (path.size() > longest) {
      throw std::runtime_error(fmt::format("the socket's path is {} bytes long, of which a socket "
                                           "can have {}: {}",
                                           path.size(), longest, path));
   }
}

} // namespace

Config ConfigSource::read() const {
   Config config = fromEnvironment();
   bool simulate = _arguments.simulate;
   std::optional<ConfigFile> file;
   if (!_arguments.configFile.empty()) {
      file.emplace(_arguments.configFile);
      simulate = file->readInto(config, simulate);
   } else if (simulate) {
      throw UsageError("--simulate needs --config: the file that says what to simulate");
   }
   replace(config.socketDirectory, _arguments.socketDirectory);
   replace(config.socketFile, _arguments.socketFile);
   replace(config.socketMode, _arguments.socketMode);
   replace(config.allowedUsers, _arguments.allowedUsers);
   replace(config.allowedGroups, _arguments.allowedGroups);
   replace(config.maxConnections, _arguments.maxConnections);
   _arguments.replaceIn(config);
   checkSocketPath(config);

   if (!_arguments.buses.empty()) {
      config.buses = _arguments.buses;
      for (BusConfig& bus : config.buses) {
         bus.simulated = simulate;
      }
   }
   const bool anySimulated =
      simulate || std::any_of(config.buses.begin(), config.buses.end(),
                              [](const BusConfig& bus) { return bus.simulated; });
   if (anySimulated) {
      config.simulated = file->simulated();
   }
   if (simulate && config.buses.empty()) {
      config.buses = busesOf(config.simulated);
   }
   for (const BusConfig& bus : _arguments.buses) {
      if (rivalOf(bus, _arguments.buses)) {
         throw UsageError(fmt::format("--bus: there are two buses {}", bus.number));
      }
      if (simulate) {
         try {
            checkSimulated(bus.device, config.simulated);
         } catch (const std::invalid_argument& error) {
            throw UsageError(fmt::format("--bus: {}", error.what()));
         }
      }
   }
   if (config.buses.empty()) {
      throw std::runtime_error(
         simulate ? fmt::format("{}: no I2C bus is simulated", _arguments.configFile)
                  : "there is no bus to serve: neither --bus nor a table "
                    "[nimbod.buses.NAME] names one");
   }
   return config;
}

} // namespace Nimbo
