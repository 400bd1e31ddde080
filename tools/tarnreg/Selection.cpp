#include "tools/tarnreg/Selection.h"

#include <fmt/format.h>

#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/NamePattern.h"
#include "tools/tarnreg/Printable.h"

namespace TarnReg {

Selection selectAll(Device& device, const std::vector<std::string>& patterns, Report& report) {
   if (patterns.empty()) {
      if (device.registers().empty()) {
         report.nothing("the register list has no registers");
      }
      return device.registers();
   }
   Selection selected;
   for (const std::string& pattern : patterns) {
      try {
         const Selection matched = selectRegisters(device, pattern);
         selected.insert(selected.end(), matched.begin(), matched.end());
      } catch (const Failure& failure) {
         report.failure(failure.code(), failure.what(), pattern);
      }
   }
   return selected;
}

void requireFits(const Device& device, const TarnRegFile::HardwareRegister& record,
                 std::uint32_t value) {
   const std::uint32_t mask = device.valueMask(record);
   if ((value & ~mask) == 0) {
      return;
   }
   // A mask that does not begin at the bottom is not what one expects of a width.
   const bool low = (mask & (mask + 1)) == 0;
   throw Failure(ExitCode::usage,
                 fmt::format("{:#x} does not fit in the {} bits of {}{}", value, record.width,
                             shownName(record.name),
                             low ? "" : fmt::format(", which on this device are {:#x}", mask)));
}

} // namespace TarnReg
