#pragma once

#include <stdexcept>
#include <string>

#include "tools/tarnreg/ExitCode.h"

namespace TarnReg {

/// Ends the command with a message on standard error and an exit code.
class Failure : public std::runtime_error {
public:
   Failure(ExitCode code, const std::string& text) : std::runtime_error(text), _code(code) {}
   ExitCode code() const noexcept { return _code; }

private:
   ExitCode _code;
};

} // namespace TarnReg
