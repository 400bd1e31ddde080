#include "nimbo/LinuxBackend.h"

#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/file.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>
#include <system_error>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/trace/Trace.h"

namespace Nimbo {

namespace {

TARN_TRACE_SOURCE(traceSource, "nimbo/LinuxBackend");

constexpr auto timeoutUnit = std::chrono::milliseconds(10); // I2C_TIMEOUT counts these

/// 0, or the errno that the ioctl failed with.
template <typename Argument>
int control(int fd, unsigned long request, Argument argument) {
   return ::ioctl(fd, request, argument) < 0 ? errno : 0;
}

/// All of the messages, or an errno: some drivers say how many of them went in place of an error.
int transfer(int fd, std::span<::i2c_msg> messages) {
   ::i2c_rdwr_ioctl_data all = {messages.data(), static_cast<::__u32>(messages.size())};
   const int done = ::ioctl(fd, I2C_RDWR, &all);
   if (done < 0) {
      return errno;
   }
   return static_cast<std::size_t>(done) == messages.size() ? 0 : EIO;
}

} // namespace

LinuxBackend::LinuxBackend(std::string path, std::optional<std::chrono::milliseconds> timeout,
                           std::optional<unsigned> retries)
   : _timeout(timeout), _retries(retries), _node(std::move(path)) {}

LinuxBackend::~LinuxBackend() = default;

void LinuxBackend::begin() {
   if (!_node.isCurrent()) {
      _open();
   }
   try {
      _lock.emplace(_node.fd(), LOCK_EX);
   } catch (const std::runtime_error& error) {
      throw std::system_error(std::make_error_code(std::errc::io_error),
                              fmt::format("cannot lock {}: {}", _node.path(), error.what()));
   }
}

void LinuxBackend::end() noexcept {
   _lock.reset();
}

void LinuxBackend::_open() {
   const std::string& path = _node.path();
   if (const int error = _node.open()) {
      errno = error;
      Platform::throwErrno(fmt::format("cannot open {}", path));
   }
   unsigned long functions = 0;
   if (const int error = control(_node.fd(), I2C_FUNCS, &functions)) {
      _node.close();
      errno = error;
      Platform::throwErrno(fmt::format("cannot use {} as an I2C bus", path));
   }
   // What is only a wish is not worth the bus.
   if (_timeout) {
      const auto units = static_cast<unsigned long>((*_timeout + timeoutUnit / 2) / timeoutUnit);
      if (const int error = control(_node.fd(), I2C_TIMEOUT, std::max(units, 1UL))) {
         TARN_TRACE(traceSource, 0, "open", "{} keeps its time-out: {}", path,
                    std::generic_category().message(error));
      }
   }
   if (_retries) {
      if (const int error = control(_node.fd(), I2C_RETRIES, std::size_t{*_retries})) {
         TARN_TRACE(traceSource, 0, "open", "{} keeps its number of retries: {}", path,
                    std::generic_category().message(error));
      }
   }
   _speaksI2c = (functions & I2C_FUNC_I2C) != 0;
   TARN_TRACE(traceSource, 2, "open", "Opened {}, {}", path,
              _speaksI2c ? "an I2C controller" : "an SMBus controller");
}

int LinuxBackend::write(std::uint8_t device, std::span<const std::uint8_t> offset,
                        std::span<const std::uint8_t> data) {
   std::vector<std::uint8_t> bytes;
   if (!_speaksI2c) {
      if (offset.size() != 1) {
         return EOPNOTSUPP;
      }
      bytes.assign(data.begin(), data.end());
      return _smbus(device, I2C_SMBUS_WRITE, offset[0], bytes);
   }
   bytes.reserve(offset.size() + data.size());
   bytes.assign(offset.begin(), offset.end());
   bytes.insert(bytes.end(), data.begin(), data.end());
   ::i2c_msg message = {};
   message.addr = device;
   message.len = static_cast<std::uint16_t>(bytes.size());
   message.buf = bytes.data();
   return transfer(_node.fd(), std::span(&message, 1));
}

int LinuxBackend::read(std::uint8_t device, std::span<const std::uint8_t> offset,
                       std::span<std::uint8_t> data) {
   if (!_speaksI2c) {
      return offset.size() == 1 ? _smbus(device, I2C_SMBUS_READ, offset[0], data) : EOPNOTSUPP;
   }
   std::array<std::uint8_t, 4> pointer = {};
   std::copy(offset.begin(), offset.end(), pointer.begin());
   std::array<::i2c_msg, 2> messages = {};
   messages[0].addr = device;
   messages[0].len = static_cast<std::uint16_t>(offset.size());
   messages[0].buf = pointer.data();
   messages[1].addr = device;
   messages[1].flags = I2C_M_RD;
   messages[1].len = static_cast<std::uint16_t>(data.size());
   messages[1].buf = data.data();
   return transfer(_node.fd(), messages);
}

int LinuxBackend::_smbus(std::uint8_t device, std::uint8_t direction, std::uint8_t offset,
                         std::span<std::uint8_t> data) {
   if (data.size() > I2C_SMBUS_BLOCK_MAX) {
      return EOPNOTSUPP;
   }
   if (const int error = control(_node.fd(), I2C_SLAVE, std::size_t{device})) {
      return error;
   }
   ::i2c_smbus_data block = {};
   block.block[0] = static_cast<std::uint8_t>(data.size());
   const bool isWrite = direction == I2C_SMBUS_WRITE;
   if (isWrite) {
      std::copy(data.begin(), data.end(), &block.block[1]);
   }
   ::i2c_smbus_ioctl_data transfer = {};
   transfer.read_write = direction;
   transfer.command = offset;
   // A block has at least a byte of data; the offset alone is a byte sent.
   transfer.size = data.empty() ? I2C_SMBUS_BYTE : I2C_SMBUS_I2C_BLOCK_DATA;
   transfer.data = &block;
   if (const int error = control(_node.fd(), I2C_SMBUS, &transfer)) {
      return error;
   }
   if (!isWrite) {
      if (block.block[0] < data.size()) {
         return EIO; // the device stopped early
      }
      std::copy_n(&block.block[1], data.size(), data.begin());
   }
   return 0;
}

} // namespace Nimbo
