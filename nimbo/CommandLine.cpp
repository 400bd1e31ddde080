#include "nimbo/CommandLine.h"

#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "board/TomlTable.h"
#include "nimbo/Accounts.h"
#include "nimbo/ConfigValues.h"

namespace Nimbo {

namespace {

// CLI11 takes a word in brackets for a list and strips them off "[::1]:9100". So each word that
// begins with a bracket is parsed with a character in front, which is taken away again.
constexpr char guard = '\x01';

/// The words behind the program's name, last one first, as CLI11 takes them.
std::vector<std::string> guardedWords(int argc, const char* const* argv) {
   std::vector<std::string> words;
   for (int i = argc - 1; i > 0; --i) {
      const std::string word(argv[i]);
      words.push_back(word.starts_with('[') ? guard + word : word);
   }
   return words;
}

std::string unguarded(std::string word) {
   std::erase(word, guard);
   return word;
}

/// An option whose text `take` makes something of; what it throws is an error of usage. It may be
/// repeated if `isList`.
CLI::Option* add(CLI::App& app, const char* name, const char* value, const char* help,
                 std::function<void(const std::string&)> take, bool isList = false) {
   CLI::Option* option = app.add_option_function<std::vector<std::string>>(
      name,
      [name, take = std::move(take)](const std::vector<std::string>& words) {
         for (const std::string& word : words) {
            try {
               take(unguarded(word));
            } catch (const std::exception& error) {
               throw CLI::ValidationError(std::string(name, std::strcspn(name, ",")), error.what());
            }
         }
      },
      help);
   option->option_text(value)->allow_extra_args(false);
   if (isList) {
      option->take_all();
   } else {
      option->multi_option_policy(CLI::MultiOptionPolicy::Throw)->expected(1);
   }
   return option;
}

std::size_t connectionsFrom(const std::string& text) {
   std::size_t number = 0;
   if (!CLI::detail::lexical_cast(text, number) || number < 1 || number > mostConnections) {
      throw std::invalid_argument(
         fmt::format("'{}' is no number from 1 to {}", Board::shown(text), mostConnections));
   }
   return number;
}

void addOptions(CLI::App& app, Arguments& arguments) {
   add(app, "--config,-c", "FILE", "Board file (TOML); its table [nimbod] counts",
       [&](const std::string& text) { arguments.configFile = text; });
   add(
      app, "--bus", "NUMBER=/dev/i2c-N",
      "A bus to serve; several are possible. In place of those of the file",
      [&](const std::string& text) { arguments.buses.push_back(busFrom(text)); }, true);
   app.add_flag("--simulate", arguments.simulate,
                "Simulate all buses as the file's [simulate] says; if no bus is named, serve\n"
                "each simulated /dev/i2c-N as bus N");
   add(app, "--socket-dir", "DIR",
       "Directory of the socket (else the file's, NM_SOCKET_DIR, /var/run/platform)",
       [&](const std::string& text) { arguments.socketDirectory = text; });
   add(app, "--socket-file", "NAME", "Name of the socket (else the file's, NM_SOCKET_FILE, smbus)",
       [&](const std::string& text) { arguments.socketFile = socketFileFrom(text); });
   add(app, "--socket-mode", "MODE", "Permissions of the socket, in octal (default 0660)",
       [&](const std::string& text) { arguments.socketMode = socketModeFrom(text); });
   add(
      app, "--allow-user", "USER", "Who may connect, by name or number; several are possible",
      [&](const std::string& text) {
         const uid_t user = userFrom(text);
         arguments.allowedUsers = arguments.allowedUsers.value_or(std::vector<uid_t>());
         arguments.allowedUsers->push_back(user);
      },
      true);
   add(
      app, "--allow-group", "GROUP", "Whose members may connect; several are possible",
      [&](const std::string& text) {
         const gid_t group = groupFrom(text);
         arguments.allowedGroups = arguments.allowedGroups.value_or(std::vector<gid_t>());
         arguments.allowedGroups->push_back(group);
      },
      true);
   add(app, "--max-connections", "N", "How many may be connected at a time (default 256)",
       [&](const std::string& text) { arguments.maxConnections = connectionsFrom(text); });
   add(app, "--metrics", "ADDRESS:PORT", "Show metrics over HTTP; a port alone is of the loopback",
       [&](const std::string& text) { arguments.metrics = metricsAddressFrom(text); });
   add(app, "--trace", "0..9|SPEC", "Trace everything up to a level, or sources as TARN_TRACE does",
       [&](const std::string& text) { arguments.traceLevels = traceLevelsFrom(text); });
   add(app, "--log", "stderr|syslog", "Where the trace goes (default stderr)",
       [&](const std::string& text) { arguments.log = logTargetFrom(text); });
   app.add_flag("--check", arguments.check, "Only read the configuration and say what is wrong");
}

} // namespace

std::optional<ExitCode> parseCommandLine(int argc, const char* const* argv, Arguments& arguments) {
   CLI::App app(
      "The SMBus proxy daemon: many programs on the I2C buses of a board, each transaction\n"
      "whole and everybody in turn.",
      "nimbod");
   app.footer("Exit codes: 0 stopped as told, or nothing found by --check; 1 any failure; 2 wrong\n"
              "usage. Signals: TERM and INT stop, HUP reads the buses anew. Environment:\n"
              "NM_SOCKET_DIR, NM_SOCKET_FILE (where clients look for the socket), TARN_TRACE.");
   app.set_version_flag("--version", std::string("nimbod ") + NIMBOD_VERSION);
   app.failure_message([](const CLI::App* /*app*/, const CLI::Error& error) {
      return fmt::format("nimbod: error: {}\nRun nimbod --help for the command line.\n",
                         unguarded(error.what()));
   });
   addOptions(app, arguments);
   try {
      app.parse(guardedWords(argc, argv));
   } catch (const CLI::ParseError& error) {
      return app.exit(error) == 0 ? ExitCode::ok : ExitCode::usage;
   }
   return std::nullopt;
}

} // namespace Nimbo
