#include "nimbo/CommandLine.h"

#include <charconv>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "board/Accounts.h"
#include "board/Number.h"
#include "board/ServiceCommandLine.h"
#include "board/TomlTable.h"
#include "nimbo/ConfigValues.h"

namespace Nimbo {

namespace {

using Board::ServiceCommandLine;

std::size_t connectionsFrom(const std::string& text) {
   const auto number = Board::numberFrom(text);
   if (!number || *number < 1 || *number > mostConnections) {
      throw std::invalid_argument(
         fmt::format("'{}' is no number from 1 to {}", Board::shown(text), mostConnections));
   }
   return *number;
}

void addOptions(ServiceCommandLine& line, Arguments& arguments) {
   using Times = ServiceCommandLine::Times;
   line.option("--config,-c", "FILE", "Board file (TOML); its table [nimbod] counts",
               [&](const std::string& text) { arguments.configFile = text; });
   line.option(
      "--bus", "NUMBER=/dev/i2c-N",
      "A bus to serve; several are possible. In place of those of the file",
      [&](const std::string& text) { arguments.buses.push_back(busFrom(text)); }, Times::many);
   line.flag("--simulate", arguments.simulate,
             "Simulate all buses as the file's [simulate] says; if no bus is named, serve\n"
             "each simulated /dev/i2c-N as bus N");
   line.option("--socket-dir", "DIR",
               "Directory of the socket (else the file's, NM_SOCKET_DIR, /var/run/platform)",
               [&](const std::string& text) { arguments.socketDirectory = text; });
   line.option("--socket-file", "NAME",
               "Name of the socket (else the file's, NM_SOCKET_FILE, smbus)",
               [&](const std::string& text) { arguments.socketFile = socketFileFrom(text); });
   line.option("--socket-mode", "MODE", "Permissions of the socket, in octal (default 0660)",
               [&](const std::string& text) { arguments.socketMode = socketModeFrom(text); });
   line.option(
      "--allow-user", "USER", "Who may connect, by name or number; several are possible",
      [&](const std::string& text) {
         const uid_t user = Board::userFrom(text);
         arguments.allowedUsers = arguments.allowedUsers.value_or(std::vector<uid_t>());
         arguments.allowedUsers->push_back(user);
      },
      Times::many);
   line.option(
      "--allow-group", "GROUP", "Whose members may connect; several are possible",
      [&](const std::string& text) {
         const gid_t group = Board::groupFrom(text);
         arguments.allowedGroups = arguments.allowedGroups.value_or(std::vector<gid_t>());
         arguments.allowedGroups->push_back(group);
      },
      Times::many);
   line.option("--max-connections", "N", "How many may be connected at a time (default 256)",
               [&](const std::string& text) { arguments.maxConnections = connectionsFrom(text); });
   line.serviceOptions(arguments);
}

} // namespace

std::optional<ExitCode> parseCommandLine(int argc, const char* const* argv, Arguments& arguments) {
   ServiceCommandLine line(
      "nimbod",
      "The SMBus proxy daemon: many programs on the I2C buses of a board, each transaction\n"
      "whole and everybody in turn.\n"
      "\n"
      "Examples:\n"
      "  nimbod --config /etc/nimbod.toml\n"
      "  nimbod --bus 3=/dev/i2c-3 --socket-dir /run/platform\n"
      "  nimbod --config board.toml --check",
      "Exit codes: 0 stopped as told, or nothing found by --check; 1 any failure; 2 wrong\n"
      "usage. Signals: TERM and INT stop, HUP reads the buses anew. Environment:\n"
      "NM_SOCKET_DIR, NM_SOCKET_FILE (where clients look for the socket), TARN_TRACE.",
      NIMBOD_VERSION);
   addOptions(line, arguments);
   switch (line.parse(argc, argv)) {
   case ServiceCommandLine::Outcome::told:
      return ExitCode::ok;
   case ServiceCommandLine::Outcome::wrong:
      return ExitCode::usage;
   case ServiceCommandLine::Outcome::parsed:
      break;
   }
   return std::nullopt;
}

} // namespace Nimbo
