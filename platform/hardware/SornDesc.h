#pragma once

#include <cstdint>
#include <memory>

#include "platform/entity/AttributeId.h"
#include "platform/entity/Export.h"
#include "platform/entity/Node.h"
#include "platform/entity/Ptr.h"
#include "platform/entity/Types.h"
#include "platform/hardware/Sorn.h"

namespace Hardware {

/// Describes a bus of the access manager to those who are to use it, and gives each a handle.
///
/// An entity, held through Ptr, on the event loop's thread. Got from SornManager::bus().
class TARN_PLATFORM_API SornDesc : public Platform::Node {
public:
   static constexpr Platform::AttributeId timeoutAttr{"timeout"};

   explicit SornDesc(std::shared_ptr<SornBus> bus);
   ~SornDesc() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   /// The bus: "/dev/i2c-3".
   const String& busName() const noexcept;

   /// The time-out, in milliseconds, that handles begin with; 0, as at first, for none.
   std::uint32_t timeout() const noexcept { return _timeout; }
   void timeoutIs(std::uint32_t milliseconds);

   /// A new handle: the caller is a client of its own.
   Ptr<Sorn> sorn() const;

private:
   const std::shared_ptr<SornBus> _bus;
   std::uint32_t _timeout = 0;
};

} // namespace Hardware
