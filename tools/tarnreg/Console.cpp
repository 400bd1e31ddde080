#include "tools/tarnreg/Console.h"

#include <unistd.h>

#include <cstdlib>

namespace TarnReg {

bool Console::confirm(std::string_view question) {
   _talk << question << " [y/N] " << std::flush;
   std::string answer;
   std::getline(_in, answer);
   return answer == "y" || answer == "yes";
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
   _talk << text << std::endl;
}

} // namespace TarnReg
