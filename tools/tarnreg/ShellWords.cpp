#include "tools/tarnreg/ShellWords.h"

#include <fmt/format.h>

#include "tools/tarnreg/Failure.h"

namespace TarnReg {

namespace {

bool isBlank(char c) {
   return c == ' ' || c == '\t';
}

/// Takes a line apart, from its beginning on.
class Words {
public:
   explicit Words(std::string_view line) : _line(line) {}

   std::vector<std::string> all() {
      while (_skipBlanks()) {
         _words.emplace_back();
         while (_at < _line.size() && !isBlank(_line[_at])) {
            _piece();
         }
      }
      return std::move(_words);
   }

private:
   /// Whether there is another word.
   bool _skipBlanks() {
      while (_at < _line.size() && isBlank(_line[_at])) {
         ++_at;
      }
      return _at < _line.size() && _line[_at] != '#';
   }

   void _piece() {
      const char c = _line[_at];
      if (c == '\'' || c == '"') {
         _quoted(c);
      } else {
         _character();
      }
   }

   void _quoted(char quote) {
      const std::size_t begin = _at++;
      while (_at < _line.size() && _line[_at] != quote) {
         // As in a shell: between double quotes a backslash means the two alone.
         const bool escapes = quote == '"' && _line[_at] == '\\' && _at + 1 < _line.size() &&
                              (_line[_at + 1] == '"' || _line[_at + 1] == '\\');
         if (escapes) {
            ++_at;
         }
         _words.back() += _line[_at++];
      }
      if (_at++ >= _line.size()) {
         throw Failure(ExitCode::usage,
                       fmt::format("the quote in column {} is not closed", begin + 1));
      }
   }

   void _character() {
      if (_line[_at] == '\\' && ++_at == _line.size()) {
         throw Failure(ExitCode::usage, "nothing is behind the backslash at the end");
      }
      _words.back() += _line[_at++];
   }

   std::string_view _line;
   std::size_t _at = 0;
   std::vector<std::string> _words;
};

} // namespace

std::vector<std::string> shellWords(std::string_view line) {
   return Words(line).all();
}

} // namespace TarnReg
