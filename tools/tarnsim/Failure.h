#pragma once

#include <stdexcept>
#include <string>

#include "tools/tarnsim/ExitCode.h"

namespace TarnSim {

/// Ends tarnsim with a message on standard error and an exit code.
class Failure : public std::runtime_error {
public:
   Failure(ExitCode code, const std::string& text) : std::runtime_error(text), _code(code) {}
   explicit Failure(const std::string& text) : Failure(ExitCode::failure, text) {}
   ExitCode code() const noexcept { return _code; }

private:
   ExitCode _code;
};

} // namespace TarnSim
