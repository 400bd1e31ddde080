#pragma once

#include <cstdint>

#include "platform/entity/AttributeId.h"
#include "platform/entity/Export.h"
#include "platform/entity/Node.h"
#include "platform/entity/Types.h"

namespace Hardware {

using Platform::String;

/// How an SPI engine fares: what has become of the requests so far. Whoever wants to know whether
/// what was queued has reached the device looks here, or subscribes.
///
/// An entity, held through Ptr by the state machine, which alone changes it, and by those who
/// watch; on one thread.
class TARN_PLATFORM_API SpiEngineStatus : public Platform::Node {
public:
   static constexpr Platform::AttributeId completedAttr{"completed"};
   static constexpr Platform::AttributeId failedAttr{"failed"};
   static constexpr Platform::AttributeId lastErrorAttr{"lastError"};
   static constexpr Platform::AttributeId lastErrorTextAttr{"lastErrorText"};
   static constexpr Platform::AttributeId lastRequestIdAttr{"lastRequestId"};

   explicit SpiEngineStatus(const String& name);
   ~SpiEngineStatus() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   const String& name() const noexcept { return _name; }

   /// Requests that the device has taken, and those that it has not.
   std::uint64_t completed() const noexcept { return _completed; }
   std::uint64_t failed() const noexcept { return _failed; }

   /// The errno of the latest failure and what it was, request included. 0 and empty while nothing
   /// has failed; a request that completes leaves them as they are.
   std::int32_t lastError() const noexcept { return _lastError; }
   const String& lastErrorText() const noexcept { return _lastErrorText; }

   /// The id of the request that completed or failed last; 0 at first.
   std::uint32_t lastRequestId() const noexcept { return _lastRequestId; }

   // All attributes that a request changes have their new values before the first change is
   // published; the counts come last. If observers throw, every change is published still, and
   // the first exception then passes on.

   void requestCompleted(std::uint32_t id);

   /// `error` is an errno, `text` says what failed.
   void requestFailed(std::uint32_t id, std::int32_t error, const String& text);

private:
   const String _name;
   std::uint64_t _completed = 0;
   std::uint64_t _failed = 0;
   std::int32_t _lastError = 0;
   String _lastErrorText;
   std::uint32_t _lastRequestId = 0;
};

} // namespace Hardware
