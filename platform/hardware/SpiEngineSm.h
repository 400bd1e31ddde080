#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>

#include "platform/entity/CallbackNotifiee.h"
#include "platform/entity/Export.h"
#include "platform/entity/Node.h"
#include "platform/entity/Ptr.h"
#include "platform/entity/Timer.h"
#include "platform/hardware/SpiEngine.h"
#include "platform/hardware/SpiEngineConfig.h"
#include "platform/hardware/SpiEngineStatus.h"

namespace Hardware {

class FirstException;

/// Serves the queue of an SpiEngineConfig: has its requests run by an SpiEngine, strictly in their
/// order, and reports each in an SpiEngineStatus. A failure, a lost device included, fails its
/// request and nothing else: the next one is tried as if nothing had happened.
///
/// It works on an event loop, one request a turn, so that a long queue keeps nobody else waiting;
/// the loop does not return from run() while requests wait. The loop is the one that the device's
/// SpiHwAccess names, or else the one whose callable is running when the state machine is made or,
/// failing that, when a request is queued. With none found, requests wait; a program without an
/// event loop calls drain() when it wants them sent.
///
/// Its end, by the last reference or by teardown(), talks to no device: requests that still wait
/// are reported as failed with ECANCELED. Whoever wants them sent drains first.
///
/// An entity, held through Ptr, on one thread; it holds the other three. Any of the four may be
/// let go, in any order, also by an observer of the status or the queue while it is called.
class TARN_PLATFORM_API SpiEngineSm : public Platform::Node {
public:
   /// Requests already queued are served like those that follow. One state machine serves one
   /// configuration. Throws std::system_error EINVAL (generic category) when one of the three is
   /// null.
   SpiEngineSm(const Ptr<SpiEngine>& engine, const Ptr<SpiEngineConfig>& config,
               const Ptr<SpiEngineStatus>& status);
   ~SpiEngineSm() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   /// The device's name.
   const String& name() const noexcept { return _engine->name(); }

   const Ptr<SpiEngine>& engine() const noexcept { return _engine; }
   const Ptr<SpiEngineConfig>& config() const noexcept { return _config; }
   const Ptr<SpiEngineStatus>& status() const noexcept { return _status; }

   /// Runs all that is queued, at once and inside the call, also what observers queue meanwhile,
   /// and returns how many of these requests failed. Needs no event loop. Nothing is left waiting
   /// unless the state machine was torn down. If observers throw, the queue is emptied still, and
   /// the first exception then passes on.
   std::size_t drain();

   /// Ends the service for good; harmless when repeated. The requests that wait are failed with
   /// ECANCELED; what is queued afterwards stays in the queue. What observers of these failures
   /// throw is traced and goes no further.
   void teardown() noexcept;

private:
   void _wakeUp();
   void _turn();
   bool _execute(SpiEngineRequest& request, FirstException& first);

   const Ptr<SpiEngine> _engine;
   const Ptr<SpiEngineConfig> _config;
   const Ptr<SpiEngineStatus> _status;
   Platform::Subscription _queueWatch;
   std::unique_ptr<Platform::Timer> _timer; // null while there is no loop
   std::int32_t _errorBefore = 0;           // that of the latest request
   bool _loopGone = false;
   bool _tornDown = false;
};

} // namespace Hardware
