#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "nimbo/BusBackend.h"
#include "platform/hardware/DeviceNode.h"
#include "TarnRegFile/Utils.h"

namespace Nimbo {

/// One of the kernel's I2C buses, through its device node, with the node's exclusive lock (flock)
/// held from begin() to end(): the one that programs which use the node directly take.
///
/// The node is opened when it is first needed, given up when it has gone, and opened again when
/// there is another in its place: a bus that is not there yet, or that comes back, needs no
/// restart. An error of a transfer closes nothing.
class LinuxBackend : public BusBackend {
public:
   /// `timeout` and `retries` as the driver takes them (I2C_TIMEOUT, I2C_RETRIES); left as they
   /// are where there is none.
   LinuxBackend(std::string path, std::optional<std::chrono::milliseconds> timeout,
                std::optional<unsigned> retries);
   ~LinuxBackend() override;

   void begin() override;
   void end() noexcept override;

   /// A controller that only speaks SMBus can do what SMBus has a block transfer for: offsets of
   /// one byte and up to 32 bytes of data. For others both give EOPNOTSUPP. It also gives EBUSY
   /// for a device that has a driver in the kernel.
   int write(std::uint8_t device, std::span<const std::uint8_t> offset,
             std::span<const std::uint8_t> data) override;
   int read(std::uint8_t device, std::span<const std::uint8_t> offset,
            std::span<std::uint8_t> data) override;

private:
   void _open();
   int _smbus(std::uint8_t device, std::uint8_t direction, std::uint8_t offset,
              std::span<std::uint8_t> data);

   const std::optional<std::chrono::milliseconds> _timeout;
   const std::optional<unsigned> _retries;

   Hardware::DeviceNode _node;
   bool _speaksI2c = false;
   std::optional<TarnRegFile::Utils::UnixFlockRes> _lock;
};

} // namespace Nimbo
