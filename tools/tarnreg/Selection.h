#pragma once

#include <string>
#include <vector>

#include "tools/tarnreg/Device.h"
#include "tools/tarnreg/Report.h"

namespace TarnReg {

using Selection = std::vector<const TarnRegFile::HardwareRegister*>;

/// The registers of all patterns, in their order; every register without patterns. A pattern
/// without any is reported.
Selection selectAll(Device& device, const std::vector<std::string>& patterns, Report& report);

} // namespace TarnReg
