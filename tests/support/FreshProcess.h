#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

namespace TestSupport {

/// Ends the process, with what its tests have found so far as its exit code.
[[noreturn]] inline void exitWithVerdict() {
   std::exit(testing::Test::HasFailure() ? 1 : 0);
}

} // namespace TestSupport

/// Runs a callable in a new process that nothing has happened in yet, for what a process
/// does but once. Expectations work in it as usual.
#define EXPECT_IN_A_FRESH_PROCESS(...)                                                             \
   do {                                                                                            \
      GTEST_FLAG_SET(death_test_style, "threadsafe");                                              \
      EXPECT_EXIT(                                                                                 \
         {                                                                                         \
            (__VA_ARGS__)();                                                                       \
            TestSupport::exitWithVerdict();                                                        \
         },                                                                                        \
         testing::ExitedWithCode(0), "");                                                          \
   } while (false)

/// Runs a callable likewise and expects `signal` to end that process before it is through.
#define EXPECT_KILLED_BY(signal, ...)                                                              \
   do {                                                                                            \
      GTEST_FLAG_SET(death_test_style, "threadsafe");                                              \
      EXPECT_EXIT(                                                                                 \
         {                                                                                         \
            (__VA_ARGS__)();                                                                       \
            TestSupport::exitWithVerdict();                                                        \
         },                                                                                        \
         testing::KilledBySignal(signal), "");                                                     \
   } while (false)
