#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "tools/tarnsim/BusNode.h"
#include "tools/tarnsim/SpiDevice.h"

namespace TarnSim {

/// A /dev/spidevB.C: answers as the kernel's driver for such nodes does. Mode, word size and speed
/// belong to the device: all who open it share them. They are kept and given back; the simulated
/// device does not mind them.
class SpiNode : public BusNode {
public:
   SpiNode(SpiDevice& device, std::shared_ptr<BusQueue> controller)
      : BusNode(std::move(controller)), _device(device) {}

   bool usesBus(std::uint32_t request) const noexcept override;
   long ioctl(const IoctlCall& call) override;

private:
   long _message(const IoctlCall& call);
   long _modeIs(std::uint32_t mode);

   SpiDevice& _device;
   std::mutex _mutex;
   std::uint32_t _mode = 0;
   std::uint32_t _speed = 10'000'000;
};

} // namespace TarnSim
