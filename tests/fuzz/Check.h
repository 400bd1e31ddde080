#pragma once

#include <cstdio>
#include <cstdlib>

/// Stops the fuzzer, which then keeps the input, when `condition` does not hold.
#define FUZZ_CHECK(condition)                                                                      \
   do {                                                                                            \
      if (!(condition)) {                                                                          \
         std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition);        \
         std::abort();                                                                             \
      }                                                                                            \
   } while (false)
