// Traces, and prints what it was asked for; EnvironmentTest.cpp asserts what comes out.

#include <cstdio>
#include <cstring>

#include "platform/trace/Trace.h"

bool traceEarly();
void traceAtExit();
void traceEachLevel();

namespace {

// Linked before the file whose source it uses, so this initialiser runs first.
const bool early = traceEarly();

struct AtExit {
   ~AtExit() { traceAtExit(); }
};

// Begins before the sink and the registry are used for the first time in main: ends after.
const AtExit atExit;

} // namespace

int main(int argc, char** argv) {
   if (!early) {
      return 1;
   }
   if (argc > 1 && std::strcmp(argv[1], "levels") == 0) {
      std::puts(Platform::Trace::levels().c_str());
      return 0;
   }
   traceEachLevel();
   return 0;
}
