#pragma once

#include <string>

#include "tools/tarnreg/RegisterSheet.h"

namespace TarnReg {

/// A C header, also for C++: for each register its address, width, mask and whether it is writable,
/// as macros. Names become identifiers, each another one, in an order that does not depend on where
/// or when it is made.
std::string headerOf(const RegisterSheet& sheet);

} // namespace TarnReg
