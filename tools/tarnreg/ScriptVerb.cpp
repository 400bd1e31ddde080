#include "tools/tarnreg/ScriptVerb.h"

#include <fmt/format.h>

#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/ShellWords.h"

namespace TarnReg {

namespace {

/// Gives messages their place in the script, until the end of the scope.
class Place {
public:
   Place(Console& console, const std::string& place) : _console(console) {
      _console.placeIs(place);
   }
   ~Place() { _console.placeIs(""); }
   Place(const Place&) = delete;
   Place& operator=(const Place&) = delete;

private:
   Console& _console;
};

} // namespace

void runScript(std::istream& script, const std::string& name, bool keepGoing,
               const ScriptCommand& command, Console& console, Report& report) {
   std::string line;
   for (std::size_t number = 1; std::getline(script, line); ++number) {
      if (line.ends_with('\r')) {
         line.pop_back();
      }
      const Place place(console, fmt::format("{}:{}", name, number));
      report.lineIs(number);
      ExitCode code = ExitCode::ok;
      try {
         const std::vector<std::string> words = shellWords(line);
         if (words.empty()) {
            continue;
         }
         Report part = command(words);
         code = part.code();
         report.part(part);
      } catch (const Failure& failure) {
         code = failure.code();
         report.failure(code, failure.what());
      }
      if (code != ExitCode::ok && !keepGoing) {
         return;
      }
   }
   if (script.bad()) {
      throw Failure(ExitCode::general, fmt::format("cannot read {}", name));
   }
}

} // namespace TarnReg
