#include "platform/hardware/SornManager.h"

#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/hardware/LinuxSornBackend.h"
#include "platform/hardware/private/SornBus.h"

namespace Hardware {

namespace {

constexpr const char* noBackend = "bus '{}' must have a backend";
constexpr const char* going = "the access manager is going: no bus '{}' any more";
constexpr const char* twice = "the access manager has a bus '{}' already";

} // namespace

SornManager::SornManager(Platform::EventLoop& loop) : _loop(loop) {}

SornManager::~SornManager() {
   // Who hears of a cancelled request may use the manager's other buses still. A new one would
   // never be stopped.
   _isGoing = true;
   const auto buses = _buses;
   for (const auto& [name, bus] : buses) {
      bus->stop();
   }
}

Ptr<SornDesc> SornManager::busNew(const String& name, std::unique_ptr<SornBackend> backend) {
   if (!backend) {
      Platform::throwError(EINVAL, fmt::format(noBackend, name));
   }
   if (_isGoing) {
      Platform::throwError(ESHUTDOWN, fmt::format(going, name));
   }
   if (_buses.count(name) != 0) {
      Platform::throwError(EEXIST, fmt::format(twice, name));
   }
   const auto bus = std::make_shared<SornBus>(_loop, name, std::move(backend));
   bus->start();
   _buses.emplace(name, bus);
   return Platform::make<SornDesc>(bus);
}

Ptr<SornDesc> SornManager::linuxBus(const String& path) {
   if (const auto known = _buses.find(path); known != _buses.end()) {
      return Platform::make<SornDesc>(known->second);
   }
   return busNew(path, std::make_unique<LinuxSornBackend>(path));
}

} // namespace Hardware
