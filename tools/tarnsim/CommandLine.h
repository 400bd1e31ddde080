#pragma once

namespace TarnSim {

/// Does what the arguments of tarnsim say. Returns what to exit with; when `clean` comes back
/// false, the process must then end at once, without running destructors.
int runCommandLine(int argc, char** argv, bool& clean);

} // namespace TarnSim
