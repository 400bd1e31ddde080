#pragma once

#include <memory>

#include "nimbo/BusBackend.h"
#include "platform/hardware/SimulatedI2cBus.h"

namespace Nimbo {

/// A simulated bus in the daemon's own process.
class SimulatedBackend : public BusBackend {
public:
   explicit SimulatedBackend(std::shared_ptr<Hardware::SimulatedI2cBus> bus);
   ~SimulatedBackend() override;

   void begin() override {}
   void end() noexcept override {}
   int write(std::uint8_t device, std::span<const std::uint8_t> offset,
             std::span<const std::uint8_t> data) override;
   int read(std::uint8_t device, std::span<const std::uint8_t> offset,
            std::span<std::uint8_t> data) override;

private:
   const std::shared_ptr<Hardware::SimulatedI2cBus> _bus;
};

} // namespace Nimbo
