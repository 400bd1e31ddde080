#include <unistd.h>

#include <cstdio>

#include "tools/tarnsim/CommandLine.h"

int main(int argc, char** argv) {
   bool clean = true;
   const int code = TarnSim::runCommandLine(argc, argv, clean);
   if (!clean) {
      (void)std::fflush(nullptr);
      ::_exit(code);
   }
   return code;
}
