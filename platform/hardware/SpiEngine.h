#pragma once

#include <cstdint>

#include "platform/entity/Export.h"
#include "platform/entity/Node.h"
#include "platform/entity/Ptr.h"
#include "platform/entity/Types.h"
#include "platform/hardware/HwAccess.h"
#include "platform/hardware/SpiEngineRequest.h"
#include "platform/hardware/SpiHwAccess.h"

namespace Hardware {

/// Runs requests on the SPI controller that a device's handle is bound to, one at a time and at
/// once; queueing is the state machine's business. An entity, held through Ptr, on one thread.
class TARN_PLATFORM_API SpiEngine : public Platform::Node {
public:
   /// What became of a request: 0, or an errno and what failed.
   struct Outcome {
      std::int32_t error = 0;
      String text;
   };

   /// Throws std::system_error EINVAL (generic category) when the handle is null or no SpiHwAccess.
   explicit SpiEngine(const Ptr<const HwAccess>& hwAccess);
   ~SpiEngine() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   const Ptr<const SpiHwAccess>& hwAccess() const noexcept { return _hwAccess; }

   /// The device's name.
   const String& name() const noexcept { return _hwAccess->name(); }

   /// Sends the data bytes of the request's entries, in the order of their indices, as one message
   /// with the chip select held, and gives the request what came back.
   ///
   /// Nothing is sent of a request that the engine refuses: with ENODEV while the device is not
   /// ready; with EINVAL when it is empty, has a gap, or a command other than
   /// SpiCmdData::writeByte. Otherwise the error is the backend's.
   Outcome execute(SpiEngineRequest& request) const;

private:
   const Ptr<const SpiHwAccess> _hwAccess;
};

} // namespace Hardware
