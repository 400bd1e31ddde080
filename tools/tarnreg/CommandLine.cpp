#include "tools/tarnreg/CommandLine.h"

#include <string>
#include <vector>

#include "tools/tarnreg/Command.h"

namespace TarnReg {

ExitCode runCommandLine(int argc, char** argv) {
   const std::vector<std::string> words(argv + (argc > 0 ? 1 : 0), argv + argc);
   Session session;
   if (!words.empty() && words.front() == "complete") {
      return Command(session).complete({words.begin() + 1, words.end()});
   }
   return Command(session).run(words);
}

} // namespace TarnReg
