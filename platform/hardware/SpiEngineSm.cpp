#include "platform/hardware/SpiEngineSm.h"

#include <cerrno>
#include <chrono>
#include <exception>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/EventLoop.h"
#include "platform/entity/TypeBuilder.h"
#include "platform/hardware/private/FirstException.h"
#include "platform/trace/Trace.h"

namespace Hardware {

namespace {

TARN_TRACE_SOURCE(traceSource, "platform/hardware/SpiEngineSm");

constexpr const char* partMissing = "SPI state machine must have an engine, a configuration and a "
                                    "status";
constexpr const char* observerFailed = "an observer failed: {}";
constexpr const char* discardedCount =
   "SPI engine of '{}' taken down; queued requests discarded: {}";
constexpr const char* discarded = "SPI request {}: discarded, as its engine was taken down";

} // namespace

SpiEngineSm::SpiEngineSm(const Ptr<SpiEngine>& engine, const Ptr<SpiEngineConfig>& config,
                         const Ptr<SpiEngineStatus>& status)
   : _engine(engine), _config(config), _status(status) {
   if (!_engine || !_config || !_status) {
      Platform::throwError(EINVAL, partMissing);
   }
   _queueWatch = Platform::subscribe(*_config, SpiEngineConfig::queueLengthAttr,
                                     [this](const auto&) { _wakeUp(); });
   _engine->hwAccess()->_engineAdded(this);
   try {
      _wakeUp();
   } catch (...) {
      _engine->hwAccess()->_engineRemoved(this);
      throw;
   }
}

SpiEngineSm::~SpiEngineSm() {
   beingDestroyedIs();
   teardown();
}

const Platform::TypeData& SpiEngineSm::staticType() {
   using Self = SpiEngineSm;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("Hardware::SpiEngineSm", Node::staticType())
         .attribute<&Self::name>("name")
         .attribute<&Self::engine>("engine")
         .attribute<&Self::config>("config")
         .attribute<&Self::status>("status")
         .operation<&Self::drain>("drain")
         .operation<&Self::teardown>("teardown")
         .build();
   return type;
}

void SpiEngineSm::_wakeUp() {
   if (_tornDown || _config->queueLength() == 0) {
      return;
   }
   if (!_timer) {
      // Once a loop was found to be gone, the handle may still name it.
      Platform::EventLoop* loop = _loopGone ? nullptr : _engine->hwAccess()->eventLoop();
      if (!loop) {
         loop = Platform::EventLoop::current();
      }
      if (!loop) {
         return;
      }
      _timer = std::make_unique<Platform::Timer>(*loop, [this] { _turn(); });
   }
   if (!_timer->active()) {
      _timer->startIn(std::chrono::nanoseconds(0));
      if (!_timer->active()) {
         _timer.reset();
         _loopGone = true;
      }
   }
}

void SpiEngineSm::_turn() {
   const Ptr<SpiEngineSm> held(this);
   const Ptr<SpiEngineRequest> request = _config->_requestDeq();
   if (!request) {
      return;
   }
   FirstException first;
   _execute(*request, first);
   _wakeUp();
   first.rethrow();
}

std::size_t SpiEngineSm::drain() {
   const Ptr<SpiEngineSm> held(this);
   std::size_t failed = 0;
   FirstException first;
   while (!_tornDown) {
      const Ptr<SpiEngineRequest> request = _config->_requestDeq();
      if (!request) {
         break;
      }
      if (!_execute(*request, first)) {
         ++failed;
      }
   }
   if (_timer && _config->queueLength() == 0) {
      _timer->cancel();
   }
   first.rethrow();
   return failed;
}

bool SpiEngineSm::_execute(SpiEngineRequest& request, FirstException& first) {
   SpiEngine::Outcome outcome{EIO, String()}; // stands, should memory run out on the way
   first.of([&] { outcome = _engine->execute(request); });
   if (outcome.error != 0) {
      // A device that is gone fails thousands in a row; the first of them says it all.
      TARN_TRACE(traceSource, outcome.error == _errorBefore ? 1 : 0, "_execute", "{}",
                 outcome.text);
   }
   _errorBefore = outcome.error;
   first.of([&] { _config->_queueLengthPublish(); });
   first.of([&] {
      if (outcome.error == 0) {
         _status->requestCompleted(request.id());
      } else {
         _status->requestFailed(request.id(), outcome.error, outcome.text);
      }
   });
   return outcome.error == 0;
}

void SpiEngineSm::teardown() noexcept {
   if (_tornDown) {
      return;
   }
   const Ptr<SpiEngineSm> held(this);
   _tornDown = true;
   _queueWatch.reset();
   _timer.reset();
   _engine->hwAccess()->_engineRemoved(this);
   FirstException first;
   if (const std::uint32_t waiting = _config->queueLength(); waiting != 0) {
      TARN_TRACE(traceSource, 0, "teardown", discardedCount, name(), waiting);
   }
   // Those that wait now, not those that an observer queues again and again.
   for (std::uint32_t left = _config->queueLength(); left > 0; --left) {
      const Ptr<SpiEngineRequest> request = _config->_requestDeq();
      if (!request) {
         break;
      }
      first.of([&] { _config->_queueLengthPublish(); });
      first.of([&] {
         _status->requestFailed(request->id(), ECANCELED, fmt::format(discarded, request->id()));
      });
   }
   try {
      first.rethrow();
   } catch (const std::exception& failure) {
      TARN_TRACE(traceSource, 0, "teardown", observerFailed, failure.what());
   } catch (...) {
      TARN_TRACE(traceSource, 0, "teardown", observerFailed, "unknown exception");
   }
}

} // namespace Hardware
