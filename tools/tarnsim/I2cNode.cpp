#include "tools/tarnsim/I2cNode.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <utility>
#include <vector>

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include "platform/hardware/SmbusTransfer.h"

namespace TarnSim {

namespace {

constexpr std::uint64_t maxAddress = 0x7f;
constexpr std::size_t maxMessageLength = 8192;

/// What a plain controller can do by itself, and with the SMBus operations that its driver makes
/// of it; no packet error codes.
constexpr unsigned long functions =
   (I2C_FUNC_I2C | I2C_FUNC_SMBUS_EMUL | I2C_FUNC_SMBUS_READ_BLOCK_DATA |
    I2C_FUNC_SMBUS_BLOCK_PROC_CALL) &
   ~static_cast<unsigned long>(I2C_FUNC_SMBUS_PEC);

/// How many bytes of i2c_smbus_data an operation uses.
std::size_t dataSize(std::uint32_t size) {
   switch (size) {
   case I2C_SMBUS_BYTE:
   case I2C_SMBUS_BYTE_DATA:
      return sizeof(i2c_smbus_data::byte);
   case I2C_SMBUS_WORD_DATA:
   case I2C_SMBUS_PROC_CALL:
      return sizeof(i2c_smbus_data::word);
   default:
      return sizeof(i2c_smbus_data::block);
   }
}

std::uint64_t addressOf(const void* pointer) {
   return reinterpret_cast<std::uintptr_t>(pointer);
}

} // namespace

I2cNode::I2cNode(std::shared_ptr<Hardware::SimulatedI2cBus> bus)
   : BusNode(std::make_shared<BusQueue>()), _bus(std::move(bus)) {}

bool I2cNode::usesBus(std::uint32_t request) const noexcept {
   return request == I2C_SMBUS || request == I2C_RDWR;
}

long I2cNode::ioctl(const IoctlCall& call) {
   switch (call.request) {
   case I2C_SLAVE:
   case I2C_SLAVE_FORCE:
      return _slave(call);
   case I2C_TENBIT:
      return call.argument == 0 ? 0 : -EINVAL;
   case I2C_PEC:
      return 0;
   case I2C_RETRIES:
   case I2C_TIMEOUT:
      return call.argument <= INT_MAX ? 0 : -EINVAL;
   case I2C_FUNCS:
      return call.memory.write(call.argument, &functions, sizeof(functions)) ? 0 : -EFAULT;
   case I2C_SMBUS:
      return _smbus(call);
   case I2C_RDWR:
      return _rdwr(call);
   default:
      return -ENOTTY;
   }
}

long I2cNode::_slave(const IoctlCall& call) const {
   if (call.argument > maxAddress) {
      return -EINVAL;
   }
   return ::lseek(call.file, static_cast<off_t>(call.argument), SEEK_SET) < 0 ? -errno : 0;
}

long I2cNode::_smbus(const IoctlCall& call) {
   i2c_smbus_ioctl_data request{};
   if (!call.memory.read(call.argument, &request, sizeof(request))) {
      return -EFAULT;
   }
   const bool isCall =
      request.size == I2C_SMBUS_PROC_CALL || request.size == I2C_SMBUS_BLOCK_PROC_CALL;
   const bool reads = request.read_write == I2C_SMBUS_READ || isCall;
   const bool sends =
      request.read_write == I2C_SMBUS_WRITE || isCall || request.size == I2C_SMBUS_I2C_BLOCK_DATA;
   const bool hasData =
      request.data && request.size != I2C_SMBUS_QUICK &&
      !(request.size == I2C_SMBUS_BYTE && request.read_write == I2C_SMBUS_WRITE) &&
      request.size <= I2C_SMBUS_I2C_BLOCK_DATA &&
      (request.read_write == I2C_SMBUS_READ || request.read_write == I2C_SMBUS_WRITE);
   i2c_smbus_data data{};
   if (hasData && sends &&
       !call.memory.read(addressOf(request.data), &data, dataSize(request.size))) {
      return -EFAULT;
   }
   const off_t offset = ::lseek(call.file, 0, SEEK_CUR);
   if (!call.waits()) {
      return -EINTR;
   }
   // The offset of somebody who seeks in a device node is anything.
   const auto address = static_cast<std::uint8_t>(static_cast<std::uint64_t>(offset) & maxAddress);
   const int error = Hardware::smbusTransfer(*_bus, address, request.read_write, request.command,
                                             request.size, hasData ? &data : nullptr);
   if (error != 0) {
      return -error;
   }
   if (hasData && reads &&
       !call.memory.write(addressOf(request.data), &data, dataSize(request.size))) {
      return -EFAULT;
   }
   return 0;
}

long I2cNode::_rdwr(const IoctlCall& call) {
   i2c_rdwr_ioctl_data request{};
   if (!call.memory.read(call.argument, &request, sizeof(request))) {
      return -EFAULT;
   }
   if (!request.msgs || request.nmsgs == 0 || request.nmsgs > I2C_RDWR_IOCTL_MAX_MSGS) {
      return -EINVAL;
   }
   std::vector<i2c_msg> requested(request.nmsgs);
   if (!call.memory.read(addressOf(request.msgs), requested.data(),
                         requested.size() * sizeof(i2c_msg))) {
      return -EFAULT;
   }
   constexpr unsigned known = I2C_M_RD | I2C_M_RECV_LEN | I2C_M_DMA_SAFE;
   std::vector<Hardware::I2cMessage> messages(requested.size());
   bool addressable = true;
   bool possible = true;
   for (std::size_t i = 0; i < requested.size(); ++i) {
      const i2c_msg& from = requested[i];
      Hardware::I2cMessage& to = messages[i];
      if (from.len > maxMessageLength) {
         return -EINVAL;
      }
      addressable = addressable && from.addr <= maxAddress;
      possible = possible && (from.flags & ~known) == 0;
      to.address = static_cast<std::uint8_t>(from.addr);
      to.isRead = (from.flags & I2C_M_RD) != 0;
      to.bytes.resize(from.len);
      if (!call.memory.read(addressOf(from.buf), to.bytes.data(), to.bytes.size())) {
         return -EFAULT;
      }
      if ((from.flags & I2C_M_RECV_LEN) != 0) {
         // The first byte says how many the caller wants beside the block itself.
         if (!to.isRead || to.bytes.empty() || to.bytes[0] == 0 ||
             to.bytes.size() < std::size_t{to.bytes[0]} + I2C_SMBUS_BLOCK_MAX) {
            return -EINVAL;
         }
         to.receivesLength = true;
         to.bytes.resize(to.bytes[0]);
      }
   }
   if (!call.waits()) {
      return -EINTR;
   }
   if (!possible) {
      return -EOPNOTSUPP;
   }
   if (!addressable) {
      return -ENXIO;
   }
   if (const int error = _bus->transfer(messages); error != 0) {
      return -error;
   }
   for (std::size_t i = 0; i < requested.size(); ++i) {
      if (messages[i].isRead &&
          !call.memory.write(addressOf(requested[i].buf), messages[i].bytes.data(),
                             messages[i].bytes.size())) {
         return -EFAULT;
      }
   }
   return static_cast<long>(requested.size());
}

} // namespace TarnSim
