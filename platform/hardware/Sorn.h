#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "platform/entity/AttributeId.h"
#include "platform/entity/Export.h"
#include "platform/entity/Node.h"
#include "platform/entity/Ptr.h"
#include "platform/entity/Types.h"
#include "platform/hardware/SornRequest.h"

namespace Hardware {

using Platform::Ptr;
using Platform::String;

/// A client's handle of the access manager, for one bus: makes the client's requests.
///
/// A bus serves its clients in turn, an operation each, so that a client with thousands of requests
/// delays another's single one by one operation. Each handle is a client of its own.
///
/// An entity, held through Ptr, on the event loop's thread. Got from SornDesc::sorn(). Handles and
/// requests may outlive the manager; they then submit no more.
class TARN_PLATFORM_API Sorn : public Platform::Node {
public:
   static constexpr Platform::AttributeId timeoutAttr{"timeout"};

   Sorn(std::shared_ptr<SornBus> bus, std::uint32_t timeoutMilliseconds);
   ~Sorn() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   /// The bus: "/dev/i2c-3".
   const String& busName() const noexcept;

   /// What new requests have as their time-out, in milliseconds; 0 for none.
   std::uint32_t timeout() const noexcept { return _timeout; }
   void timeoutIs(std::uint32_t milliseconds);

   /// A new request, to be described.
   Ptr<SornRequest> newRequest() const;

private:
   const std::shared_ptr<SornBus> _bus;
   const std::shared_ptr<SornClient> _client;
   std::uint32_t _timeout;
};

} // namespace Hardware
