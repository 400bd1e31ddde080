#include "TarnRegFile/I2cFlavour.h"

#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/file.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <stdexcept>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "TarnRegFile/Utils.h"

namespace TarnRegFile::i2cflavspec {

namespace {

constexpr unsigned int maxWordAddress = 0xff;
constexpr std::uint8_t valueSize = 4;

constexpr const char* addressWriteText = "Error writing address {:#x} on FD {}";
constexpr const char* readText = "Error reading from address {:#x} on FD {}";
constexpr const char* writeText = "Error writing value {:#x} to address {:#x} on FD {}";
constexpr const char* wordAddressText = "Invalid register address value {:#x}";
constexpr const char* wordText = "I2C word {} from address {:#x} failed";

std::uint8_t byteOf(std::uint32_t value, unsigned int index) {
   return static_cast<std::uint8_t>(value >> (8 * index));
}

/// One SMBus transfer; negative, with errno set, when it failed.
long smbusTransfer(int fd, unsigned char readWrite, std::uint8_t command, unsigned int size,
                   i2c_smbus_data& data) {
   i2c_smbus_ioctl_data request{};
   request.read_write = readWrite;
   request.command = command;
   request.size = size;
   request.data = &data;
   return Utils::syscallAutoRetry([&] { return ::ioctl(fd, I2C_SMBUS, &request); }, true, true);
}

} // namespace

const std::unordered_map<I2cFlavour, Spec> table = {
   {I2cFlavour::dataBlock, {1, readDataBlock, writeDataBlock}},
   {I2cFlavour::dataWord, {1, readDataWord, writeDataWord}},
};

const Spec& specOf(I2cFlavour flavour) {
   const auto row = table.find(flavour);
   if (row == table.end()) {
      // The text of a checked look-up is the standard library's own and differs between its
      // versions; clients know this one.
      throw std::out_of_range("_Map_base::at");
   }
   return row->second;
}

std::uint32_t readDataBlock(int fd, const HardwareRegister& reg) {
   const Utils::UnixFlockRes lock(fd, LOCK_EX);
   const std::uint8_t command = byteOf(reg.address, 1);

   i2c_smbus_data data{};
   data.block[0] = 1;
   data.block[1] = byteOf(reg.address, 0);
   if (smbusTransfer(fd, I2C_SMBUS_WRITE, command, I2C_SMBUS_I2C_BLOCK_DATA, data) < 0) {
      Platform::throwErrno(fmt::format(addressWriteText, reg.address, fd));
   }

   data = {};
   data.block[0] = valueSize;
   if (smbusTransfer(fd, I2C_SMBUS_READ, command, I2C_SMBUS_I2C_BLOCK_DATA, data) < 0) {
      Platform::throwErrno(fmt::format(readText, reg.address, fd));
   }
   if (data.block[0] < valueSize) {
      errno = EIO; // the device stopped early: what is missing is not zeros
      Platform::throwErrno(fmt::format(readText, reg.address, fd));
   }

   std::uint32_t word = 0;
   for (unsigned int i = 0; i < valueSize; ++i) {
      word |= static_cast<std::uint32_t>(data.block[1 + i]) << (8 * i);
   }
   const unsigned int unused = (reg.accessWidth - reg.width) % 32u;
   word = word << unused >> unused;
   return __builtin_bswap32(word);
}

void writeDataBlock(int fd, const HardwareRegister& reg, std::uint32_t value) {
   const Utils::UnixFlockRes lock(fd, LOCK_EX);

   i2c_smbus_data data{};
   data.block[0] = 1 + valueSize;
   data.block[1] = byteOf(reg.address, 0);
   for (unsigned int i = 0; i < valueSize; ++i) {
      data.block[2 + i] = byteOf(value, valueSize - 1 - i);
   }
   if (smbusTransfer(fd, I2C_SMBUS_WRITE, byteOf(reg.address, 1), I2C_SMBUS_I2C_BLOCK_DATA, data) <
       0) {
      Platform::throwErrno(fmt::format(writeText, value, reg.address, fd));
   }
}

void dataWordAccess(int fd, unsigned int regAddress, unsigned char readWrite, unsigned int size,
                    i2c_smbus_data& data) {
   if (regAddress > maxWordAddress) {
      Platform::throwError(EDOM, fmt::format(wordAddressText, regAddress));
   }
   if (smbusTransfer(fd, readWrite, static_cast<std::uint8_t>(regAddress), size, data) < 0) {
      Platform::throwErrno(fmt::format(wordText, readWrite != 0 ? "read" : "write", regAddress));
   }
}

std::uint32_t readDataWord(int fd, const HardwareRegister& reg) {
   i2c_smbus_data data{};
   dataWordAccess(fd, reg.address, I2C_SMBUS_READ, I2C_SMBUS_WORD_DATA, data);
   return data.word;
}

void writeDataWord(int fd, const HardwareRegister& reg, std::uint32_t value) {
   i2c_smbus_data data{};
   data.word = static_cast<std::uint16_t>(value);
   dataWordAccess(fd, reg.address, I2C_SMBUS_WRITE, I2C_SMBUS_WORD_DATA, data);
}

} // namespace TarnRegFile::i2cflavspec
