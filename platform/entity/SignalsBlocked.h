#pragma once

#include <csignal>

namespace Platform {

/// While it lives, the calling thread takes no signals, nor will the threads that it starts then:
/// workers start this way, so that signals reach the thread that runs the event loop and interrupt
/// nobody's system call. Nothing throws.
class SignalsBlocked {
public:
   SignalsBlocked() noexcept {
      ::sigset_t all;
      ::sigfillset(&all);
      ::pthread_sigmask(SIG_SETMASK, &all, &_before);
   }
   ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &_before, nullptr); }

   SignalsBlocked(const SignalsBlocked&) = delete;
   SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
   ::sigset_t _before = {};
};

} // namespace Platform
