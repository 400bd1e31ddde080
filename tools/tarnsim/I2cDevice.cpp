#include "tools/tarnsim/I2cDevice.h"

#include <utility>

#include <fmt/format.h>

#include "tools/tarnsim/JournalLine.h"

namespace TarnSim {

I2cDevice::I2cDevice(const Board::I2cSpec& spec,
                     std::shared_ptr<Hardware::SimulatedI2cDevice> model)
   : SimulatedDevice(spec.name), _place(fmt::format("i2c {} {:#04x} {}", spec.bus, spec.address,
                                                    Hardware::simulatedI2cKindToString(spec.kind))),
     _model(std::move(model)) {}

std::optional<std::uint32_t> I2cDevice::addressOf(std::string_view name) const {
   return _model->addressOf(name);
}

std::uint32_t I2cDevice::registerAt(std::uint32_t address) const {
   return _model->registerAt(address);
}

void I2cDevice::registerIs(std::uint32_t address, std::uint32_t value) {
   _model->registerIs(address, value);
}

bool I2cDevice::lost() const {
   return _model->faults().lost();
}

void I2cDevice::lostIs(bool lost) {
   _model->faults().lostIs(lost);
}

Hardware::FaultPlan* I2cDevice::faults() {
   return &_model->faults();
}

std::vector<std::string> I2cDevice::journal() const {
   std::vector<std::string> lines;
   for (const auto& access : _model->journal()) {
      lines.push_back(journalLine(access.isRead, access.address, access.bytes, access.error));
   }
   return lines;
}

void I2cDevice::journalClear() {
   _model->journalClear();
}

} // namespace TarnSim
