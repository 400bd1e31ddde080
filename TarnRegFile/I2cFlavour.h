#pragma once

#include <cstdint>
#include <functional>
#include <unordered_map>

#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

union i2c_smbus_data; // from <linux/i2c.h>

namespace TarnRegFile {

/// How a device behind an I2C bus wants its registers addressed.
enum class I2cFlavour : std::uint8_t {
   dataBlock = 1, ///< 16-bit register address; 4 bytes of data, most significant first
   dataWord = 2,  ///< 8-bit register address; a 16-bit SMBus word, least significant byte first
};

/// What a flavour does on the bus, through the kernel's I2C device.
///
/// `fd` is an open I2C device with the peripheral's address set; it stays the caller's. Transfers
/// that are interrupted or would block are repeated until they are answered; every other failure
/// throws std::system_error. Any thread, one at a time for each device.
namespace i2cflavspec {

using ReadFunction = std::function<std::uint32_t(int fd, const HardwareRegister& reg)>;
using WriteFunction = std::function<void(int fd, const HardwareRegister& reg, std::uint32_t value)>;

/// One row of the table of flavours.
struct Spec {
   std::uint8_t addrBlockSize; ///< address units per register number
   ReadFunction read;
   WriteFunction write;
};

/// Every flavour there is. Built when the library is loaded, never changed.
TARN_API extern const std::unordered_map<I2cFlavour, Spec> table;

/// The row of a flavour. Throws std::out_of_range "_Map_base::at" when there is none.
TARN_API const Spec& specOf(I2cFlavour flavour);

/// Reads in two transfers, the register's address and then four bytes, and keeps other processes
/// off the device in between with an exclusive flock on `fd`.
///
/// A register narrower than 32 bits is masked before the bytes are put in order, not after: its
/// value is in the upper part of the result. A device that answers 0x12, 0x34, ... for a register
/// of 16 bits reads as 0x12340000.
TARN_API std::uint32_t readDataBlock(int fd, const HardwareRegister& reg);

/// Writes address and value in one transfer, under the same flock. The value goes out whole, also
/// to a narrower register.
TARN_API void writeDataBlock(int fd, const HardwareRegister& reg, std::uint32_t value);

/// Reads one word; no mask, no lock, since a single transfer is not divided.
TARN_API std::uint32_t readDataWord(int fd, const HardwareRegister& reg);

/// Writes the low 16 bits of `value`; what is above is dropped.
TARN_API void writeDataWord(int fd, const HardwareRegister& reg, std::uint32_t value);

/// The one transfer of the two above. `readWrite` is I2C_SMBUS_READ or I2C_SMBUS_WRITE, `size` one
/// of the kernel's I2C_SMBUS_ codes. Throws EDOM, before any transfer, for an address above 255.
TARN_API void dataWordAccess(int fd, unsigned int regAddress, unsigned char readWrite,
                             unsigned int size, i2c_smbus_data& data);

} // namespace i2cflavspec

} // namespace TarnRegFile
