#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/entity/Export.h"
#include "platform/entity/Types.h"
#include "platform/hardware/SpiBackend.h"
#include "platform/hardware/SpidevSystem.h"

namespace Hardware {

/// How a device behind the kernel's SPI device is driven.
struct SpidevSettings {
   Platform::String path; ///< /dev/spidevB.C, B the bus and C the chip select

   /// Clock limit in Hz; 0 leaves it to the system.
   std::uint32_t maxSpeedHz = 0;

   /// Clock polarity and phase, 0 to 3; unset leaves them as the system has set them up.
   std::optional<std::uint8_t> mode;
};

/// An SPI device behind the kernel's /dev/spidevB.C: each transfer is one SPI_IOC_MESSAGE of 8-bit
/// words.
///
/// The node is opened by the first transfer, so the driver may be loaded later than this is made.
/// An error of the transfer itself leaves it open. One that says that what is open is no device
/// (any longer), ENODEV, ENXIO, ESHUTDOWN, EBADF or ENOTTY, closes it, and if it had been open
/// from an earlier transfer the path is opened anew and the transfer tried once more: nothing of
/// it can have reached the device. So a device that went and came back just works.
class TARN_PLATFORM_API SpidevBackend : public SpiBackend {
public:
   /// Opens nothing. Throws std::system_error EINVAL (generic category) for an empty path or a
   /// mode above 3. A null `system` is the real one.
   explicit SpidevBackend(SpidevSettings settings, std::shared_ptr<SpidevSystem> system = nullptr);
   ~SpidevBackend() override;

   const SpidevSettings& settings() const noexcept { return _settings; }

   /// The path.
   const Platform::String& name() const noexcept override { return _settings.path; }

   /// Returns, beside what the kernel gives, EIO for a message that it cut short. EINTR is
   /// repeated, never returned.
   int transfer(std::span<const std::uint8_t> out, std::span<std::uint8_t> in) override;

   /// Whether the node is open at this moment.
   bool isOpen() const noexcept { return _fd >= 0; }

private:
   int _open();
   void _close() noexcept;
   int _message(std::span<const std::uint8_t> out, std::span<std::uint8_t> in);
   int _ioctl(unsigned long request, void* argument);

   const SpidevSettings _settings;
   const std::shared_ptr<SpidevSystem> _system;
   int _fd = -1;
};

} // namespace Hardware
