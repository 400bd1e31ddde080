#include "platform/entity/Fatal.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace Platform {

namespace {

std::atomic<FatalReporter> fatalReporter{nullptr};

// A reporter that itself runs into an assertion must not report for ever.
thread_local bool reporting = false;

} // namespace

void fatalAssertion(std::string_view source, std::string_view function,
                    std::string_view text) noexcept {
   // One call, so that lines of several threads do not mix; no allocation, since the heap may be
   // what is broken.
   std::fprintf(stderr, "%.*s: %.*s: assertion failed: %.*s\n", static_cast<int>(source.size()),
                source.data(), static_cast<int>(function.size()), function.data(),
                static_cast<int>(text.size()), text.data());
   std::fflush(stderr);
   if (!reporting) {
      reporting = true;
      if (FatalReporter reporter = fatalReporter.load()) {
         reporter(source, function, text);
      }
   }
   std::abort();
}

FatalReporter fatalReporterIs(FatalReporter reporter) noexcept {
   return fatalReporter.exchange(reporter);
}

} // namespace Platform
