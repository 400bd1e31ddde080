#include "tools/tarnreg/CommandLine.h"

int main(int argc, char** argv) {
   return static_cast<int>(TarnReg::runCommandLine(argc, argv));
}
