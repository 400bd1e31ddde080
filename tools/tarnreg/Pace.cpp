#include "tools/tarnreg/Pace.h"

#include <algorithm>

#include "tools/tarnreg/OutputReader.h"

namespace TarnReg {

Pace Pace::real() {
   return {[] { return Clock::now(); }, sleepWhileRead};
}

std::uint32_t millisecondsOf(Pace::Clock::duration duration) {
   constexpr std::chrono::milliseconds most(UINT32_MAX);
   return static_cast<std::uint32_t>(
      std::min(most, std::chrono::ceil<std::chrono::milliseconds>(duration)).count());
}

} // namespace TarnReg
