#pragma once

#include <cstddef>
#include <vector>

#include "platform/entity/EventLoop.h"
#include "platform/entity/Export.h"
#include "platform/entity/Ptr.h"
#include "platform/hardware/HwAccess.h"
#include "platform/hardware/SimulatedSpiDevice.h"
#include "platform/hardware/SpiBackend.h"
#include "platform/hardware/SpidevBackend.h"

namespace Hardware {

using Platform::Ptr;
using Platform::String;

class SpiEngineSm;

/// The handle on a device behind SPI: says how it is reached, and on which event loop requests for
/// it are sent. While it is not ready, requests fail with ENODEV.
///
/// It also knows the engines that serve the device, and so lets the program that made it wait
/// until everything queued was sent, and learn what failed, through whatever transport it was
/// queued.
class TARN_PLATFORM_API SpiHwAccess : public HwAccess {
public:
   /// Throws std::system_error EINVAL (generic category) for a null backend.
   SpiHwAccess(const String& name, const Ptr<SpiBackend>& backend);
   ~SpiHwAccess() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   const Ptr<SpiBackend>& backend() const noexcept { return _backend; }

   /// What the backend calls the device.
   const String& device() const noexcept { return _backend->name(); }

   /// The loop that is to send requests; null, as at first, leaves it to the engine's state machine
   /// to find one (see SpiEngineSm). It takes effect when a state machine without a loop next
   /// looks for one: when it is made, or when a request is queued. The loop is the caller's; set
   /// null before it goes, if state machines may still be made.
   void eventLoopIs(Platform::EventLoop* loop) noexcept { _eventLoop = loop; }
   Platform::EventLoop* eventLoop() const noexcept { return _eventLoop; }

   /// The state machines that serve the device at this moment, oldest first.
   std::vector<Ptr<SpiEngineSm>> engines() const;

   /// Sends everything queued for the device, now and on the calling thread, and returns how many
   /// of these requests failed; what failed is in the status of each engine. See
   /// SpiEngineSm::drain().
   std::size_t drain() const;

private:
   friend class SpiEngineSm;

   // The state machines themselves; they enter and leave.
   void _engineAdded(SpiEngineSm* engine) const;
   void _engineRemoved(const SpiEngineSm* engine) const noexcept;

   const Ptr<SpiBackend> _backend;
   Platform::EventLoop* _eventLoop = nullptr;
   // Who uses the device is no part of the handle's state.
   mutable std::vector<SpiEngineSm*> _engines;
};

/// A new handle, not ready, on the device behind a node of the kernel's. Throws what the
/// constructor of SpidevBackend throws.
TARN_PLATFORM_API Ptr<SpiHwAccess> spiHwAccessFactory(const String& name,
                                                      const SpidevSettings& settings);

/// A new handle, not ready, on a simulated device.
TARN_PLATFORM_API Ptr<SpiHwAccess> spiHwAccessFactory(const String& name,
                                                      const Ptr<SimulatedSpiDevice>& device);

} // namespace Hardware
