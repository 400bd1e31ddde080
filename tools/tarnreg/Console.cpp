#include "tools/tarnreg/Console.h"

#include <unistd.h>

#include <cstdlib>

#include "tools/tarnreg/Printable.h"

namespace TarnReg {

void Console::progress(std::size_t done, std::size_t total) {
   const auto now = std::chrono::steady_clock::now();
   if (!_progressFrom || now < *_progressFrom) {
      return;
   }
   // Often enough to be seen moving; writing to a terminal takes longer than most reads.
   _progressFrom = now + std::chrono::milliseconds(100);
   _progressShown = true;
   _talk << "\r\033[K" << done << " of " << total << std::flush;
}

void Console::_clearProgress() {
   if (_progressShown) {
      _progressShown = false;
      _talk << "\r\033[K" << std::flush;
   }
}

bool Console::progressWanted(bool json) {
   return ::isatty(STDERR_FILENO) == 1 && (json || ::isatty(STDOUT_FILENO) == 0);
}

bool Console::confirm(std::string_view question) {
   _clearProgress();
   _talk << printable(question) << " [y/N] " << std::flush;
   std::string answer;
   std::getline(_in, answer);
   if (_in.eof()) {
      // Nobody ended the line of the question.
      _talk << std::endl;
   }
   return answer == "y" || answer == "yes";
}

bool Console::finish() {
   _clearProgress();
   _data.flush();
   if (!_data) {
      error("cannot write the output");
   }
   return static_cast<bool>(_data);
}

bool Console::colorWanted(ColorMode mode) {
   if (mode != ColorMode::automatic) {
      return mode == ColorMode::always;
   }
   const char* noColor = std::getenv("NO_COLOR");
   return (!noColor || !*noColor) && ::isatty(STDERR_FILENO) == 1;
}

void Console::_say(std::string_view kind, std::string_view color, std::string_view text) {
   _clearProgress();
   _talk << "tarnreg: ";
   if (_color) {
      _talk << color << kind << ":\033[0m ";
   } else {
      _talk << kind << ": ";
   }
   if (!_place.empty()) {
      _talk << printable(_place) << ": ";
   }
   _talk << printable(text) << std::endl;
}

} // namespace TarnReg
