#include "platform/hardware/LinuxSornBackend.h"

#include <linux/i2c-dev.h>
#include <sys/file.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <utility>

namespace Hardware {

namespace {

/// 0 or the errno of a call, which is repeated when a signal comes in between.
template <typename Call>
int errnoOf(const Call& call) noexcept {
   int result = 0;
   do {
      result = static_cast<int>(call());
   } while (result < 0 && errno == EINTR);
   return result < 0 ? errno : 0;
}

} // namespace

LinuxSornBackend::LinuxSornBackend(std::string path) : _node(std::move(path)) {}

LinuxSornBackend::~LinuxSornBackend() = default;

int LinuxSornBackend::begin() noexcept {
   if (_isStale || !_node.isCurrent()) {
      _device.reset();
      _isStale = false;
      if (const int error = _node.open()) {
         return error;
      }
   }
   return errnoOf([this] { return ::flock(_node.fd(), LOCK_EX); });
}

void LinuxSornBackend::end() noexcept {
   ::flock(_node.fd(), LOCK_UN);
}

int LinuxSornBackend::transfer(std::uint8_t device, std::uint8_t readWrite, std::uint8_t command,
                               i2c_smbus_data& data) noexcept {
   if (_device != device) {
      const int error = errnoOf(
         [this, device] { return ::ioctl(_node.fd(), I2C_SLAVE, static_cast<long>(device)); });
      if (error != 0) {
         return error;
      }
      _device = device;
   }
   i2c_smbus_ioctl_data request = {};
   request.read_write = readWrite;
   request.command = command;
   request.size = I2C_SMBUS_I2C_BLOCK_DATA;
   request.data = &data;
   const int error = errnoOf([this, &request] { return ::ioctl(_node.fd(), I2C_SMBUS, &request); });
   // A driver that went says so; the next one is behind a new descriptor only.
   _isStale = error == ENODEV;
   return error;
}

} // namespace Hardware
