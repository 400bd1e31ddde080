#include "agent/Daemon.h"

#include <csignal>
#include <optional>
#include <utility>
#include <variant>

#include <fmt/format.h>

#include "board/PciPresence.h"
#include "platform/metrics/Registry.h"
#include "platform/trace/Trace.h"
#include "TarnRegFile/RegisterFileHelper.h"

namespace Agent {

namespace {

TARN_TRACE_SOURCE(traceSource, "agent/Daemon");

/// Addresses of the shadow registers are the numbers that the list has.
constexpr std::uint8_t addrBlockSize = 1;

TarnRegFile::Ptr<TarnRegFile::HardwareRegisterFile> registersIn(const std::string& path) {
   const auto helper = TarnRegFile::RegFileHelper::RegFileHelperIs(path);
   helper->init(path, addrBlockSize, nullptr);
   return helper->regFilePtr();
}

} // namespace

Daemon::Daemon(const Config& config, const ReasonSource& reason)
   : _loop(_platforms.eventLoop()), _tables(_loop),
     _isWatched(Board::ServiceNotifier::watchdogInterval().has_value()),
     _signals(_loop, {SIGTERM, SIGINT, SIGHUP}, [this](int signal) { _signal(signal); }),
     _ends(_urgent, {SIGTERM, SIGINT}, [this](int) { _isToEnd = true; }),
     _watchdog(_loop, [this] { _notifier.alive(); }) {
   if (!config.metrics.empty()) {
      // That of the process, as the tables count there.
      _exposer = std::make_unique<Platform::Metrics::Exposer>(Platform::Metrics::processRegistry(),
                                                              config.metrics);
   }
   for (const Board::DeviceEntry& device : config.cores) {
      _cores.push_back(_coreNew(device, config, reason));
      TARN_TRACE(traceSource, 1, "start", "Looking after '{}', {}", device.name, device.url.text());
   }
   if (const auto interval = Board::ServiceNotifier::watchdogInterval()) {
      _watchdog.startEvery(*interval / 3);
   }
   TARN_TRACE(traceSource, 1, "start", "Serving {} in {}",
              config.cores.size() == 1 ? "a core" : fmt::format("{} cores", config.cores.size()),
              _tables.directory().path());
   _notifier.ready();
}

Daemon::~Daemon() = default;

std::unique_ptr<CoreAgent> Daemon::_coreNew(const Board::DeviceEntry& device, const Config& config,
                                            const ReasonSource& reason) {
   return std::make_unique<CoreAgent>(
      _loop, _tables,
      CoreAgent::Hardware{
         .name = device.name,
         .registers = registersIn(device.list),
         .descriptor = [this, url = device.url] { return url.descriptor(&_platforms); },
         .reason = reason,
         .alive =
            [this] {
               if (_isWatched) {
                  _notifier.alive();
               }
            },
         .isToEnd =
            [this] {
               _urgent.poll();
               return _isToEnd;
            },
         .isThere = [url = device.url]() -> std::optional<bool> {
            const auto* pci = std::get_if<Board::PciAt>(&url.where());
            return pci ? Board::pciIsThere(pci->path) : std::nullopt;
         }},
      config.settings, Platform::Metrics::processRegistry());
}

void Daemon::run() {
   _loop.run();
   // While the loop is there to take what they let go.
   _cores.clear();
   TARN_TRACE(traceSource, 1, "stop", "Stopped");
}

void Daemon::_signal(int signal) {
   if (signal == SIGHUP) {
      TARN_TRACE(traceSource, 1, "signal", "Told to begin new generations");
      _notifier.reloading();
      for (const auto& core : _cores) {
         core->renew();
      }
      _notifier.ready();
   } else {
      TARN_TRACE(traceSource, 1, "signal", "Told to end");
      _notifier.stopping();
      _loop.stop();
   }
}

} // namespace Agent
