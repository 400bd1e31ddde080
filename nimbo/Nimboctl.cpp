#include "nimbo/Nimboctl.h"

#include <chrono>
#include <cstdlib>
#include <ostream>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "board/HelpFormat.h"
#include "board/UsageText.h"
#include "nimbo/Config.h"
#include "nimbo/StatusClient.h"
#include "nimbo/StatusTable.h"
#include "platform/trace/Line.h"

namespace Nimbo {

namespace {

constexpr std::chrono::seconds patience(5);

/// What the environment says, where the command line says nothing.
std::string orElse(const std::string& given, const char* variable, const std::string& otherwise) {
   if (!given.empty()) {
      return given;
   }
   const char* found = std::getenv(variable);
   return found ? found : otherwise;
}

} // namespace

ExitCode runNimboctl(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
   CLI::App app("Asks the SMBus proxy daemon how it is.\n"
                "\n"
                "Examples:\n"
                "  nimboctl status\n"
                "  nimboctl status --socket-dir /run/platform --json",
                "nimboctl");
   Board::helpFormatIs(app);
   app.footer(
      "The daemon is found by its socket, as by its clients. Exit codes: 0 ok; 1 no answer;\n"
      "2 wrong usage. Environment: NM_SOCKET_DIR, NM_SOCKET_FILE.");
   app.set_version_flag("--version", std::string("nimboctl ") + NIMBOD_VERSION);
   app.failure_message([](const CLI::App* parsed, const CLI::Error& error) {
      return Board::usageMessage(*parsed,
                                 Platform::Trace::escaped(Board::usageText(*parsed, error)));
   });
   app.require_subcommand(1);
   app.fallthrough();
   std::string directory;
   std::string file;
   bool json = false;
   app.add_option("--socket-dir", directory,
                  "Directory of the daemon's socket (default NM_SOCKET_DIR, /var/run/platform)")
      ->option_text("DIR");
   app.add_option("--socket-file", file,
                  "Name of the daemon's socket (default NM_SOCKET_FILE, smbus)")
      ->option_text("NAME");
   app.add_flag("--json", json, "Print the JSON document, schema nimbod-status/1");
   app.add_subcommand("status", "Buses and clients of the daemon, and what they did\n"
                                "\n"
                                "Example:\n"
                                "  nimboctl status --json | jq .clients");
   try {
      app.parse(argc, argv);
   } catch (const CLI::ParseError& error) {
      return app.exit(error, out, err) == 0 ? ExitCode::ok : ExitCode::usage;
   }
   const Config defaults;
   const std::string path = orElse(directory, "NM_SOCKET_DIR", defaults.socketDirectory) + '/' +
                            orElse(file, "NM_SOCKET_FILE", defaults.socketFile) + statusSuffix;
   try {
      const nlohmann::ordered_json status = statusFrom(path, patience);
      if (json) {
         out << status.dump(3, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
             << '\n';
      } else {
         out << statusTable(status);
      }
   } catch (const std::exception& error) {
      err << "nimboctl: error: " << Platform::Trace::escaped(error.what()) << '\n';
      return ExitCode::general;
   }
   if (!out.flush()) {
      err << "nimboctl: error: standard output cannot be written\n";
      return ExitCode::general;
   }
   return ExitCode::ok;
}

} // namespace Nimbo
