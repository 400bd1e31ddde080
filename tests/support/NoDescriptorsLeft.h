#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <stdexcept>

#include <gtest/gtest.h>

namespace TestSupport {

/// While it lives the process can open nothing more.
class NoDescriptorsLeft {
public:
   NoDescriptorsLeft() {
      if (::getrlimit(RLIMIT_NOFILE, &_before) != 0) {
         throw std::runtime_error("getrlimit");
      }
      const int next = ::dup(0);
      ::close(next);
      ::rlimit none = _before;
      none.rlim_cur = static_cast<::rlim_t>(next);
      if (next < 0 || ::setrlimit(RLIMIT_NOFILE, &none) != 0) {
         throw std::runtime_error("setrlimit");
      }
   }
   ~NoDescriptorsLeft() { ::setrlimit(RLIMIT_NOFILE, &_before); }
   NoDescriptorsLeft(const NoDescriptorsLeft&) = delete;
   NoDescriptorsLeft& operator=(const NoDescriptorsLeft&) = delete;

private:
   ::rlimit _before = {};
};

} // namespace TestSupport

/// The sanitizer of undefined behaviour looks at objects by way of a pipe; if it can have none, it
/// takes them for wrong.
#ifdef __SANITIZE_ADDRESS__
#define SKIP_IF_THE_SANITIZER_NEEDS_DESCRIPTORS()                                                  \
   GTEST_SKIP() << "the sanitizer cannot do without descriptors"
#else
#define SKIP_IF_THE_SANITIZER_NEEDS_DESCRIPTORS() static_cast<void>(0)
#endif
