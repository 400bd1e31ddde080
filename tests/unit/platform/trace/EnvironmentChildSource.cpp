#include "platform/trace/Trace.h"

bool traceEarly();
void traceAtExit();
void traceEachLevel();

namespace {

TARN_TRACE_SOURCE(earlySource, "child/early");
TARN_TRACE_SOURCE(exitSource, "child/exit");
TARN_TRACE_SOURCE(traceSource, "child/main");

} // namespace

bool traceEarly() {
   TARN_TRACE(earlySource, 4, "traceEarly", "before main");
   return true;
}

void traceAtExit() {
   TARN_TRACE(exitSource, 4, "traceAtExit", "after main");
}

void traceEachLevel() {
   for (int level = 0; level <= Platform::Trace::maxLevel; ++level) {
      TARN_TRACE(traceSource, level, "traceEachLevel", "level {}", level);
   }
}
