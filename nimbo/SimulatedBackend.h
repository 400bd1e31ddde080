#pragma once

#include <memory>

#include "nimbo/BusBackend.h"
#include "platform/hardware/SimulatedI2cBus.h"

namespace Nimbo {

/// A simulated bus in the daemon's own process. Two backends of one bus exclude each other from
/// begin() to end(), as two descriptors of a device node do.
class SimulatedBackend : public BusBackend {
public:
   explicit SimulatedBackend(std::shared_ptr<Hardware::SimulatedI2cBus> bus);
   ~SimulatedBackend() override;

   void begin() override { _bus->exclusiveUse().lock(); }
   void end() noexcept override { _bus->exclusiveUse().unlock(); }
   int write(std::uint8_t device, std::span<const std::uint8_t> offset,
             std::span<const std::uint8_t> data) override;
   int read(std::uint8_t device, std::span<const std::uint8_t> offset,
            std::span<std::uint8_t> data) override;

private:
   const std::shared_ptr<Hardware::SimulatedI2cBus> _bus;
};

} // namespace Nimbo
