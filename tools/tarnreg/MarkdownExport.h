#pragma once

#include <string>

#include "tools/tarnreg/RegisterSheet.h"

namespace TarnReg {

/// A table in Markdown, as GitHub and others read it.
std::string markdownOf(const RegisterSheet& sheet);

} // namespace TarnReg
