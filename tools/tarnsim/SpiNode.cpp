#include "tools/tarnsim/SpiNode.h"

#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <vector>

#include <linux/spi/spidev.h>

namespace TarnSim {

namespace {

/// Most bytes of one request in each direction, as the kernel's driver has it by default.
constexpr std::size_t bufferSize = 4096;
constexpr std::uint8_t wordBits = 8;
constexpr std::uint32_t possibleModes =
   SPI_CPHA | SPI_CPOL | SPI_CS_HIGH | SPI_LSB_FIRST | SPI_3WIRE | SPI_NO_CS;

bool isMessage(std::uint32_t request) noexcept {
   return _IOC_TYPE(request) == SPI_IOC_MAGIC && _IOC_NR(request) == 0 &&
          _IOC_DIR(request) == _IOC_WRITE;
}

template <typename Number>
long give(const IoctlCall& call, Number number) {
   return call.memory.write(call.argument, &number, sizeof(number)) ? 0 : -EFAULT;
}

/// Takes a number from the command, and does `use` with it.
template <typename Number, typename Use>
long take(const IoctlCall& call, const Use& use) {
   Number number = 0;
   if (!call.memory.read(call.argument, &number, sizeof(number))) {
      return -EFAULT;
   }
   return call.waits() ? use(number) : -EINTR;
}

} // namespace

bool SpiNode::usesBus(std::uint32_t request) const noexcept {
   return isMessage(request);
}

long SpiNode::_modeIs(std::uint32_t mode) {
   if ((mode & ~possibleModes) != 0) {
      return -EINVAL;
   }
   _mode = mode;
   return 0;
}

long SpiNode::ioctl(const IoctlCall& call) {
   if (isMessage(call.request)) {
      return _message(call);
   }
   const std::lock_guard lock(_mutex);
   constexpr std::uint32_t lsbFirst = SPI_LSB_FIRST;
   switch (call.request) {
   case SPI_IOC_RD_MODE:
      return give(call, static_cast<std::uint8_t>(_mode));
   case SPI_IOC_RD_MODE32:
      return give(call, _mode);
   case SPI_IOC_RD_LSB_FIRST:
      return give(call, static_cast<std::uint8_t>((_mode & lsbFirst) != 0 ? 1 : 0));
   case SPI_IOC_RD_BITS_PER_WORD:
      return give(call, wordBits);
   case SPI_IOC_RD_MAX_SPEED_HZ:
      return give(call, _speed);
   case SPI_IOC_WR_MODE:
      return take<std::uint8_t>(call, [&](std::uint8_t mode) { return _modeIs(mode); });
   case SPI_IOC_WR_MODE32:
      return take<std::uint32_t>(call, [&](std::uint32_t mode) { return _modeIs(mode); });
   case SPI_IOC_WR_LSB_FIRST:
      return take<std::uint8_t>(call, [&](std::uint8_t first) {
         return _modeIs(first != 0 ? _mode | lsbFirst : _mode & ~lsbFirst);
      });
   case SPI_IOC_WR_BITS_PER_WORD:
      // 0 is for the usual size, the only one that the controller has.
      return take<std::uint8_t>(call, [](std::uint8_t bits) -> long {
         return bits == 0 || bits == wordBits ? 0 : -EINVAL;
      });
   case SPI_IOC_WR_MAX_SPEED_HZ:
      return take<std::uint32_t>(call, [&](std::uint32_t speed) -> long {
         if (speed == 0) {
            return -EINVAL;
         }
         _speed = speed;
         return 0;
      });
   default:
      return -ENOTTY;
   }
}

long SpiNode::_message(const IoctlCall& call) {
   const std::size_t size = _IOC_SIZE(call.request);
   if (size % sizeof(spi_ioc_transfer) != 0) {
      return -EINVAL;
   }
   std::vector<spi_ioc_transfer> transfers(size / sizeof(spi_ioc_transfer));
   if (transfers.empty()) {
      return 0;
   }
   if (!call.memory.read(call.argument, transfers.data(), size)) {
      return -EFAULT;
   }
   std::uint64_t total = 0;
   std::uint64_t sent = 0;
   std::uint64_t received = 0;
   std::vector<std::uint8_t> out;
   for (const spi_ioc_transfer& transfer : transfers) {
      const std::uint64_t clocked = transfer.tx_buf || transfer.rx_buf ? 0 : transfer.len;
      sent += transfer.tx_buf ? transfer.len : clocked;
      received += transfer.rx_buf ? transfer.len : 0;
      total += transfer.len;
      if (total > INT_MAX || sent > bufferSize || received > bufferSize) {
         return -EMSGSIZE;
      }
      const std::size_t begin = out.size();
      out.resize(begin + transfer.len);
      if (transfer.tx_buf && !call.memory.read(transfer.tx_buf, out.data() + begin, transfer.len)) {
         return -EFAULT;
      }
      if (transfer.bits_per_word != 0 && transfer.bits_per_word != wordBits) {
         return -EINVAL;
      }
   }
   if (!call.waits()) {
      return -EINTR;
   }
   // Chip select is let go where a transfer asks for it: there the device sees a message end.
   std::vector<std::uint8_t> in(out.size());
   const std::span<const std::uint8_t> allOut(out);
   const std::span<std::uint8_t> allIn(in);
   std::size_t begin = 0;
   std::size_t end = 0;
   for (std::size_t i = 0; i < transfers.size(); ++i) {
      end += transfers[i].len;
      if (transfers[i].cs_change != 0 || i + 1 == transfers.size()) {
         const int error =
            _device.transfer(allOut.subspan(begin, end - begin), allIn.subspan(begin, end - begin));
         if (error != 0) {
            return -error;
         }
         begin = end;
      }
   }
   std::size_t at = 0;
   for (const spi_ioc_transfer& transfer : transfers) {
      if (transfer.rx_buf && !call.memory.write(transfer.rx_buf, in.data() + at, transfer.len)) {
         return -EFAULT;
      }
      at += transfer.len;
   }
   return static_cast<long>(total);
}

} // namespace TarnSim
