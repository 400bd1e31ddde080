#pragma once

#include <string>

#include "tools/tarnreg/RegisterSheet.h"

namespace TarnReg {

/// A JSON document, schema tarnreg-registers/1 (docs/schemas).
std::string jsonOf(const RegisterSheet& sheet);

} // namespace TarnReg
