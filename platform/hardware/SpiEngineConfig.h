#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

#include "platform/entity/AttributeId.h"
#include "platform/entity/Export.h"
#include "platform/entity/Node.h"
#include "platform/entity/Ptr.h"
#include "platform/entity/Types.h"
#include "platform/hardware/SpiEngineRequest.h"

namespace Hardware {

using Platform::Ptr;
using Platform::String;

/// What clients ask of an SPI engine: the queue of requests. One SpiEngineSm serves it; until there
/// is one, requests wait, and those that still wait when the configuration goes, go unsent.
///
/// An entity, held through Ptr by clients and the state machine, on one thread.
class TARN_PLATFORM_API SpiEngineConfig : public Platform::Node {
public:
   static constexpr Platform::AttributeId queueLengthAttr{"queueLength"};

   /// The most requests that wait at a time: about 8 MiB of them. A queue that long belongs to a
   /// device that lost its engine, or to a program that never gets round to its event loop.
   static constexpr std::size_t maxQueued = 65536;

   explicit SpiEngineConfig(const String& name);
   ~SpiEngineConfig() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   const String& name() const noexcept { return _name; }

   /// Puts the request at the end of the queue and returns; nothing is sent from inside the call.
   /// A request queued twice is sent twice.
   ///
   /// Throws std::system_error (generic category), and queues nothing: EINVAL for a null request,
   /// ENOBUFS when `maxQueued` requests wait already. What an observer of the queue throws passes
   /// on too; the request is then queued all the same.
   void requestEnq(const Ptr<SpiEngineRequest>& request);

   /// How many requests wait; the one being sent is not among them.
   std::uint32_t queueLength() const noexcept { return static_cast<std::uint32_t>(_queue.size()); }

private:
   friend class SpiEngineSm;

   // Apart from each other: the state machine sends what it took before anybody hears of it, so
   // that an observer cannot have a later request sent first.
   Ptr<SpiEngineRequest> _requestDeq() noexcept;
   void _queueLengthPublish() const;

   const String _name;
   std::deque<Ptr<SpiEngineRequest>> _queue;
};

} // namespace Hardware
