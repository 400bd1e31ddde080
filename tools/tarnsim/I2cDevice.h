#pragma once

#include <memory>

#include "platform/hardware/SimulatedI2cDevice.h"
#include "tools/tarnsim/Board.h"
#include "tools/tarnsim/SimulatedDevice.h"

namespace TarnSim {

/// An I2C device of the board.
class I2cDevice : public SimulatedDevice {
public:
   explicit I2cDevice(const I2cSpec& spec);

   const std::shared_ptr<Hardware::SimulatedI2cDevice>& model() const noexcept { return _model; }

   std::string place() const override { return _place; }
   std::optional<std::uint32_t> addressOf(std::string_view name) const override;
   std::uint32_t registerAt(std::uint32_t address) const override;
   void registerIs(std::uint32_t address, std::uint32_t value) override;
   bool lost() const override;
   void lostIs(bool lost) override;
   Hardware::FaultPlan* faults() override;
   std::vector<std::string> journal() const override;
   void journalClear() override;

private:
   const std::string _place;
   std::shared_ptr<Hardware::SimulatedI2cDevice> _model;
};

} // namespace TarnSim
