#pragma once

namespace Nimbo {

/// What nimbod and nimboctl exit with; units and scripts rely on these numbers.
enum class ExitCode : int {
   ok = 0,
   general = 1, ///< anything that has no code of its own
   usage = 2,   ///< the command line is wrong
};

} // namespace Nimbo
