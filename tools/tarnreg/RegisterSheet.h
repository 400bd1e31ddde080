#pragma once

#include <cstdint>
#include <string>

#include "tools/tarnreg/Selection.h"

namespace TarnReg {

/// What is exported: registers and what is to be said of all of them. A plain value; the registers'
/// device outlives it.
struct RegisterSheet {
   std::string title;
   std::uint8_t addrBlockSize = 1; ///< address units per register number
   Selection registers;
};

} // namespace TarnReg
