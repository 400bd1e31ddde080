#include "nimbo/Daemon.h"

#include <algorithm>
#include <csignal>
#include <exception>
#include <set>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "nimbo/LinuxBackend.h"
#include "nimbo/Peer.h"
#include "nimbo/PeerPolicy.h"
#include "nimbo/SimulatedBackend.h"
#include "platform/trace/Trace.h"

namespace Nimbo {

namespace {

TARN_TRACE_SOURCE(traceSource, "nimbo/Daemon");

Server::Admission admissionOf(const Config& config) {
   return
      [policy = PeerPolicy(config.allowedUsers, config.allowedGroups)](int fd, std::string& text) {
         try {
            const Peer peer = Peer::of(fd);
            text = peer.text();
            return policy.allows(peer);
         } catch (const std::exception& error) {
            text = error.what();
            return false;
         }
      };
}

std::unique_ptr<ListeningSocket> socketNew(const Config& config, const std::string& file) {
   return std::make_unique<ListeningSocket>(
      ListeningSocket::Place{.directory = config.socketDirectory,
                             .file = file,
                             .mode = config.socketMode,
                             .owner = config.socketOwner,
                             .group = config.socketGroup});
}

/// The service manager's, or one of our own.
std::unique_ptr<ListeningSocket> socketOf(const Config& config) {
   if (auto socket = ListeningSocket::activated()) {
      return socket;
   }
   return socketNew(config, config.socketFile);
}

} // namespace

Daemon::Daemon(Platform::EventLoop& loop, ConfigSource source)
   : _loop(loop), _source(std::move(source)), _config(_source.read()), _socket(socketOf(_config)),
     _server(loop, _config.maxConnections, admissionOf(_config)),
     _statusDocument(_server, _socket->path(), _config.maxConnections),
     _signals(loop, {SIGTERM, SIGINT, SIGHUP}, [this](int signal) { _signal(signal); }),
     _stopTimer(loop, [this] { _giveUp("the time for that is over"); }) {
   const Server::Counters& counters = _server.counters();
   _registration = _metrics.registrationNew({
      {"nimbod_connections_total", "Connections taken in", &counters.accepted},
      {"nimbod_refused_connections_total", "Connections of clients that are not on the list",
       &counters.refused},
      {"nimbod_connections_over_limit_total", "Connections turned away as there were too many",
       &counters.overLimit},
      {"nimbod_malformed_connections_total", "Connections ended because what came was no request",
       &counters.malformed},
   });
   if (!_config.metrics.empty()) {
      _exposer = std::make_unique<Platform::Metrics::Exposer>(_metrics, _config.metrics);
   }
   _busesAre(_config);
   _showStatus();
   _server.listenAt(_socket->fd());
   TARN_TRACE(traceSource, 1, "start", "Serving {} at {}",
              _config.buses.size() == 1 ? "a bus" : fmt::format("{} buses", _config.buses.size()),
              _socket->path());
   for (const BusConfig& bus : _config.buses) {
      TARN_TRACE(traceSource, 1, "start", "Bus {} '{}' is {}{}", bus.number, bus.name,
                 bus.simulated ? "a simulation of " : "", bus.device);
   }
   _notifier.ready();
}

Daemon::~Daemon() = default;

bool Daemon::run() {
   _loop.run();
   return _finished;
}

void Daemon::_showStatus() {
   try {
      _statusPlace = socketNew(_config, _config.socketFile + statusSuffix);
      _status = std::make_unique<StatusSocket>(
         _loop, _statusPlace->fd(), PeerPolicy(_config.allowedUsers, _config.allowedGroups),
         [this] { return _statusDocument.text(); });
   } catch (const std::exception& error) {
      // The buses are what counts.
      TARN_TRACE(traceSource, 0, "start", "There will be no status: {}", error.what());
   }
}

void Daemon::_busesAre(const Config& config) {
   // What is simulated already goes on with the values that its registers have.
   for (auto& [path, bus] : Board::simulatedI2cBuses(config.simulated)) {
      _simulated.try_emplace(path, bus);
   }
   const std::shared_ptr<const BusTable> before = _server.buses();
   std::vector<std::shared_ptr<Bus>> buses;
   std::set<const Bus*> kept;
   for (const BusConfig& each : config.buses) {
      const auto same = std::find_if(before->buses().begin(), before->buses().end(),
                                     [&each](const auto& bus) { return bus->config() == each; });
      buses.push_back(same != before->buses().end() ? *same : _bus(each));
      kept.insert(buses.back().get());
   }
   for (const std::shared_ptr<Bus>& bus : before->buses()) {
      if (!kept.contains(bus.get())) {
         bus->hide(); // before one of the same name is shown
      }
   }
   for (const std::shared_ptr<Bus>& bus : buses) {
      bus->showIn(_metrics);
   }
   _server.busesAre(std::make_shared<const BusTable>(std::move(buses)));
}

std::shared_ptr<Bus> Daemon::_bus(const BusConfig& config) const {
   std::unique_ptr<BusBackend> backend;
   if (config.simulated) {
      backend = std::make_unique<SimulatedBackend>(_simulated.at(config.device));
   } else {
      backend = std::make_unique<LinuxBackend>(config.device, config.timeout, config.retries);
   }
   return std::make_shared<Bus>(config, std::move(backend));
}

void Daemon::_signal(int signal) {
   if (signal == SIGHUP) {
      if (!_stopping) {
         _reload();
      }
   } else if (_stopping) {
      _giveUp("told to end twice");
   } else {
      _stop();
   }
}

void Daemon::_reload() {
   _notifier.reloading();
   try {
      const Config config = _source.read();
      _busesAre(config);
      TARN_TRACE(traceSource, 1, "reload", "Read the configuration again: {} bus{}",
                 config.buses.size(), config.buses.size() == 1 ? "" : "es");
   } catch (const std::exception& error) {
      TARN_TRACE(traceSource, 0, "reload", "The buses stay as they were: {}", error.what());
   }
   _notifier.ready();
}

void Daemon::_stop() {
   _stopping = true;
   TARN_TRACE(traceSource, 1, "stop", "Told to end");
   _notifier.stopping();
   _stopTimer.startIn(_config.stopTimeout);
   _server.stop([this] {
      _finished = true;
      _loop.stop();
   });
   // From here on another daemon may take the place.
   _status.reset();
   _statusPlace.reset();
   _socket.reset();
}

void Daemon::_giveUp(const char* why) {
   for (const std::shared_ptr<Bus>& bus : _server.buses()->buses()) {
      if (bus->busySince()) {
         TARN_TRACE(traceSource, 0, "stop", "Bus '{}' is still at work, {} wait for it",
                    bus->name(), bus->waiting());
      }
   }
   TARN_TRACE(traceSource, 0, "stop", "Ending before all is finished: {}", why);
   _loop.stop();
}

} // namespace Nimbo
