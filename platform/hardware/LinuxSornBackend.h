#pragma once

#include <optional>
#include <string>

#include "platform/hardware/DeviceNode.h"
#include "platform/hardware/SornBackend.h"

namespace Hardware {

/// One of the kernel's I2C buses, through its device node. Holds the node's exclusive lock (flock)
/// from begin() to end(), as other programs do that use the node, so that all can share a device.
///
/// The node is opened when it is first needed, given up when it or the driver behind it has gone,
/// and opened again when it is back: a bus that comes later, or comes back, needs no restart. No
/// other error of a transfer closes it.
class TARN_PLATFORM_API LinuxSornBackend : public SornBackend {
public:
   explicit LinuxSornBackend(std::string path);
   ~LinuxSornBackend() override;

   int begin() noexcept override;
   void end() noexcept override;
   int transfer(std::uint8_t device, std::uint8_t readWrite, std::uint8_t command,
                i2c_smbus_data& data) noexcept override;

private:
   DeviceNode _node;
   std::optional<std::uint8_t> _device; // that the descriptor is set to
   bool _isStale = false;
};

} // namespace Hardware
