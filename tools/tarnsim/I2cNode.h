#pragma once

#include <memory>

#include "platform/hardware/SimulatedI2cBus.h"
#include "tools/tarnsim/BusNode.h"

namespace TarnSim {

/// A /dev/i2c-N: answers as the kernel's driver for such nodes does.
///
/// The peripheral address that I2C_SLAVE sets belongs to the open file description: descriptors
/// made by dup and fork share it, two opens do not. The description's file offset, which nothing
/// else needs, holds it.
class I2cNode : public BusNode {
public:
   explicit I2cNode(std::shared_ptr<Hardware::SimulatedI2cBus> bus);

   bool usesBus(std::uint32_t request) const noexcept override;
   long ioctl(const IoctlCall& call) override;

private:
   long _slave(const IoctlCall& call) const;
   long _smbus(const IoctlCall& call);
   long _rdwr(const IoctlCall& call);

   std::shared_ptr<Hardware::SimulatedI2cBus> _bus;
};

} // namespace TarnSim
