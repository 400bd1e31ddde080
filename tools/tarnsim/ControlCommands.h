#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/tarnsim/Simulation.h"

namespace TarnSim {

/// What can be said to a running tarnsim, one line a command; docs/tarnsim.md lists it. Lines come
/// from anybody who may connect: whatever they hold, the answer is an answer.
class ControlCommands {
public:
   struct Answer {
      bool ok = true;
      std::vector<std::string> lines; ///< of text; when not ok, the one line that says why
   };

   explicit ControlCommands(Simulation& simulation) : _simulation(simulation) {}

   Answer run(std::string_view line);

private:
   using Words = std::vector<std::string_view>;

   Answer _run(const Words& words);
   SimulatedDevice& _device(const Words& words) const;
   Hardware::FaultPlan& _faults(const Words& words) const;
   static Hardware::Fault _fault(const Words& words);

   Simulation& _simulation;
};

/// Whether a word is the name of a command.
bool isControlCommand(std::string_view word);

} // namespace TarnSim
