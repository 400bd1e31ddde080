#pragma once

#include <stdexcept>
#include <string>

#include "tools/tarnreg/ExitCode.h"

namespace TarnReg {

/// An access of the device failed; the text says which and why, the code is deviceError or timeout.
class AccessError : public std::runtime_error {
public:
   AccessError(ExitCode code, const std::string& text) : std::runtime_error(text), _code(code) {}
   ExitCode code() const noexcept { return _code; }

private:
   ExitCode _code;
};

} // namespace TarnReg
