#include "tools/tarnreg/ShadowAssignments.h"

#include <fmt/format.h>

#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/NamePattern.h"
#include "tools/tarnreg/NumberFormat.h"
#include "tools/tarnreg/Printable.h"

namespace TarnReg {

using TarnRegFile::HardwareRegister;

namespace {

void append(ShadowView& view, const std::string& given, const char* what,
            std::vector<ShadowAssignment>& out) {
   const std::size_t equals = given.rfind('=');
   if (equals == std::string::npos || equals == 0) {
      throw Failure(ExitCode::usage, fmt::format("{}: {} is NAME=VALUE", given, what));
   }
   const std::uint32_t value = parseNumber(given.substr(equals + 1), given);
   for (const HardwareRegister* record : selectRegisters(view.device(), given.substr(0, equals))) {
      if (!record->writable) {
         throw Failure(ExitCode::refused, fmt::format("{} is read-only", shownName(record->name)));
      }
      view.requireFits(*record, value);
      out.push_back({record, value});
   }
}

} // namespace

std::optional<std::vector<ShadowAssignment>>
shadowAssignments(ShadowView& view, const std::vector<std::string>& texts, const char* what,
                  Report& report) {
   std::vector<ShadowAssignment> assignments;
   bool good = true;
   for (const std::string& given : texts) {
      try {
         append(view, given, what, assignments);
      } catch (const Failure& failure) {
         report.failure(failure.code(), failure.what(), given);
         good = false;
      }
   }
   return good ? std::optional(std::move(assignments)) : std::nullopt;
}

} // namespace TarnReg
