#pragma once

#include <cstdint>

#include <linux/i2c.h>

#include "platform/entity/Export.h"
#include "platform/hardware/SimulatedI2cBus.h"

namespace Hardware {

/// Runs one SMBus operation on `bus` with the messages that a plain I2C controller makes of it,
/// and with the checks and errors of its driver. Arguments as in Linux's i2c_smbus_ioctl_data:
/// `readWrite` I2C_SMBUS_READ or I2C_SMBUS_WRITE, `size` I2C_SMBUS_QUICK, ...; `data` may be null
/// where the operation has none. Returns 0 or an errno: EINVAL for a bad size, length or direction
/// or for missing data, EPROTO for a block length that is not possible, and what the bus gives.
///
/// When a device stops early in an I2C block read, the block's length says how much it gave.
TARN_PLATFORM_API int smbusTransfer(SimulatedI2cBus& bus, std::uint8_t address,
                                    std::uint8_t readWrite, std::uint8_t command,
                                    std::uint32_t size, i2c_smbus_data* data);

} // namespace Hardware
