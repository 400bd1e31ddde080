#pragma once

#include <csignal>
#include <string>
#include <vector>

#include "tools/tarnsim/ControlServer.h"
#include "tools/tarnsim/Launcher.h"
#include "tools/tarnsim/Simulation.h"
#include "tools/tarnsim/Supervisor.h"

namespace TarnSim {

/// What tarnsim was asked to do.
struct SessionOptions {
   std::string board;
   std::string wireLog; ///< empty for none
   std::string control; ///< empty for none
   std::vector<std::string> command;
};

/// One command, run with one simulated board, from start to end. Takes over the signals of the
/// process. Throws Failure when the command could not be started.
class Session {
public:
   explicit Session(SessionOptions options) : _options(std::move(options)) {}

   /// Returns what to exit with. When `clean` comes back false, threads are still held up by a
   /// slow bus, and the process must end without taking anything apart.
   int run(bool& clean);

private:
   int _wait(Launcher& launcher, int signals, ControlServer* control) const;

   const SessionOptions _options;
};

} // namespace TarnSim
