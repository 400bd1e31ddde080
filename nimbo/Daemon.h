#pragma once

#include <memory>
#include <vector>

#include "board/ServiceNotifier.h"
#include "board/SimulatedI2cBuses.h"
#include "nimbo/ConfigSource.h"
#include "nimbo/ListeningSocket.h"
#include "nimbo/Server.h"
#include "nimbo/StatusDocument.h"
#include "nimbo/StatusSocket.h"
#include "platform/entity/EventLoop.h"
#include "platform/entity/SignalWatch.h"
#include "platform/entity/Timer.h"
#include "platform/metrics/Exposer.h"
#include "platform/metrics/Registration.h"
#include "platform/metrics/Registry.h"

namespace Nimbo {

/// The daemon: what its configuration asks for, put together, and told by signals what to do.
///
/// SIGTERM and SIGINT: finish what has begun and end. A second one, or the end of the time for
/// that: end at once. SIGHUP: read the configuration again, and serve the buses that it has now.
///
/// Owned by main. All calls on the event loop's thread.
class Daemon {
public:
   /// Begins to serve. Throws what ConfigSource::read() and ListeningSocket throw, and
   /// std::system_error or std::invalid_argument for an address that metrics cannot be shown at.
   Daemon(Platform::EventLoop& loop, ConfigSource source);
   ~Daemon();
   Daemon(const Daemon&) = delete;
   Daemon& operator=(const Daemon&) = delete;

   /// Serves until told to end. True: everything that had begun was finished. False: something was
   /// not; as a thread may be stuck in a bus for ever, the process is then to end without
   /// destroying this.
   [[nodiscard]] bool run();

private:
   void _signal(int signal);
   void _reload();
   void _stop();
   void _giveUp(const char* why);
   void _busesAre(const Config& config);
   void _showStatus();
   std::shared_ptr<Bus> _bus(const BusConfig& config) const;

   Platform::EventLoop& _loop;
   const ConfigSource _source;
   const Config _config;
   Board::SimulatedI2cBuses _simulated;

   Platform::Metrics::Registry _metrics;
   Board::ServiceNotifier _notifier;
   std::unique_ptr<ListeningSocket> _socket;
   Server _server;
   StatusDocument _statusDocument;
   std::unique_ptr<ListeningSocket> _statusPlace;
   std::unique_ptr<StatusSocket> _status;
   Platform::Metrics::Registration _registration;
   std::unique_ptr<Platform::Metrics::Exposer> _exposer;
   Platform::SignalWatch _signals;
   Platform::Timer _stopTimer;
   bool _stopping = false;
   bool _finished = false;
};

} // namespace Nimbo
