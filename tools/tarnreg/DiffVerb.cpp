#include <algorithm>
#include <optional>

#include <fmt/format.h>

#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/NamePattern.h"
#include "tools/tarnreg/Printable.h"
#include "tools/tarnreg/ReadAhead.h"
#include "tools/tarnreg/SavedDump.h"
#include "tools/tarnreg/Selection.h"
#include "tools/tarnreg/Verbs.h"

namespace TarnReg {

using TarnRegFile::HardwareRegister;

namespace {

/// The other side's value of a register; nothing when it has none, which is then reported.
using Other = std::function<std::optional<std::uint32_t>(const HardwareRegister&)>;

void compare(Device& device, const Selection& selection, const Other& other, Report& report) {
   report.nameWidthIs(nameColumnWidth(selection));
   ReadAhead values(device, selection);
   std::size_t compared = 0;
   std::size_t differing = 0;
   for (const HardwareRegister* record : selection) {
      std::optional<std::uint32_t> here;
      try {
         here = values.next();
      } catch (const AccessError& error) {
         report.failure(error.code(), error.what(), record->name);
      }
      const std::optional<std::uint32_t> there = other(*record);
      if (!here || !there) {
         continue;
      }
      ++compared;
      if (*here != *there) {
         ++differing;
         report.difference(*record, *here, *there);
      }
   }
   if (differing > 0) {
      report.failure(ExitCode::general,
                     fmt::format("{} of {} registers differ", differing, compared));
   }
}

void withoutConfiguration(Selection& selection) {
   std::erase_if(selection, [](const HardwareRegister* record) {
      return HardwareRegister::regTypeToString(record->type) == "cfg";
   });
}

} // namespace

void diffDevices(Device& device, Device& other, const std::vector<std::string>& patterns, bool all,
                 Report& report) {
   device.requireReadable();
   other.requireReadable();
   Selection selection = selectAll(device, patterns, report);
   if (!all) {
      withoutConfiguration(selection);
   }
   Selection there = selection;
   std::erase_if(there, [&](const HardwareRegister* record) { return !other.find(record->name); });
   ReadAhead values(other, there);
   compare(
      device, selection,
      [&](const HardwareRegister& record) -> std::optional<std::uint32_t> {
         if (!other.find(record.name)) {
            report.failure(
               ExitCode::unknownName,
               fmt::format("the other device has no register {}", shownName(record.name)),
               record.name);
            return std::nullopt;
         }
         try {
            return values.next();
         } catch (const AccessError& error) {
            report.failure(error.code(), fmt::format("the other device: {}", error.what()),
                           record.name);
            return std::nullopt;
         }
      },
      report);
}

void diffDump(Device& device, const SavedDump& dump, const std::vector<std::string>& patterns,
              Report& report) {
   device.requireReadable();
   Selection selection;
   if (dump.entries().empty()) {
      report.nothing("the dump has no registers");
   }
   if (patterns.empty()) {
      for (const auto& [name, value] : dump.entries()) {
         if (const HardwareRegister* record = device.find(name)) {
            selection.push_back(record);
         } else {
            report.failure(ExitCode::unknownName,
                           fmt::format("no register {}, which the dump has", shownName(name)),
                           name);
         }
      }
   } else {
      selection = selectAll(device, patterns, report);
   }
   // Before anything is read: what the dump has nothing of is not touched.
   std::erase_if(selection, [&](const HardwareRegister* record) {
      if (dump.find(record->name)) {
         return false;
      }
      report.failure(ExitCode::unknownName,
                     fmt::format("the dump has no register {}", shownName(record->name)),
                     record->name);
      return true;
   });
   compare(
      device, selection,
      [&](const HardwareRegister& record) -> std::optional<std::uint32_t> {
         return *dump.find(record.name);
      },
      report);
}

} // namespace TarnReg
