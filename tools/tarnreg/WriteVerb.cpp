#include <fmt/format.h>

#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/NamePattern.h"
#include "tools/tarnreg/Printable.h"
#include "tools/tarnreg/Selection.h"
#include "tools/tarnreg/Verbs.h"

namespace TarnReg {

using TarnRegFile::HardwareRegister;

namespace {

struct Assignment {
   const HardwareRegister* record;
   std::uint32_t value;
};

void appendAssignments(Device& device, const std::string& text, bool force,
                       std::vector<Assignment>& out) {
   const std::size_t equals = text.rfind('=');
   if (equals == std::string::npos || equals == 0) {
      throw Failure(ExitCode::usage, fmt::format("{}: a write is NAME=VALUE", text));
   }
   const std::uint32_t value = parseNumber(text.substr(equals + 1), text);
   for (const HardwareRegister* record : selectRegisters(device, text.substr(0, equals))) {
      if (!record->writable && !force) {
         throw Failure(ExitCode::refused,
                       fmt::format("{} is read-only; --force writes it all the same",
                                   shownName(record->name)));
      }
      requireFits(device, *record, value);
      out.push_back({record, value});
   }
}

/// Every assignment, or none when one of them is bad.
std::vector<Assignment> checkedAssignments(Device& device, const std::vector<std::string>& texts,
                                           bool force, Report& report) {
   std::vector<Assignment> assignments;
   bool good = true;
   for (const std::string& text : texts) {
      try {
         appendAssignments(device, text, force, assignments);
      } catch (const Failure& failure) {
         report.failure(failure.code(), failure.what(), text);
         good = false;
      }
   }
   return good ? assignments : std::vector<Assignment>();
}

std::string question(const std::vector<Assignment>& assignments) {
   const Assignment& first = assignments.front();
   const std::string one = fmt::format("{}={:#x}", shownName(first.record->name), first.value);
   return assignments.size() == 1
             ? fmt::format("Write {}?", one)
             : fmt::format("Write {} and {} more?", one, assignments.size() - 1);
}

void verify(Device& device, const Assignment& assignment, Report& report) {
   const std::uint32_t mask = device.valueMask(*assignment.record);
   const std::uint32_t found = device.read(assignment.record->name);
   if ((device.writtenPart(*assignment.record, found) & mask) != (assignment.value & mask)) {
      report.failure(ExitCode::readBackMismatch,
                     fmt::format("{} reads back as {:#x}, not {:#x}",
                                 shownName(assignment.record->name), found, assignment.value),
                     assignment.record->name);
   }
}

} // namespace

void writeRegisters(Device& device, const std::vector<std::string>& texts,
                    const WriteOptions& options, Console& console, Report& report) {
   const std::vector<Assignment> assignments =
      checkedAssignments(device, texts, options.force, report);
   report.property("dryRun", options.dryRun);
   if (options.verify && !options.dryRun) {
      device.requireReadable();
   }
   std::vector<const HardwareRegister*> records;
   records.reserve(assignments.size());
   for (const Assignment& assignment : assignments) {
      records.push_back(assignment.record);
   }
   report.nameWidthIs(nameColumnWidth(records));
   if (assignments.empty()) {
      return;
   }
   if (options.dryRun) {
      for (const Assignment& assignment : assignments) {
         report.value(*assignment.record, assignment.value);
      }
      console.note("dry run: nothing was written");
      return;
   }
   if (options.confirm && !console.confirm(question(assignments))) {
      report.failure(ExitCode::refused, "declined: nothing was written");
      return;
   }
   for (const Assignment& assignment : assignments) {
      try {
         device.write(assignment.record->name, assignment.value);
         report.value(*assignment.record, assignment.value);
         if (options.verify) {
            verify(device, assignment, report);
         }
      } catch (const AccessError& error) {
         report.failure(error.code(), error.what(), assignment.record->name);
      }
   }
}

} // namespace TarnReg
