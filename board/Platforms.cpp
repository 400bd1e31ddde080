#include "board/Platforms.h"

namespace Board {

Platforms::Platforms() = default;
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

} // namespace Board
