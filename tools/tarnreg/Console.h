#pragma once

#include <chrono>
#include <cstddef>
#include <istream>
#include <optional>
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

   /// Says of what follows where it comes from: "tarnreg: error: <place>: <text>". Empty for
   /// nothing.
   void placeIs(const std::string& place) { _place = place; }

   /// Shows, in one line that each call and any other message replaces, how far something has come,
   /// if it has taken `progressAfter` so far; never unless that was set.
   void progress(std::size_t done, std::size_t total);

   /// Takes the line away; the end, a message and a question do that by themselves.
   void progressDone() { _clearProgress(); }

   /// Switches progress() on: for a person who sees standard error but not the data coming.
   void progressAfterIs(std::chrono::steady_clock::duration delay) {
      _progressFrom = std::chrono::steady_clock::now() + delay;
   }

   /// Whether progress() is for anybody: standard error is a terminal, and what is printed on
   /// standard output does not show there as it comes.
   static bool progressWanted(bool json);

   /// Asks a question; only "y" or "yes" is a yes, the end of the input is a no.
   bool confirm(std::string_view question);

   /// Writes out the data that is still held back, and says so when it was not all written.
   bool finish();

   /// Whether standard error is to be coloured: not unless it is a terminal, nor with NO_COLOR
   /// set, unless `mode` says otherwise.
   static bool colorWanted(ColorMode mode);

private:
   void _clearProgress();
   void _say(std::string_view kind, std::string_view color, std::string_view text);

   std::istream& _in;
   std::ostream& _data;
   std::ostream& _talk;
   bool _color;
   std::string _place;
   std::optional<std::chrono::steady_clock::time_point> _progressFrom; // next time to show it
   bool _progressShown = false;
};

} // namespace TarnReg
