#include "nimbo/StatusTable.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "platform/trace/Line.h"

namespace Nimbo {

namespace {

using Json = nlohmann::ordered_json;
using Row = std::vector<std::string>;

/// The value under a key as text; "-" for none.
std::string cell(const Json& object, const char* key) {
   const auto found = object.is_object() ? object.find(key) : object.end();
   if (!object.is_object() || found == object.end() || found->is_null() || found->is_structured()) {
      return "-";
   }
   return found->is_string() ? Platform::Trace::escaped(found->get<std::string>()) : found->dump();
}

/// What is under a key; null for nothing.
const Json& part(const Json& object, const char* key) {
   static const Json null;
   if (!object.is_object()) {
      return null;
   }
   const auto found = object.find(key);
   return found == object.end() ? null : *found;
}

std::string durationText(const Json& value) {
   constexpr double most = 1e12;
   if (!value.is_number() || !(value.get<double>() >= 0) || value.get<double>() > most) {
      return "-";
   }
   const double seconds = value.get<double>();
   const auto whole = static_cast<std::uint64_t>(seconds);
   if (whole >= 86400) {
      return fmt::format("{} d {} h", whole / 86400, whole % 86400 / 3600);
   }
   if (whole >= 3600) {
      return fmt::format("{} h {} min", whole / 3600, whole % 3600 / 60);
   }
   if (whole >= 60) {
      return fmt::format("{} min {} s", whole / 60, whole % 60);
   }
   return fmt::format("{:.1f} s", seconds);
}

/// Columns as wide as they have to be; those from `firstRight` to `lastRight` hold numbers.
std::string table(const std::vector<Row>& rows, std::size_t firstRight, std::size_t lastRight) {
   std::vector<std::size_t> widths(rows.front().size());
   for (const Row& row : rows) {
      for (std::size_t i = 0; i < row.size(); ++i) {
         widths[i] = std::max(widths[i], row[i].size());
      }
   }
   std::string text;
   for (const Row& row : rows) {
      std::string line;
      for (std::size_t i = 0; i < row.size(); ++i) {
         line += i == 0 ? "" : "  ";
         line += i >= firstRight && i <= lastRight ? fmt::format("{:>{}}", row[i], widths[i])
                                                   : fmt::format("{:<{}}", row[i], widths[i]);
      }
      line.erase(line.find_last_not_of(' ') + 1);
      text += line + '\n';
   }
   return text;
}

std::string deviceText(const Json& bus) {
   std::string text = cell(bus, "device");
   if (part(bus, "simulated") == Json(true)) {
      text += " (simulated)";
   }
   if (!part(bus, "controller").is_null()) {
      text += " controller " + cell(bus, "controller");
   }
   if (!part(bus, "pci").is_null()) {
      text += " pci " + cell(bus, "pci");
   }
   return text;
}

} // namespace

std::string statusTable(const nlohmann::ordered_json& status) {
   const Json& clients = part(status, "clients");
   std::string text =
      fmt::format("nimbod {}, process {}, at {}, up {}\n"
                  "{} of at most {} clients; {} taken in, {} refused, {} too many, {} malformed\n",
                  cell(status, "version"), cell(status, "pid"), cell(status, "socket"),
                  durationText(part(status, "uptime_seconds")), cell(clients, "connected"),
                  cell(clients, "limit"), cell(clients, "accepted"), cell(clients, "refused"),
                  cell(clients, "over_limit"), cell(clients, "malformed"));

   std::vector<Row> rows{
      {"BUS", "NUMBER", "TRANSACTIONS", "REQUESTS", "FAILURES", "WAITING", "BUSY", "DEVICE"}};
   std::string failures;
   for (const Json& bus : part(status, "buses")) {
      rows.push_back({cell(bus, "name"), cell(bus, "number"), cell(bus, "transactions"),
                      cell(bus, "requests"), cell(bus, "failures"), cell(bus, "waiting"),
                      durationText(part(bus, "busy_seconds")), deviceText(bus)});
      if (const Json& failure = part(bus, "last_failure"); failure.is_object()) {
         failures += fmt::format("{}  {}: {}\n", cell(failure, "time"), cell(bus, "name"),
                                 cell(failure, "text"));
      }
   }
   text += '\n' + table(rows, 1, 6);
   if (!failures.empty()) {
      text += "\nLAST FAILURES\n" + failures;
   }

   const Json& connections = part(status, "connections");
   if (connections.is_array() && !connections.empty()) {
      rows = {{"CLIENT", "PROCESS", "USER", "GROUP", "TRANSACTIONS", "REQUESTS"}};
      for (const Json& connection : connections) {
         rows.push_back({cell(connection, "id"), cell(connection, "pid"), cell(connection, "uid"),
                         cell(connection, "gid"), cell(connection, "transactions"),
                         cell(connection, "requests")});
      }
      text += '\n' + table(rows, 0, 5);
      if (const Json& connected = part(clients, "connected");
          connected.is_number_unsigned() && connected.get<std::uint64_t>() > connections.size()) {
         text += fmt::format("and {} more\n", connected.get<std::uint64_t>() - connections.size());
      }
   }
   return text;
}

} // namespace Nimbo
