#include "tools/tarnreg/ShadowCoreVerbs.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

#include <fmt/format.h>

#include "board/NearNames.h"
#include "platform/entity/EventLoop.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/CoreMonitor.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/Printable.h"
#include "tools/tarnreg/ShadowView.h"

namespace TarnReg {

using Platform::Tables::TableDirectory;
using TarnRegFile::Sable::CoreMonitor;
using TarnRegFile::Sable::CorePhase;
using TarnRegFile::Sable::CoreState;
using TarnRegFile::Sable::OwnerLife;

namespace {

constexpr std::string_view stateTable = "/state";
constexpr const char* noState = "core '{}': no owner of it has shown itself{}";

/// Seconds since a monotonic time in microseconds; none for never.
std::optional<double> secondsSince(std::uint64_t then) {
   if (then == 0) {
      return std::nullopt;
   }
   const auto now =
      static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                    std::chrono::steady_clock::now().time_since_epoch())
                                    .count());
   // The record may be a moment younger than the look at the clock.
   return now > then ? static_cast<double>(now - then) / 1e6 : 0;
}

double inSeconds(std::uint64_t micros) {
   return static_cast<double>(micros) / 1e6;
}

std::string phaseText(const CoreState& state, OwnerLife owner) {
   std::string phase = Platform::enumString(state.phase);
   return owner == OwnerLife::gone && state.phase != CorePhase::stopped
             ? fmt::format("gone, was {}", phase)
             : phase;
}

std::string line(const std::string& core, const CoreState& state, OwnerLife owner) {
   const std::optional<double> age = secondsSince(state.accessMonotonic);
   std::string text = fmt::format(
      "{}  {}  generation {}  owner {} {}  read {}/{}  sync {}  errors {}  losses {}  accessed {}",
      shownName(core), phaseText(state, owner), state.generation, state.pid,
      owner == OwnerLife::unknown ? "perhaps alive" : Platform::enumString(owner),
      state.registersRead, state.registersTotal,
      state.syncMicros == 0 ? "never" : fmt::format("{:.6f} s", inSeconds(state.syncMicros)),
      state.errors, state.losses, age ? fmt::format("{:.1f} s ago", *age) : "never");
   if (!state.lastError.empty()) {
      text += "  last error: " + printable(state.lastError);
   }
   return text;
}

nlohmann::ordered_json json(const std::string& core, const CoreState& state, OwnerLife owner) {
   const std::optional<double> age = secondsSince(state.accessMonotonic);
   nlohmann::ordered_json element;
   element["name"] = jsonText(core);
   element["phase"] = Platform::enumString(state.phase);
   element["ready"] = state.ready && state.valid && owner != OwnerLife::gone;
   element["generation"] = state.generation;
   element["owner"] = {{"pid", state.pid}, {"life", Platform::enumString(owner)}};
   element["registersRead"] = state.registersRead;
   element["registersTotal"] = state.registersTotal;
   element["syncSeconds"] = state.syncMicros == 0
                               ? nlohmann::ordered_json(nullptr)
                               : nlohmann::ordered_json(inSeconds(state.syncMicros));
   element["errors"] = state.errors;
   element["losses"] = state.losses;
   element["accessAgeSeconds"] =
      age ? nlohmann::ordered_json(*age) : nlohmann::ordered_json(nullptr);
   element["lastError"] = jsonText(state.lastError);
   return element;
}

void row(const std::string& core, const CoreState& state, OwnerLife owner, Report& report) {
   report.event(line(core, state, owner), json(core, state, owner));
}

/// Calls `work` with a monitor of each core; what fails for one keeps no other from its turn.
template <typename Work>
void forEachCore(const TableDirectory& directory, const std::vector<std::string>& cores,
                 Report& report, const Work& work) {
   Platform::EventLoop loop;
   Platform::Tables::TableService service(loop, directory);
   for (const std::string& core : cores) {
      try {
         onShadow([&] {
            CoreMonitor monitor(loop, service, core);
            work(monitor);
         });
      } catch (const Failure& failure) {
         report.failure(failure.code(), failure.what(), core);
      }
   }
}

} // namespace

std::vector<std::string> coresIn(const TableDirectory& directory) {
   std::vector<std::string> cores;
   for (const std::string& table : directory.tableNames()) {
      if (table.size() > stateTable.size() && table.ends_with(stateTable)) {
         cores.push_back(table.substr(0, table.size() - stateTable.size()));
      }
   }
   return cores;
}

void showCores(const TableDirectory& directory, const std::vector<std::string>& cores,
               Report& report) {
   const std::vector<std::string> all = coresIn(directory);
   if (cores.empty() && all.empty()) {
      report.nothing(
         fmt::format("no core has shown itself in {}; tarn-shadowd owns some", directory.path()));
   }
   forEachCore(directory, cores.empty() ? all : cores, report, [&](const CoreMonitor& monitor) {
      const OwnerLife owner = monitor.owner(); // before the state, as it says there
      const std::optional<CoreState> state = monitor.state();
      if (!state) {
         Board::NearNames near(monitor.coreName());
         for (const std::string& core : all) {
            near.add(core);
         }
         throw Failure(ExitCode::unknownName,
                       fmt::format(noState, monitor.coreName(), Board::didYouMean(near.nearest())));
      }
      row(monitor.coreName(), *state, owner, report);
   });
}

void resyncCores(const TableDirectory& directory, const std::vector<std::string>& cores,
                 Pace::Clock::duration timeout, Report& report) {
   forEachCore(directory, cores, report, [&](CoreMonitor& monitor) {
      const CoreState state = monitor.resync(timeout);
      row(monitor.coreName(), state, monitor.owner(), report);
   });
}

} // namespace TarnReg
