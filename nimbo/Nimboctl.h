#pragma once

#include <iosfwd>

#include "nimbo/ExitCode.h"

namespace Nimbo {

/// Does what the command line of nimboctl says: data to `out`, talk to `err`.
ExitCode runNimboctl(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

} // namespace Nimbo
