#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "tools/tarnreg/Arguments.h"
#include "tools/tarnreg/Completion.h"
#include "tools/tarnreg/ExitCode.h"
#include "tools/tarnreg/Options.h"
#include "tools/tarnreg/Report.h"
#include "tools/tarnreg/Session.h"

/// Private to the command line.
namespace TarnReg {

/// Turns one of these words into its number, as the options' enumerations are parsed.
template <typename Enum>
CLI::Validator oneOf(const std::vector<std::pair<std::string, Enum>>& choices) {
   return CLI::Validator(
      [choices](std::string& word) {
         std::string known;
         for (const auto& [name, value] : choices) {
            if (name == CLI::detail::to_lower(word)) {
               word = std::to_string(static_cast<int>(value));
               return std::string();
            }
            known += (known.empty() ? "" : ", ") + name;
         }
         return fmt::format("'{}' is none of {}", word, known);
      },
      "");
}

/// What a number of rounds or of changes has to be.
CLI::Validator countCheck();

/// What takes the character away again that guards a word in brackets; see guardedWords().
CLI::Validator unguarded();

/// `words` in the order in which CLI11 takes them, last one first, in a form in which it leaves
/// brackets alone: of those that stand in brackets the options get, through unguarded(), what was
/// there.
std::vector<std::string> guardedWords(const std::vector<std::string>& words);

/// What the help of each verb ends with.
inline constexpr const char* verbFooter =
   "--file, --device, --json and the other options of every verb, exit codes and environment\n"
   "are in: tarnreg --help";

std::chrono::steady_clock::duration seconds(double number);

/// One command line: what may be on it, and what is to be done then.
class Command {
public:
   enum class Kind {
      process,   ///< of a process, with all verbs
      scriptLine ///< of a line of a script: what works on the device, which is open
   };

   /// `session` outlives it.
   explicit Command(Session& session, Kind kind = Kind::process);
   Command(const Command&) = delete;
   Command& operator=(const Command&) = delete;

   /// Carries out the command line of `words`, those behind the program's name.
   ExitCode run(const std::vector<std::string>& words);

   /// Carries out the line of a script, without printing the document, if that is what is asked
   /// for.
   Report runLine(const std::vector<std::string>& words);

   /// Prints what the last word of a command line that is being typed may be completed to, for a
   /// shell: of a whole line with "--line LINE BREAKS", of words with "-- WORD...". The first line
   /// printed is "words", "files" or "open" (the word goes on), and then each is a word.
   ExitCode complete(const std::vector<std::string>& arguments);

private:
   std::vector<std::string> _registerNames() const;
   std::vector<std::string> _deviceNames() const;
   std::vector<std::string> _namesOf(WordKind kind) const;
   void _processIs();
   void _scriptLineIs();
   void _globalOptions();
   void _verbs();
   void _accessVerbs();
   void _lookVerbs();
   void _listVerbs();
   void _checkVerb();
   void _exportVerb();
   void _topVerb();
   void _top(Report& report);
   void _scriptVerb();
   void _script(Report& report);
   void _jsonLines(CLI::App& verb);
   void _tableVerbs();
   void _shadowVerbs();
   void _shadowOrderVerbs(CLI::App& shadow);
   void _shadowCoreVerbs(CLI::App& shadow);
   std::vector<std::string> _cores(bool needed) const;
   ShadowView& _shadowView();
   CLI::App* _verb(const char* name, const char* list, const char* help,
                   std::function<void(Report&)> action);
   CLI::App* _subVerb(CLI::App& parent, const char* name, const char* list, const char* help,
                      std::function<void(Report&)> action);
   Platform::Tables::TableDirectory _tableDirectory() const;
   static CLI::Option* _words(CLI::App& verb, const char* name, std::vector<std::string>& words,
                              const char* help);
   void _diff(Report& report);
   void _export(Report& report);
   void _accessTimeout(CLI::App& verb);
   void _bound(Device& device) const;
   static void _seconds(CLI::App& verb, const char* name, double& value, const char* help);
   void _installTrace();
   bool _writesValues() const;
   Device& _device(const Device* other = nullptr);
   Console& _talk();
   Report _report() const;
   void _runVerb(Report& report);

   Session& _session;
   CLI::App _app;
   Arguments _arguments;
   std::string _verbName;
   std::string _listName;
   std::function<void(Report&)> _action;
   std::unique_ptr<ShadowView> _shadow;
};

} // namespace TarnReg
