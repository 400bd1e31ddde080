#include "platform/hardware/SpidevBackend.h"

#include <fcntl.h>
#include <linux/spi/spidev.h>

#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "platform/entity/Errors.h"

namespace Hardware {

namespace {

constexpr const char* emptyPath = "SPI device path must not be empty";
constexpr const char* badMode = "SPI mode {} is not 0 to 3";

constexpr std::uint8_t highestMode = 3;
constexpr std::uint8_t bitsPerWord = 8;

/// Whether the error says that the descriptor stands for no device, so that no byte was sent.
bool descriptorIsStale(int error) {
   return error == ENODEV || error == ENXIO || error == ESHUTDOWN || error == EBADF ||
          error == ENOTTY;
}

} // namespace

SpidevBackend::SpidevBackend(SpidevSettings settings, std::shared_ptr<SpidevSystem> system)
   : _settings(std::move(settings)),
     _system(system ? std::move(system) : std::make_shared<SpidevSystem>()) {
   if (_settings.path.empty()) {
      Platform::throwError(EINVAL, emptyPath);
   }
   if (_settings.mode && *_settings.mode > highestMode) {
      Platform::throwError(EINVAL, fmt::format(badMode, *_settings.mode));
   }
}

SpidevBackend::~SpidevBackend() {
   _close();
}

int SpidevBackend::transfer(std::span<const std::uint8_t> out, std::span<std::uint8_t> in) {
   const bool wasOpen = isOpen();
   for (bool again = wasOpen;; again = false) {
      int error = isOpen() ? 0 : _open();
      if (error == 0) {
         error = _message(out, in);
      }
      if (!descriptorIsStale(error)) {
         return error;
      }
      _close();
      if (!again) {
         return error;
      }
   }
}

int SpidevBackend::_open() {
   do {
      _fd = _system->open(_settings.path.c_str(), O_RDWR | O_CLOEXEC | O_NOCTTY);
   } while (_fd < 0 && errno == EINTR);
   if (_fd < 0) {
      return errno;
   }
   if (_settings.mode) {
      // A setting of the opened node, unlike the clock, which every message carries.
      std::uint8_t mode = *_settings.mode;
      if (_ioctl(SPI_IOC_WR_MODE, &mode) < 0) {
         const int error = errno;
         _close();
         return error;
      }
   }
   return 0;
}

void SpidevBackend::_close() noexcept {
   if (const int fd = std::exchange(_fd, -1); fd >= 0) {
      // Not repeated: after a failed close the number may already be somebody else's.
      _system->close(fd);
   }
}

int SpidevBackend::_message(std::span<const std::uint8_t> out, std::span<std::uint8_t> in) {
   spi_ioc_transfer message{};
   message.tx_buf = reinterpret_cast<std::uintptr_t>(out.data());
   message.rx_buf = reinterpret_cast<std::uintptr_t>(in.data());
   message.len = static_cast<std::uint32_t>(out.size());
   message.speed_hz = _settings.maxSpeedHz;
   message.bits_per_word = bitsPerWord;
   const int sent = _ioctl(SPI_IOC_MESSAGE(1), &message);
   if (sent < 0) {
      return errno;
   }
   return static_cast<std::size_t>(sent) < out.size() ? EIO : 0;
}

int SpidevBackend::_ioctl(unsigned long request, void* argument) {
   int result;
   do {
      result = _system->ioctl(_fd, request, argument);
   } while (result < 0 && errno == EINTR);
   return result;
}

} // namespace Hardware
