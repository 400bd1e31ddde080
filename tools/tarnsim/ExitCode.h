#pragma once

namespace TarnSim {

/// What tarnsim itself exits with. Everything else is the command's: its own status, or 128 and
/// the number of the signal that ended it. The numbers are those of env(1) and its kind.
enum class ExitCode : int {
   ok = 0,
   general = 1,         ///< `tarnsim control`: the command was refused
   usage = 2,           ///< the command line is wrong; also in front of a command
   failure = 125,       ///< the board could not be simulated
   notExecutable = 126, ///< the command exists but cannot be run
   notFound = 127,      ///< there is no such command
};

} // namespace TarnSim
