#pragma once

#include <cerrno>
#include <string>
#include <system_error>

#include "tools/tarnsim/Failure.h"

namespace TarnSim {

/// A Failure with the text of the current errno behind `text`.
[[noreturn]] inline void failErrno(const std::string& text) {
   const int error = errno;
   throw Failure(text + ": " + std::generic_category().message(error));
}

} // namespace TarnSim
