#pragma once

#include <memory>

#include "board/SimulatedBoard.h"
#include "platform/hardware/SimulatedI2cDevice.h"
#include "tools/tarnsim/SimulatedDevice.h"

namespace TarnSim {

/// An I2C device of the board.
class I2cDevice : public SimulatedDevice {
public:
   /// What `model` simulates is `spec`.
   I2cDevice(const Board::I2cSpec& spec, std::shared_ptr<Hardware::SimulatedI2cDevice> model);

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
