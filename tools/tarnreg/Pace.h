#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

namespace TarnReg {

/// How a verb that looks at a device again and again tells the time and waits. Tests have a clock
/// of their own.
struct Pace {
   using Clock = std::chrono::steady_clock;

   std::function<Clock::time_point()> now;
   std::function<void(Clock::duration)> wait;

   /// The real thing.
   static Pace real();
};

/// As a number, rounded up, and as large as the number gets.
std::uint32_t millisecondsOf(Pace::Clock::duration duration);

} // namespace TarnReg
