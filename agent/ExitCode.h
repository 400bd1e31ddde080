#pragma once

namespace Agent {

/// What tarn-shadowd exits with; units and scripts rely on these numbers.
enum class ExitCode : int {
   ok = 0,
   general = 1, ///< anything that has no code of its own
   usage = 2,   ///< the command line is wrong
   refused = 4, ///< another agent owns one of the cores
};

} // namespace Agent
