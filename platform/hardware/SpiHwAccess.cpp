#include "platform/hardware/SpiHwAccess.h"

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/TypeBuilder.h"
#include "platform/hardware/private/FirstException.h"
#include "platform/hardware/SpiEngineSm.h"

namespace Hardware {

namespace {

constexpr const char* nullBackend = "SPI device '{}' must have a backend";

const Ptr<SpiBackend>& checked(const String& name, const Ptr<SpiBackend>& backend) {
   if (!backend) {
      Platform::throwError(EINVAL, fmt::format(nullBackend, name));
   }
   return backend;
}

} // namespace

SpiHwAccess::SpiHwAccess(const String& name, const Ptr<SpiBackend>& backend)
   : HwAccess(name), _backend(checked(name, backend)) {}

SpiHwAccess::~SpiHwAccess() {
   beingDestroyedIs();
}

const Platform::TypeData& SpiHwAccess::staticType() {
   using Self = SpiHwAccess;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("Hardware::SpiHwAccess", HwAccess::staticType())
         .attribute<&Self::device>("device")
         .build();
   return type;
}

std::vector<Ptr<SpiEngineSm>> SpiHwAccess::engines() const {
   std::vector<Ptr<SpiEngineSm>> engines;
   engines.reserve(_engines.size());
   for (SpiEngineSm* engine : _engines) {
      engines.emplace_back(engine);
   }
   return engines;
}

std::size_t SpiHwAccess::drain() const {
   const Ptr<const SpiHwAccess> held(this);
   std::size_t failed = 0;
   FirstException first;
   for (const Ptr<SpiEngineSm>& engine : engines()) {
      first.of([&] { failed += engine->drain(); });
   }
   first.rethrow();
   return failed;
}

void SpiHwAccess::_engineAdded(SpiEngineSm* engine) const {
   _engines.push_back(engine);
}

void SpiHwAccess::_engineRemoved(const SpiEngineSm* engine) const noexcept {
   _engines.erase(std::remove(_engines.begin(), _engines.end(), engine), _engines.end());
}

Ptr<SpiHwAccess> spiHwAccessFactory(const String& name, const SpidevSettings& settings) {
   return Platform::make<SpiHwAccess>(name, Platform::make<SpidevBackend>(settings));
}

Ptr<SpiHwAccess> spiHwAccessFactory(const String& name, const Ptr<SimulatedSpiDevice>& device) {
   return Platform::make<SpiHwAccess>(name, device);
}

} // namespace Hardware
