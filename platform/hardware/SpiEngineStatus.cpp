#include "platform/hardware/SpiEngineStatus.h"

#include "platform/entity/TypeBuilder.h"
#include "platform/hardware/private/FirstException.h"

namespace Hardware {

SpiEngineStatus::SpiEngineStatus(const String& name) : _name(name) {}

SpiEngineStatus::~SpiEngineStatus() {
   beingDestroyedIs();
}

const Platform::TypeData& SpiEngineStatus::staticType() {
   using Self = SpiEngineStatus;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("Hardware::SpiEngineStatus", Node::staticType())
         .attribute<&Self::name>("name")
         .attribute<&Self::completed>("completed")
         .attribute<&Self::failed>("failed")
         .attribute<&Self::lastError>("lastError")
         .attribute<&Self::lastErrorText>("lastErrorText")
         .attribute<&Self::lastRequestId>("lastRequestId")
         .build();
   return type;
}

void SpiEngineStatus::requestCompleted(std::uint32_t id) {
   const Platform::Ptr<SpiEngineStatus> held(this);
   const bool idDiffers = _lastRequestId != id;
   _lastRequestId = id;
   ++_completed;
   FirstException first;
   if (idDiffers) {
      first.of([&] { publish(lastRequestIdAttr); });
   }
   first.of([&] { publish(completedAttr); });
   first.rethrow();
}

void SpiEngineStatus::requestFailed(std::uint32_t id, std::int32_t error, const String& text) {
   const Platform::Ptr<SpiEngineStatus> held(this);
   const bool idDiffers = _lastRequestId != id;
   const bool errorDiffers = _lastError != error;
   const bool textDiffers = _lastErrorText != text;
   _lastErrorText = text; // first, as it alone can fail
   _lastRequestId = id;
   _lastError = error;
   ++_failed;
   FirstException first;
   if (idDiffers) {
      first.of([&] { publish(lastRequestIdAttr); });
   }
   if (errorDiffers) {
      first.of([&] { publish(lastErrorAttr); });
   }
   if (textDiffers) {
      first.of([&] { publish(lastErrorTextAttr); });
   }
   first.of([&] { publish(failedAttr); });
   first.rethrow();
}

} // namespace Hardware
