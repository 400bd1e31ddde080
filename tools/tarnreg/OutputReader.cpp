#include "tools/tarnreg/OutputReader.h"

#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <thread>

namespace TarnReg {

namespace {

using Clock = std::chrono::steady_clock;

/// Waits until nobody reads standard output any more, or the time is over; returns which it was.
bool isUnreadWithin(Clock::duration duration) {
   const auto seconds = std::chrono::floor<std::chrono::seconds>(duration);
   const struct timespec timeout = {
      .tv_sec = static_cast<std::time_t>(seconds.count()),
      .tv_nsec = std::chrono::nanoseconds(duration - seconds).count(),
   };
   struct pollfd output = {.fd = STDOUT_FILENO, .events = 0, .revents = 0};
   return ::ppoll(&output, 1, &timeout, nullptr) > 0 && (output.revents & POLLERR) != 0;
}

} // namespace

void endWithoutReader() {
   if (isUnreadWithin(Clock::duration::zero())) {
      ::raise(SIGPIPE);
   }
}

void sleepWhileRead(Clock::duration duration) {
   const Clock::time_point end = Clock::now() + duration;
   if (duration > Clock::duration::zero() && isUnreadWithin(duration)) {
      ::raise(SIGPIPE);
   }
   // A signal that is ignored, a hung-up terminal: the time is to be waited for all the same.
   std::this_thread::sleep_until(end);
}

} // namespace TarnReg
