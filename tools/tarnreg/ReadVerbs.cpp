#include <algorithm>

#include <fmt/format.h>

#include "tools/tarnreg/Printable.h"
#include "tools/tarnreg/ReadAhead.h"
#include "tools/tarnreg/Selection.h"
#include "tools/tarnreg/Verbs.h"

namespace TarnReg {

using TarnRegFile::HardwareRegister;

namespace {

void readSelection(Device& device, const Selection& selection, Report& report) {
   report.nameWidthIs(nameColumnWidth(selection));
   std::size_t done = 0;
   ReadAhead values(device, selection);
   for (const HardwareRegister* record : selection) {
      report.progress(done++, selection.size());
      try {
         report.value(*record, values.next());
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
   device.requireReadable();
   Selection selection = selectAll(device, patterns, report);
   if (!all) {
      const bool hadAny = !selection.empty();
      std::erase_if(selection, [](const HardwareRegister* record) {
         return HardwareRegister::regTypeToString(record->type) == "cfg";
      });
      if (hadAny && selection.empty()) {
         report.nothing(
            "all of them are configuration registers (type cfg), which --all reads too");
      }
   }
   readSelection(device, selection, report);
}

} // namespace TarnReg
