#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/hardware/FaultPlan.h"

namespace TarnSim {

/// A device of the board as those see it who script it while the command runs. The operations
/// throw std::exception with a text for the user. May be used while the command uses the device.
class SimulatedDevice {
public:
   explicit SimulatedDevice(std::string name) : _name(std::move(name)) {}
   virtual ~SimulatedDevice() = default;
   SimulatedDevice(const SimulatedDevice&) = delete;
   SimulatedDevice& operator=(const SimulatedDevice&) = delete;

   const std::string& name() const noexcept { return _name; }

   /// Where it is: "i2c /dev/i2c-3 0x50 block".
   virtual std::string place() const = 0;

   /// The address under the name of a register, if the device has a register list.
   virtual std::optional<std::uint32_t> addressOf(std::string_view name) const = 0;
   virtual std::uint32_t registerAt(std::uint32_t address) const = 0;
   virtual void registerIs(std::uint32_t address, std::uint32_t value) = 0;

   virtual bool lost() const = 0;
   virtual void lostIs(bool lost) = 0;

   /// Null for a device whose accesses nobody sees.
   virtual Hardware::FaultPlan* faults() = 0;

   /// The accesses so far, one a line; see docs/tarnsim.md.
   virtual std::vector<std::string> journal() const = 0;
   virtual void journalClear() = 0;

private:
   const std::string _name;
};

} // namespace TarnSim
