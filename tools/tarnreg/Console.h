#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <string_view>

namespace TarnReg {

/// When to colour what is said on standard error.
enum class ColorMode { automatic, always, never };

/// The command's three streams. Standard output carries data only, standard error what is said
/// to a person.
class Console {
public:
   Console(std::istream& in, std::ostream& data, std::ostream& talk, bool color)
      : _in(in), _data(data), _talk(talk), _color(color) {}

   std::ostream& data() noexcept { return _data; }

   /// "tarnreg: error: <text>", in one line, with what a terminal might obey escaped.
   void error(std::string_view text) { _say("error", "\033[1;31m", text); }
   void warning(std::string_view text) { _say("warning", "\033[1;33m", text); }
   void note(std::string_view text) { _say("note", "\033[1m", text); }

   /// Asks a question; only "y" or "yes" is a yes, the end of the input is a no.
   bool confirm(std::string_view question);

   /// Writes out the data that is still held back, and says so when it was not all written.
   bool finish();

   /// Whether standard error is to be coloured: not unless it is a terminal, nor with NO_COLOR
   /// set, unless `mode` says otherwise.
   static bool colorWanted(ColorMode mode);

private:
   void _say(std::string_view kind, std::string_view color, std::string_view text);

   std::istream& _in;
   std::ostream& _data;
   std::ostream& _talk;
   bool _color;
};

} // namespace TarnReg
