#pragma once

#include <memory>

#include "platform/hardware/SimulatedI2cBus.h"
#include "platform/hardware/SornBackend.h"

namespace Hardware {

/// A simulated bus, with the delays and faults of its devices.
class TARN_PLATFORM_API SimulatedSornBackend : public SornBackend {
public:
   explicit SimulatedSornBackend(std::shared_ptr<SimulatedI2cBus> bus);
   ~SimulatedSornBackend() override;

   int begin() noexcept override;
   void end() noexcept override;
   int transfer(std::uint8_t device, std::uint8_t readWrite, std::uint8_t command,
                i2c_smbus_data& data) noexcept override;

private:
   const std::shared_ptr<SimulatedI2cBus> _bus;
};

} // namespace Hardware
