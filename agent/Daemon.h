#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/Config.h"
#include "agent/CoreAgent.h"
#include "board/Platforms.h"
#include "board/ServiceNotifier.h"
#include "platform/entity/EventLoop.h"
#include "platform/entity/SignalWatch.h"
#include "platform/entity/Timer.h"
#include "platform/metrics/Exposer.h"
#include "platform/tables/TableService.h"

namespace Agent {

/// The agent: the cores that its configuration asks for, and what signals tell it.
///
/// SIGTERM and SIGINT: every core says that it is stopped, the tables are unmounted. SIGHUP: a new
/// generation of every core. While its loop turns, a service manager that watches is told so.
///
/// Owned by main. All calls on the event loop's thread.
class Daemon {
public:
   using ReasonSource = std::function<std::string(const std::string& regName)>;

   /// Begins to serve. `reason` says why the last access of a register failed. Throws what
   /// CoreAgent throws, what is wrong with a register list, and std::system_error or
   /// std::invalid_argument for an address that metrics cannot be shown at.
   Daemon(const Config& config, const ReasonSource& reason);
   ~Daemon();
   Daemon(const Daemon&) = delete;
   Daemon& operator=(const Daemon&) = delete;

   /// Serves until told to end.
   void run();

private:
   std::unique_ptr<CoreAgent> _coreNew(const Board::DeviceEntry& device, const Config& config,
                                       const ReasonSource& reason);
   void _signal(int signal);

   Board::Platforms _platforms;
   Platform::EventLoop& _loop;
   Platform::Tables::TableService _tables;
   Board::ServiceNotifier _notifier;
   const bool _isWatched;
   std::vector<std::unique_ptr<CoreAgent>> _cores;
   std::unique_ptr<Platform::Metrics::Exposer> _exposer;
   Platform::SignalWatch _signals;
   // Looked into by who keeps the other loop busy for long.
   Platform::EventLoop _urgent;
   bool _isToEnd = false;
   Platform::SignalWatch _ends;
   Platform::Timer _watchdog;
};

} // namespace Agent
