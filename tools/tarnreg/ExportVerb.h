#pragma once

#include <string>
#include <vector>

#include "tools/tarnreg/Console.h"
#include "tools/tarnreg/Device.h"
#include "tools/tarnreg/Report.h"

namespace TarnReg {

enum class ExportFormat { header, markdown, html, json };

/// How exportRegisters() goes about it.
struct ExportOptions {
   ExportFormat format = ExportFormat::json;
   std::string output; ///< the file to write; empty for standard output
};

/// Prints what the device's list says of the registers that match `patterns`, all of them without
/// patterns, in another form. Of a pattern that no register matches nothing at all is printed.
/// Accesses nothing.
void exportRegisters(Device& device, const std::string& title,
                     const std::vector<std::string>& patterns, const ExportOptions& options,
                     Console& console, Report& report);

} // namespace TarnReg
