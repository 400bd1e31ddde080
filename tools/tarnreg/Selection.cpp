#include "tools/tarnreg/Selection.h"

#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/NamePattern.h"

namespace TarnReg {

Selection selectAll(Device& device, const std::vector<std::string>& patterns, Report& report) {
   if (patterns.empty()) {
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

} // namespace TarnReg
