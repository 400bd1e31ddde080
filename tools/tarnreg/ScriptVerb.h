#pragma once

#include <cstddef>
#include <functional>
#include <istream>
#include <string>
#include <vector>

#include "tools/tarnreg/Console.h"
#include "tools/tarnreg/Report.h"

namespace TarnReg {

/// Carries out the command of one line, which has at least one word, and reports what came of it.
using ScriptCommand = std::function<Report(const std::vector<std::string>& words)>;

/// Carries out the commands of `script`, one a line, until the first one that fails, or with
/// `keepGoing` all of them. Messages have `name` and the line's number in front. A line is only
/// asked for when the one before is done, so that who writes it may read what that one printed.
void runScript(std::istream& script, const std::string& name, bool keepGoing,
               const ScriptCommand& command, Console& console, Report& report);

} // namespace TarnReg
