#pragma once

#include <cstdint>

#include <linux/i2c.h>

#include "platform/entity/Export.h"

namespace Hardware {

/// A bus as the access manager drives it: SMBus transfers between begin() and end(). Owned by its
/// bus, whose worker thread is the only one that calls. Must not throw.
class TARN_PLATFORM_API SornBackend {
public:
   SornBackend();
   virtual ~SornBackend();
   SornBackend(const SornBackend&) = delete;
   SornBackend& operator=(const SornBackend&) = delete;

   /// Gets the bus for one operation, waiting for others as long as it takes. Returns 0, or the
   /// errno for which the bus cannot be had; end() is then not called.
   virtual int begin() noexcept = 0;
   virtual void end() noexcept = 0;

   /// One I2C block transfer of SMBus with a device: `data.block` has the length in front.
   /// `readWrite` is I2C_SMBUS_READ or I2C_SMBUS_WRITE. Returns 0 or an errno.
   virtual int transfer(std::uint8_t device, std::uint8_t readWrite, std::uint8_t command,
                        i2c_smbus_data& data) noexcept = 0;
};

} // namespace Hardware
