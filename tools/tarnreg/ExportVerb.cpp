#include "tools/tarnreg/ExportVerb.h"

#include <algorithm>
#include <unordered_set>

#include <fmt/format.h>

#include "TarnRegFile/RegisterFileHelper.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/HeaderExport.h"
#include "tools/tarnreg/HtmlExport.h"
#include "tools/tarnreg/JsonExport.h"
#include "tools/tarnreg/MarkdownExport.h"
#include "tools/tarnreg/OutputFile.h"
#include "tools/tarnreg/Printable.h"

namespace TarnReg {

namespace {

std::string textOf(const RegisterSheet& sheet, ExportFormat format) {
   switch (format) {
   case ExportFormat::header:
      return headerOf(sheet);
   case ExportFormat::markdown:
      return markdownOf(sheet);
   case ExportFormat::html:
      return htmlOf(sheet);
   case ExportFormat::json:
      break;
   }
   return jsonOf(sheet);
}

/// Each register once, where it came first.
Selection withoutRepetition(const Selection& selection) {
   std::unordered_set<const TarnRegFile::HardwareRegister*> seen;
   Selection out;
   std::copy_if(selection.begin(), selection.end(), std::back_inserter(out),
                [&](const auto* record) { return seen.insert(record).second; });
   return out;
}

} // namespace

void exportRegisters(Device& device, const std::string& title,
                     const std::vector<std::string>& patterns, const ExportOptions& options,
                     Console& console, Report& report) {
   if (report.json() && options.output.empty()) {
      throw Failure(ExitCode::usage, "--json of an export needs --output: what is exported is "
                                     "printed in its place; --format json exports JSON");
   }
   RegisterSheet sheet{title, device.method().regFileHelper()->addrBlockSize(),
                       withoutRepetition(selectAll(device, patterns, report))};
   if (report.code() != ExitCode::ok) {
      return;
   }
   const std::string text = textOf(sheet, options.format);
   if (options.output.empty()) {
      console.data() << text;
      return;
   }
   writeOutputFile(options.output, text);
   report.row(fmt::format("{}  {} registers", printable(options.output), sheet.registers.size()),
              {{"file", jsonText(options.output)}, {"registers", sheet.registers.size()}});
}

} // namespace TarnReg
