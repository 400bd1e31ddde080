#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/tarnreg/Device.h"
#include "tools/tarnreg/Report.h"

namespace TarnReg {

using Selection = std::vector<const TarnRegFile::HardwareRegister*>;

/// The registers of all patterns, in their order; every register without patterns. A pattern
/// without any is reported.
Selection selectAll(Device& device, const std::vector<std::string>& patterns, Report& report);

/// Throws Failure (usage) when `value` has bits that the register does not.
void requireFits(const Device& device, const TarnRegFile::HardwareRegister& record,
                 std::uint32_t value);

} // namespace TarnReg
