#include "tools/tarnreg/Console.h"

#include <unistd.h>

#include <cstdlib>

#include "tools/tarnreg/Printable.h"

namespace TarnReg {

bool Console::confirm(std::string_view question) {
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
   _talk << "tarnreg: ";
   if (_color) {
      _talk << color << kind << ":\033[0m ";
   } else {
      _talk << kind << ": ";
   }
   _talk << printable(text) << std::endl;
}

} // namespace TarnReg
