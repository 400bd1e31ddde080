#include "tools/tarnreg/Pace.h"

#include <thread>

namespace TarnReg {

Pace Pace::real() {
   return {[] { return Clock::now(); },
           [](Clock::duration duration) { std::this_thread::sleep_for(duration); }};
}

} // namespace TarnReg
