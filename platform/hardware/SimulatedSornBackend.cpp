#include "platform/hardware/SimulatedSornBackend.h"

#include <utility>

#include "platform/hardware/SmbusTransfer.h"

namespace Hardware {

SimulatedSornBackend::SimulatedSornBackend(std::shared_ptr<SimulatedI2cBus> bus)
   : _bus(std::move(bus)) {}

SimulatedSornBackend::~SimulatedSornBackend() = default;

int SimulatedSornBackend::begin() noexcept {
   _bus->exclusiveUse().lock();
   return 0;
}

void SimulatedSornBackend::end() noexcept {
   _bus->exclusiveUse().unlock();
}

int SimulatedSornBackend::transfer(std::uint8_t device, std::uint8_t readWrite,
                                   std::uint8_t command, i2c_smbus_data& data) noexcept {
   return smbusTransfer(*_bus, device, readWrite, command, I2C_SMBUS_I2C_BLOCK_DATA, &data);
}

} // namespace Hardware
