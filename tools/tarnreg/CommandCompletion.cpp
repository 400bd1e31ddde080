#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <optional>

#include "platform/tables/TableDirectory.h"
#include "tools/tarnreg/Command.h"
#include "tools/tarnreg/Completion.h"
#include "tools/tarnreg/DevicePlace.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/ListOnlyDevice.h"
#include "tools/tarnreg/Printable.h"
#include "tools/tarnreg/ShadowCoreVerbs.h"
#include "tools/tarnreg/ShellWords.h"
#include "tools/tarnreg/Verbs.h"

namespace TarnReg {

namespace {

/// The command that a shell's line ends with: what is behind the last sign that ends another one.
std::string_view lastCommand(std::string_view line) {
   std::size_t begin = 0;
   char quote = 0;
   for (std::size_t i = 0; i < line.size(); ++i) {
      const char c = line[i];
      if (quote != 0) {
         quote = c == quote ? 0 : quote;
      } else if (c == '\\') {
         ++i;
      } else if (c == '\'' || c == '"') {
         quote = c;
      } else if (c == '|' || c == ';' || c == '&' || c == '(') {
         begin = i + 1;
      }
   }
   return line.substr(begin);
}

/// A line as it is being typed.
struct Typed {
   std::vector<std::string> words; // behind the program's name; the last one is to be completed
   bool isQuoted = false;          // whether a quote is open in it
};

std::optional<Typed> typed(const std::string& line) {
   const std::string command(lastCommand(line));
   // With a letter behind it the line ends in a word, whatever it ended in.
   for (const char* end : {"x", "x'", "x\""}) {
      try {
         Typed out{shellWords(command + end), end[1] != 0};
         const auto isSetting = [](const std::string& word) {
            return word.find('=') != std::string::npos;
         };
         const auto name = std::find_if_not(out.words.begin(), out.words.end(), isSetting);
         if (out.words.end() - name < 2) {
            return std::nullopt;
         }
         out.words.erase(out.words.begin(), name + 1);
         out.words.back().pop_back();
         return out;
      } catch (const Failure&) {
         continue; // the quote is another one
      }
   }
   return std::nullopt;
}

/// For a shell's line, with a backslash before what a shell might take for a sign.
std::string escapedForShell(const std::string& word) {
   std::string out;
   for (const char c : word) {
      const bool isPlain = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
                           (c >= 'A' && c <= 'Z') || static_cast<unsigned char>(c) >= 0x80 ||
                           std::string_view("_./:=@%+,-").find(c) != std::string_view::npos;
      out += isPlain ? "" : "\\";
      out += c;
   }
   return out;
}

/// The value of one of these options in a line that may be incomplete.
std::string valueIn(const std::vector<std::string>& words, const std::string& name,
                    const std::string& letter) {
   std::string value;
   for (std::size_t i = 0; i + 1 < words.size(); ++i) {
      if (words[i] == name || words[i] == letter) {
         value = words[i + 1];
      } else if (words[i].starts_with(name + "=")) {
         value = words[i].substr(name.size() + 1);
      }
   }
   return value;
}

} // namespace

std::vector<std::string> Command::_registerNames() const {
   const std::unique_ptr<Device> device = listOnlyDevice(devicePlace(_session.options));
   std::vector<std::string> names;
   for (const auto* record : device->registers()) {
      names.push_back(record->name);
   }
   return names;
}

std::vector<std::string> Command::_deviceNames() const {
   const Board::BoardFile board = boardFile(_session.options);
   std::vector<std::string> names;
   for (const Board::DeviceEntry& device : board.devices()) {
      names.push_back(device.name);
   }
   return names;
}

std::vector<std::string> Command::_namesOf(WordKind kind) const {
   std::vector<std::string> names;
   switch (kind) {
   case WordKind::registers:
   case WordKind::assignments:
   case WordKind::conditions:
      names = _registerNames();
      break;
   case WordKind::devices:
      names = _deviceNames();
      break;
   case WordKind::cores:
   case WordKind::tables:
      names = kind == WordKind::cores ? coresIn(_tableDirectory()) : _tableDirectory().tableNames();
      break;
   case WordKind::types:
      names = typeNames();
      break;
   case WordKind::operations:
      names = operationNames();
      break;
   case WordKind::other:
   case WordKind::file:
      break;
   }
   // A line of the answer is a word; and a terminal shows them.
   std::erase_if(names, [](const std::string& name) { return printable(name) != name; });
   return names;
}

ExitCode Command::complete(const std::vector<std::string>& arguments) {
   std::vector<std::string> words;
   std::string breaks;
   bool isQuoted = true;
   if (arguments.size() == 3 && arguments[0] == "--line") {
      const std::optional<Typed> line = typed(arguments[1]);
      if (!line) {
         return ExitCode::usage;
      }
      words = line->words;
      isQuoted = line->isQuoted;
      breaks = isQuoted ? "" : arguments[2];
   } else if (!arguments.empty() && arguments[0] == "--") {
      words.assign(arguments.begin() + 1, arguments.end());
   } else {
      return ExitCode::usage;
   }
   _session.options.file = valueIn(words, "--file", "-f");
   _session.options.transport = valueIn(words, "--transport", "-t");
   _session.options.device = valueIn(words, "--device", "-d");
   _session.options.board = valueIn(words, "--board", "-b");
   _arguments.tableDirectory = valueIn(words, "--dir", "--dir");
   const Completions found =
      completionsOf(_app, words, [this](WordKind kind) -> std::vector<std::string> {
         try {
            return _namesOf(kind);
         } catch (const std::exception&) {
            return {}; // who types is not to be told of it in the middle of a line
         }
      });
   const std::string word = words.empty() ? "" : words.back();
   const std::size_t last = word.find_last_of(breaks);
   const std::size_t known = breaks.empty() || last == std::string::npos ? 0 : last + 1;
   std::cout << (found.files ? "files" : found.isOpen ? "open" : "words") << '\n';
   for (const std::string& candidate : found.words) {
      const std::string rest = candidate.substr(known);
      std::cout << (isQuoted ? rest : escapedForShell(rest)) << '\n';
   }
   return std::cout.flush() ? ExitCode::ok : ExitCode::general;
}

} // namespace TarnReg
