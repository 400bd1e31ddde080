#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/entity/EventLoop.h"
#include "platform/hardware/SornManager.h"

namespace Board {

/// What a program's devices share: the event loop, and the access manager of the I2C buses that
/// tells its results there. Each is made when it is first asked for, so that a program whose
/// devices need none of it has none. And the environment as the program was given it, which the
/// devices that say nothing themselves go by, whatever others of the program were pointed at.
///
/// Owned by the program, on one thread; the devices go first. Who waits for a result of a device
/// runs the loop.
class Platforms {
public:
   Platforms();
   ~Platforms();
   Platforms(const Platforms&) = delete;
   Platforms& operator=(const Platforms&) = delete;

   /// Throws std::system_error if the system gives no descriptors.
   Platform::EventLoop& eventLoop();
   Hardware::SornManager& sornManager();

   /// Gives one of the variables that transports read the value that it had when this was made.
   void restoreEnvironment(const std::string& variable) const;

private:
   std::map<std::string, std::optional<std::string>> _environment;
   std::unique_ptr<Platform::EventLoop> _eventLoop;
   std::unique_ptr<Hardware::SornManager> _sornManager; // goes before its loop
};

} // namespace Board
