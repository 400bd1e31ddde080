#pragma once

#include <cstdint>
#include <span>

#include "platform/entity/Export.h"
#include "platform/entity/RefCounted.h"
#include "platform/entity/Types.h"

namespace Hardware {

/// How bytes get to an SPI device: the seam between the engine and the hardware. Held through Ptr
/// by the device's SpiHwAccess and used on its thread.
class TARN_PLATFORM_API SpiBackend : public Platform::RefCounted {
public:
   /// What the device is called in messages: the path of its node, for instance.
   virtual const Platform::String& name() const noexcept = 0;

   /// Clocks `out` out as one message, chip select held, and what comes back into `in`, which is
   /// as long. Returns 0, or the errno of the failure; `in` is then undefined. A device that is
   /// gone is a failure like any other, and the next call finds out whether it is back.
   virtual int transfer(std::span<const std::uint8_t> out, std::span<std::uint8_t> in) = 0;

protected:
   ~SpiBackend() override;
};

} // namespace Hardware
