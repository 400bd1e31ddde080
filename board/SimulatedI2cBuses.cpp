#include "board/SimulatedI2cBuses.h"

namespace Board {

namespace {

std::shared_ptr<Hardware::SimulatedI2cDevice> deviceNew(const I2cSpec& spec) {
   auto device = std::make_shared<Hardware::SimulatedI2cDevice>(spec.kind, spec.addressUnit);
   if (spec.model) {
      device->registersAre(*spec.model);
   }
   for (const auto& [address, value] : spec.values) {
      device->registerIs(address, value);
   }
   Hardware::FaultPlan& plan = device->faults();
   for (const Hardware::Fault& fault : spec.faults) {
      plan.add(fault);
   }
   plan.delayIs(spec.delay);
   plan.lostIs(!spec.present);
   return device;
}

} // namespace

SimulatedI2cBuses simulatedI2cBuses(const SimulatedBoard& board) {
   SimulatedI2cBuses buses;
   for (const I2cSpec& spec : board.i2c) {
      auto& bus = buses[spec.bus];
      if (!bus) {
         bus = std::make_shared<Hardware::SimulatedI2cBus>();
      }
      bus->deviceIs(spec.address, deviceNew(spec));
   }
   return buses;
}

} // namespace Board
