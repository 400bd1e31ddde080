#include <algorithm>

#include <fmt/format.h>

#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/NamePattern.h"
#include "tools/tarnreg/Printable.h"
#include "tools/tarnreg/Verbs.h"

namespace TarnReg {

using TarnRegFile::HardwareRegister;

namespace {

using Selection = std::vector<const HardwareRegister*>;

/// The registers of all patterns, in their order; a pattern without any is reported.
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

void readSelection(Device& device, const Selection& selection, Report& report) {
   report.nameWidthIs(nameColumnWidth(selection));
   for (const HardwareRegister* record : selection) {
      try {
         report.value(*record, device.read(record->name));
      } catch (const AccessError& error) {
         report.failure(error.code(), error.what(), record->name);
      }
   }
}

} // namespace

void listRegisters(Device& device, const std::vector<std::string>& patterns, Report& report) {
   const Selection selection = selectAll(device, patterns, report);
   const std::size_t nameWidth = nameColumnWidth(selection);
   for (const HardwareRegister* record : selection) {
      report.row(fmt::format("{:<{}}  {:#010x}  {:>2} bits  {}  {}", shownName(record->name),
                             nameWidth, record->address, record->width,
                             record->writable ? "rw" : "ro",
                             HardwareRegister::regTypeToString(record->type)),
                 report.json() ? registerJson(*record) : nlohmann::ordered_json());
   }
}

void readRegisters(Device& device, const std::vector<std::string>& patterns, Report& report) {
   readSelection(device, selectAll(device, patterns, report), report);
}

void dumpRegisters(Device& device, const std::vector<std::string>& patterns, bool all,
                   Report& report) {
   Selection selection = selectAll(device, patterns, report);
   if (!all) {
      std::erase_if(selection, [](const HardwareRegister* record) {
         return HardwareRegister::regTypeToString(record->type) == "cfg";
      });
   }
   readSelection(device, selection, report);
}

} // namespace TarnReg
