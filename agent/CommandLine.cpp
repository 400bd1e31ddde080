#include "agent/CommandLine.h"

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "agent/ConfigSource.h"

namespace Agent {

namespace {

// CLI11 takes a word in brackets for a list and strips them off "[::1]:9100". So each word that
// begins with a bracket is parsed with a character in front, which is taken away again.
constexpr char guard = '\x01';

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

/// An option whose text `take` makes something of; what it throws is an error of usage.
CLI::Option* add(CLI::App& app, const char* name, const char* value, const char* help,
                 std::function<void(const std::string&)> take) {
   return app
      .add_option_function<std::vector<std::string>>(
         name,
         [name, take = std::move(take)](const std::vector<std::string>& words) {
            for (const std::string& word : words) {
               try {
                  take(unguarded(word));
               } catch (const std::exception& error) {
                  throw CLI::ValidationError(name, error.what());
               }
            }
         },
         help)
      ->option_text(value)
      ->allow_extra_args(false)
      ->take_all();
}

void addOptions(CLI::App& app, Arguments& arguments) {
   add(app, "--board", "FILE", "Board file (TOML); its table [shadow] counts",
       [&](const std::string& text) { arguments.boardFile = text; })
      ->required()
      ->expected(1);
   add(app, "--core", "NAME",
       "A device of the board file to look after; several are possible. In place of\nthose of "
       "the file",
       [&](const std::string& text) { arguments.cores.push_back(text); });
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
   CLI::App app("The shadow agent: owns cores of a board, keeps their registers in shared tables,\n"
                "and writes to the hardware what clients want.",
                "tarn-shadowd");
   app.footer("Exit codes: 0 stopped as told, or nothing found by --check; 1 any failure; 2 wrong\n"
              "usage; 4 another agent owns a core. Signals: TERM and INT stop, HUP begins a new\n"
              "generation of all cores. Environment: TARN_TABLE_DIR (where the tables are),\n"
              "TARN_TRACE.");
   app.set_version_flag("--version", std::string("tarn-shadowd ") + SHADOWD_VERSION);
   app.failure_message([](const CLI::App* /*app*/, const CLI::Error& error) {
      return fmt::format("tarn-shadowd: error: {}\nRun tarn-shadowd --help for the command line.\n",
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

} // namespace Agent
