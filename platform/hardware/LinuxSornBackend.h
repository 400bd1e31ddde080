#pragma once

#include <optional>
#include <string>

#include "platform/hardware/SornBackend.h"

namespace Hardware {

/// One of the kernel's I2C buses, through its device node. Holds the node's exclusive lock (flock)
/// from begin() to end(), as other programs do that use the node, so that all can share a device.
///
/// The node is opened when it is first needed, and again when the driver behind it has gone: a bus
/// that comes later, or comes back, needs no restart. An error of a transfer closes nothing.
class TARN_PLATFORM_API LinuxSornBackend : public SornBackend {
public:
   explicit LinuxSornBackend(std::string path);
   ~LinuxSornBackend() override;

   int begin() noexcept override;
   void end() noexcept override;
   int transfer(std::uint8_t device, std::uint8_t readWrite, std::uint8_t command,
                i2c_smbus_data& data) noexcept override;

private:
   void _close() noexcept;

   const std::string _path;
   int _fd = -1;
   std::optional<std::uint8_t> _device; // that the descriptor is set to
   bool _isStale = false;
};

} // namespace Hardware
