#include "board/ServiceCommandLine.h"

#include <cstring>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "board/HelpFormat.h"
#include "board/UsageText.h"

namespace Board {

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

} // namespace

ServiceCommandLine::ServiceCommandLine(const std::string& name, const std::string& description,
                                       const std::string& footer, const std::string& version)
   : _app(std::make_unique<CLI::App>(description, name)) {
   helpFormatIs(*_app);
   _app->footer(footer);
   _app->set_version_flag("--version", fmt::format("{} {}", name, version));
   _app->failure_message([](const CLI::App* app, const CLI::Error& error) {
      return usageMessage(*app, unguarded(usageText(*app, error)));
   });
}

ServiceCommandLine::~ServiceCommandLine() = default;

void ServiceCommandLine::option(const char* names, const char* value, const char* help, Take take,
                                Times times) {
   CLI::Option* option = _app->add_option_function<std::vector<std::string>>(
      names,
      [names, take = std::move(take)](const std::vector<std::string>& words) {
         for (const std::string& word : words) {
            try {
               take(unguarded(word));
            } catch (const std::exception& error) {
               throw CLI::ValidationError(std::string(names, std::strcspn(names, ",")),
                                          error.what());
            }
         }
      },
      help);
   option->option_text(value)->allow_extra_args(false);
   if (times == Times::many) {
      option->take_all();
      return;
   }
   option->multi_option_policy(CLI::MultiOptionPolicy::Throw)->expected(1);
   option->required(times == Times::needed);
}

void ServiceCommandLine::flag(const char* name, bool& value, const char* help) {
   _app->add_flag(name, value, help);
}

void ServiceCommandLine::serviceOptions(ServiceArguments& arguments) {
   option("--metrics", "ADDRESS:PORT", "Show metrics over HTTP; a port alone is of the loopback",
          [&](const std::string& text) { arguments.metrics = metricsAddressFrom(text); });
   option("--trace", "0..9|SPEC", "Trace everything up to a level, or sources as TARN_TRACE does",
          [&](const std::string& text) { arguments.traceLevels = traceLevelsFrom(text); });
   option("--log", "stderr|syslog", "Where the trace goes (default stderr)",
          [&](const std::string& text) { arguments.log = logTargetFrom(text); });
   flag("--check", arguments.check, "Only read the configuration and say what is wrong");
}

ServiceCommandLine::Outcome ServiceCommandLine::parse(int argc, const char* const* argv) {
   try {
      _app->parse(guardedWords(argc, argv));
   } catch (const CLI::ParseError& error) {
      return _app->exit(error) == 0 ? Outcome::told : Outcome::wrong;
   }
   return Outcome::parsed;
}

} // namespace Board
