#include "nimbo/StatusDocument.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "nimbo/AddressWord.h"

namespace Nimbo {

namespace {

using Json = nlohmann::ordered_json;
using std::chrono::steady_clock;
using std::chrono::system_clock;

/// "2026-05-31T12:34:56.789Z".
std::string timeText(system_clock::time_point time) {
   constexpr int millisPerSecond = 1000;
   const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
   const std::time_t seconds = millis / millisPerSecond;
   std::tm parts{};
   ::gmtime_r(&seconds, &parts);
   constexpr int firstYear = 1900;
   return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", parts.tm_year + firstYear,
                      parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                      millis % millisPerSecond);
}

/// Whole milliseconds, in seconds: a document for people, too.
double seconds(steady_clock::duration duration) {
   constexpr double perSecond = 1000;
   return static_cast<double>(
             std::chrono::duration_cast<std::chrono::milliseconds>(duration).count()) /
          perSecond;
}

Json busDocument(const Bus& bus, steady_clock::time_point now) {
   const BusConfig& config = bus.config();
   Json document;
   document["name"] = config.name;
   document["number"] = config.number;
   document["device"] = config.device;
   document["simulated"] = config.simulated;
   document["controller"] = config.controller ? Json(*config.controller) : Json();
   document["pci"] = config.pciBdf ? Json(pciToString(*config.pciBdf)) : Json();
   document["transactions"] = bus.transactions().value();
   document["requests"] = bus.requests().value();
   document["failures"] = bus.failures().value();
   document["waiting"] = bus.waiting();
   const auto busySince = bus.busySince();
   document["busy_seconds"] =
      busySince ? Json(seconds(std::max(now, *busySince) - *busySince)) : Json();
   if (const auto failure = bus.lastFailure()) {
      document["last_failure"] = {{"text", failure->text}, {"time", timeText(failure->when)}};
   } else {
      document["last_failure"] = nullptr;
   }
   return document;
}

} // namespace

StatusDocument::StatusDocument(const Server& server, std::string socket, std::size_t maxConnections)
   : _server(server), _socket(std::move(socket)), _maxConnections(maxConnections) {}

std::string StatusDocument::text() const {
   const auto now = steady_clock::now();
   std::vector<Server::ConnectionStatus> connections = _server.connections();
   const std::size_t connected = connections.size();
   const std::size_t described = std::min(connected, mostConnections);
   // The oldest first.
   std::partial_sort(
      connections.begin(), connections.begin() + static_cast<std::ptrdiff_t>(described),
      connections.end(), [](const auto& left, const auto& right) { return left.id < right.id; });
   connections.resize(described);

   Json document;
   document["schema"] = schema;
   document["version"] = NIMBOD_VERSION;
   document["pid"] = ::getpid();
   document["started"] = timeText(_started);
   document["uptime_seconds"] = seconds(now - _since);
   document["socket"] = _socket;
   Json& buses = document["buses"] = Json::array();
   const auto table = _server.buses();
   for (const std::shared_ptr<Bus>& bus : table->buses()) {
      buses.push_back(busDocument(*bus, now));
   }
   const Server::Counters& counters = _server.counters();
   document["clients"] = {{"connected", connected},
                          {"limit", _maxConnections},
                          {"accepted", counters.accepted.value()},
                          {"refused", counters.refused.value()},
                          {"over_limit", counters.overLimit.value()},
                          {"malformed", counters.malformed.value()}};
   Json& each = document["connections"] = Json::array();
   for (const Server::ConnectionStatus& connection : connections) {
      each.push_back({{"id", connection.id},
                      {"pid", connection.pid},
                      {"uid", connection.uid},
                      {"gid", connection.gid},
                      {"transactions", connection.transactions},
                      {"requests", connection.requests}});
   }
   // Whatever bytes a path has, the document can be read.
   return document.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
}

} // namespace Nimbo
