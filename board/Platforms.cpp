#include "board/Platforms.h"

#include <cstdlib>

#include "board/TransportUrl.h"

namespace Board {

Platforms::Platforms() {
   for (const char* variable : {valuesFileVariable, socketDirectoryVariable, socketFileVariable}) {
      const char* value = std::getenv(variable);
      _environment.emplace(variable, value ? std::optional<std::string>(value) : std::nullopt);
   }
}

Platforms::~Platforms() = default;

Platform::EventLoop& Platforms::eventLoop() {
   if (!_eventLoop) {
      _eventLoop = std::make_unique<Platform::EventLoop>();
   }
   return *_eventLoop;
}

Hardware::SornManager& Platforms::sornManager() {
   if (!_sornManager) {
      _sornManager = std::make_unique<Hardware::SornManager>(eventLoop());
   }
   return *_sornManager;
}

void Platforms::restoreEnvironment(const std::string& variable) const {
   if (const std::optional<std::string>& value = _environment.at(variable)) {
      ::setenv(variable.c_str(), value->c_str(), 1);
   } else {
      ::unsetenv(variable.c_str());
   }
}

} // namespace Board
