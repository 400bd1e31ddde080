#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "tools/tarnreg/Device.h"
#include "tools/tarnreg/Report.h"
#include "tools/tarnreg/Terminal.h"
#include "tools/tarnreg/TopView.h"

namespace TarnReg {

/// How topRegisters() goes about it.
struct TopOptions {
   std::chrono::steady_clock::duration interval = std::chrono::seconds(1); ///< between two rounds
   TopView::Style style;
   std::string title;
};

/// Shows the registers that match `patterns`, all of them without patterns, on the terminal until
/// somebody has seen enough. A register that cannot be read says so in its line.
void topRegisters(Device& device, const std::vector<std::string>& patterns,
                  const TopOptions& options, Report& report);

} // namespace TarnReg
