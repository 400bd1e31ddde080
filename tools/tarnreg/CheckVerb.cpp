#include <fmt/format.h>

#include "platform/entity/EnumType.h"
#include "tools/tarnreg/Printable.h"
#include "tools/tarnreg/Verbs.h"

namespace TarnReg {

using TarnRegFile::ProblemSeverity;

void checkFile(const std::string& file, ProblemSeverity failOn, Report& report) {
   std::size_t failing = 0;
   for (const auto& problem : TarnRegFile::RegisterFileChecker().check(file)) {
      const std::string severity = Platform::enumString(problem.severity);
      nlohmann::ordered_json element;
      if (report.json()) {
         element["file"] = jsonText(file);
         element["line"] = problem.line;
         element["column"] = problem.column;
         element["severity"] = severity;
         element["text"] = jsonText(problem.text);
      }
      report.row(printable(fmt::format("{}:{}:{}: {}: {}", file, problem.line, problem.column,
                                       severity, problem.text)),
                 std::move(element));
      failing += problem.severity >= failOn ? 1 : 0;
   }
   if (failing != 0) {
      report.failure(ExitCode::general,
                     fmt::format("{} has {} problem{} of severity {} or above", file, failing,
                                 failing == 1 ? "" : "s", Platform::enumString(failOn)));
   }
}

} // namespace TarnReg
