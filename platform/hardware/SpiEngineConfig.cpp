#include "platform/hardware/SpiEngineConfig.h"

#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/TypeBuilder.h"

namespace Hardware {

namespace {

constexpr const char* nullRequest = "SPI request must not be null";
constexpr const char* queueFull = "SPI engine '{}' already has {} requests queued";

} // namespace

SpiEngineConfig::SpiEngineConfig(const String& name) : _name(name) {}

SpiEngineConfig::~SpiEngineConfig() {
   beingDestroyedIs();
}

const Platform::TypeData& SpiEngineConfig::staticType() {
   using Self = SpiEngineConfig;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("Hardware::SpiEngineConfig", Node::staticType())
         .attribute<&Self::name>("name")
         .attribute<&Self::queueLength>("queueLength")
         .build();
   return type;
}

void SpiEngineConfig::requestEnq(const Ptr<SpiEngineRequest>& request) {
   if (!request) {
      Platform::throwError(EINVAL, nullRequest);
   }
   if (_queue.size() >= maxQueued) {
      Platform::throwError(ENOBUFS, fmt::format(queueFull, _name, maxQueued));
   }
   _queue.push_back(request);
   publish(queueLengthAttr);
}

Ptr<SpiEngineRequest> SpiEngineConfig::_requestDeq() noexcept {
   if (_queue.empty()) {
      return nullptr;
   }
   Ptr<SpiEngineRequest> request = std::move(_queue.front());
   _queue.pop_front();
   return request;
}

void SpiEngineConfig::_queueLengthPublish() const {
   publish(queueLengthAttr);
}

} // namespace Hardware
