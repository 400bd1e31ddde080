#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/tarnreg/Report.h"
#include "tools/tarnreg/ShadowView.h"

namespace TarnReg {

/// A register of a core, and what it is to hold.
struct ShadowAssignment {
   const TarnRegFile::HardwareRegister* record;
   std::uint32_t value;
};

/// What "NAME=VALUE" texts say, in their order, with a pattern on the left for each register that
/// it matches. What is wrong with any of them is reported, and then there is none. `what` is what
/// such a text says: "a wish".
std::optional<std::vector<ShadowAssignment>>
shadowAssignments(ShadowView& view, const std::vector<std::string>& texts, const char* what,
                  Report& report);

} // namespace TarnReg
