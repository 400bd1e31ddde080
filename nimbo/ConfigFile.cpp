#include "nimbo/ConfigFile.h"

#include <stdexcept>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "board/Accounts.h"
#include "board/SimulatedBoardParser.h"
#include "board/TomlTable.h"
#include "nimbo/ConfigValues.h"

namespace Nimbo {

namespace {

using Board::shown;
using Board::TomlTable;

constexpr std::uint64_t mostStopTimeout = 3'600'000; // an hour, in milliseconds
constexpr std::uint64_t busTimeoutStep = 10;         // what controllers' drivers count in
constexpr std::uint64_t mostBusTimeout = 60'000;
constexpr std::uint64_t mostRetries = 100;
constexpr std::size_t longestName = 64;

/// What `convert` makes of the text under `key`, if there is one; what it throws becomes an error
/// of that place.
template <typename Convert>
auto converted(TomlTable& table, std::string_view key, const Convert& convert)
   -> std::optional<decltype(convert(std::string()))> {
   const toml::node* node = table.take(key);
   if (!node) {
      return std::nullopt;
   }
   const std::string text = table.text(*node, key);
   try {
      return convert(text);
   } catch (const std::invalid_argument& error) {
      table.fail(node->source(), error.what());
   } catch (const std::system_error& error) {
      table.fail(node->source(), error.what());
   }
}

template <typename Id>
using AccountFrom = Id (*)(const TomlTable&, const toml::node&, std::string_view);

template <typename Id>
void takeAccounts(TomlTable& table, std::string_view key, AccountFrom<Id> from,
                  std::vector<Id>& ids) {
   const toml::node* node = table.take(key);
   if (!node) {
      return;
   }
   if (!node->is_array()) {
      table.fail(node->source(), fmt::format("'{}' must be an array of names and numbers", key));
   }
   ids.clear();
   for (const toml::node& one : *node->as_array()) {
      ids.push_back(from(table, one, key));
   }
}

template <typename Id>
void takeAccount(TomlTable& table, std::string_view key, AccountFrom<Id> from,
                 std::optional<Id>& id) {
   if (const toml::node* node = table.take(key)) {
      id = from(table, *node, key);
   }
}

void takeSocket(TomlTable& table, Config& config) {
   if (const toml::node* node = table.take("socket_dir")) {
      config.socketDirectory = table.text(*node, "socket_dir");
      if (config.socketDirectory.empty()) {
         table.fail(node->source(), "'socket_dir' must not be empty");
      }
   }
   if (auto file = converted(table, "socket_file", socketFileFrom)) {
      config.socketFile = std::move(*file);
   }
   if (const auto mode = converted(table, "socket_mode", socketModeFrom)) {
      config.socketMode = *mode;
   }
   takeAccount<uid_t>(table, "socket_owner", Board::userFrom, config.socketOwner);
   takeAccount<gid_t>(table, "socket_group", Board::groupFrom, config.socketGroup);
   takeAccounts<uid_t>(table, "allow_users", Board::userFrom, config.allowedUsers);
   takeAccounts<gid_t>(table, "allow_groups", Board::groupFrom, config.allowedGroups);
   config.maxConnections =
      table.number("max_connections", 1, mostConnections, config.maxConnections);
}

void takeRest(TomlTable& table, Config& config) {
   config.takeFrom(table);
   config.stopTimeout = std::chrono::milliseconds(
      table.number("stop_timeout_ms", 0, mostStopTimeout,
                   static_cast<std::uint64_t>(config.stopTimeout.count())));
}

BusConfig busOf(TomlTable& table, const std::string& name, bool simulate) {
   BusConfig bus;
   bus.name = name;
   bus.number = static_cast<std::uint8_t>(table.neededNumber("number", 0, mostBusNumber));
   bus.device = table.text(table.need("device"), "device");
   // Taken before it is decided: the key is right even where it says nothing new.
   bus.simulated = table.flag("simulate", false) || simulate;
   if (!bus.simulated && !bus.device.starts_with('/')) {
      table.failAt("device", "'device' must be an absolute path, as \"/dev/i2c-3\" is");
   }
   if (const toml::node* node = table.take("controller")) {
      bus.controller =
         static_cast<std::uint16_t>(table.number(*node, "controller", 0, mostController));
   }
   bus.pciBdf = converted(table, "pci", pciBdfFrom);
   if (const toml::node* node = table.take("timeout_ms")) {
      const std::uint64_t timeout =
         table.number(*node, "timeout_ms", busTimeoutStep, mostBusTimeout);
      if (timeout % busTimeoutStep != 0) {
         table.fail(node->source(),
                    fmt::format("'timeout_ms' must be a multiple of {}", busTimeoutStep));
      }
      bus.timeout = std::chrono::milliseconds(timeout);
   }
   if (const toml::node* node = table.take("retries")) {
      bus.retries = static_cast<unsigned>(table.number(*node, "retries", 0, mostRetries));
   }
   table.finish();
   return bus;
}

} // namespace

ConfigFile::ConfigFile(const std::string& path) : _path(path), _root(Board::tomlFromFile(path)) {}

ConfigFile::ConfigFile(std::string_view text, const std::string& path)
   : _path(path), _root(Board::tomlFromText(text, path)) {}

Board::SimulatedBoard ConfigFile::simulated() const {
   return Board::simulatedBoardFromToml(_root, _path);
}

bool ConfigFile::readInto(Config& config, bool simulate) const {
   config.buses.clear();
   const toml::node* node = _root.get("nimbod");
   if (!node) {
      return simulate;
   }
   const TomlTable file(_path, _root, "the file");
   if (!node->is_table()) {
      file.fail(node->source(), "'nimbod' must be a table");
   }
   TomlTable table(_path, *node->as_table(), "[nimbod]");
   takeSocket(table, config);
   takeRest(table, config);
   simulate = table.flag("simulate", false) || simulate;
   const toml::node* buses = table.take("buses");
   table.finish();
   if (!buses) {
      return simulate;
   }
   if (!buses->is_table()) {
      file.fail(buses->source(), "'nimbod.buses' must be a table of buses");
   }
   std::optional<Board::SimulatedBoard> board;
   for (const auto& [key, value] : *buses->as_table()) {
      const std::string name(key.str());
      if (name.empty() || name.size() > longestName ||
          name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                                 "_-.") != std::string::npos) {
         file.fail(key.source(), fmt::format("'{}' is no name for a bus: up to {} letters, digits, "
                                             "'_', '-' and '.'",
                                             shown(name), longestName));
      }
      if (!value.is_table()) {
         file.fail(value.source(), fmt::format("'{}' must be a table", name));
      }
      if (config.buses.size() == mostBuses) {
         file.fail(key.source(), fmt::format("more than {} buses", mostBuses));
      }
      TomlTable one(_path, *value.as_table(), fmt::format("[nimbod.buses.{}]", name));
      BusConfig bus = busOf(one, name, simulate);
      if (const BusConfig* rival = rivalOf(bus, config.buses)) {
         one.failAt("number", fmt::format("a request for bus {} could be for '{}' as well as for "
                                          "'{}': they need different numbers, controllers or PCI "
                                          "functions",
                                          bus.number, rival->name, bus.name));
      }
      if (bus.simulated) {
         if (!board) {
            board = simulated();
         }
         try {
            checkSimulated(bus.device, *board);
         } catch (const std::invalid_argument& error) {
            one.failAt("device", error.what());
         }
      }
      config.buses.push_back(std::move(bus));
   }
   return simulate;
}

} // namespace Nimbo
