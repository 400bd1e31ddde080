#pragma once

#include <string>

#include "tools/tarnreg/RegisterSheet.h"

namespace TarnReg {

/// A page in one file that needs nothing else, with a search field; without scripts it is a table.
/// Whatever a register or the title is called, it is text of the page and nothing else.
std::string htmlOf(const RegisterSheet& sheet);

} // namespace TarnReg
