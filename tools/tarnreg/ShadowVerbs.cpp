#include "tools/tarnreg/ShadowVerbs.h"

#include <algorithm>
#include <map>
#include <unordered_map>
#include <utility>

#include <fmt/format.h>

#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/NumberFormat.h"
#include "tools/tarnreg/OutputReader.h"
#include "tools/tarnreg/Printable.h"
#include "tools/tarnreg/Selection.h"
#include "tools/tarnreg/ShadowAssignments.h"

namespace TarnReg {

using TarnRegFile::HardwareRegister;
using TarnRegFile::Sable::CoreMonitor;
using TarnRegFile::Sable::CoreRegister;
using TarnRegFile::Sable::CoreRegisterKey;
using TarnRegFile::Sable::ShadowClient;
using TarnRegFile::Sable::ShadowError;
using Value = std::optional<std::uint32_t>;

namespace {

constexpr const char* unknown = "-";
constexpr const char* notHeld = "{} {}, not {}, after {} s; the wish stands";
constexpr const char* notKnown = "{} is not known to be {} after {} s, and the wish stands; core "
                                 "'{}' is not ready: {}";
constexpr const char* nothingKnown =
   "core '{}' is not ready, nothing is known of its registers: {}";
constexpr const char* heldLast = "core '{}' is not ready, its registers are shown as they were "
                                 "last known: {}";

std::string text(const HardwareRegister& record, Value value, NumberBase base) {
   return value ? formatNumber(*value, record.width, base) : unknown;
}

nlohmann::ordered_json json(Value value) {
   return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

std::string padded(const HardwareRegister& record, std::size_t width) {
   return fmt::format("{:<{}}", shownName(record.name), width);
}

Selection selected(ShadowView& view, const std::vector<std::string>& patterns, Report& report) {
   Selection selection = selectAll(view.device(), patterns, report);
   report.nameWidthIs(nameColumnWidth(selection));
   return selection;
}

/// Tells who is shown values whether they are worth anything, or why there are none.
void warnUnlessReady(ShadowView& view, bool isAnyKnown, Report& report) {
   const CoreMonitor& monitor = view.client().monitor();
   if (!monitor.isReady()) {
      report.warning(isAnyKnown ? fmt::format(heldLast, monitor.coreName(), monitor.summary())
                                : fmt::format(nothingKnown, monitor.coreName(), monitor.summary()));
   }
}

} // namespace

void listShadow(ShadowView& view, const std::vector<std::string>& patterns, Report& report) {
   onShadow([&] {
      const Selection selection = selected(view, patterns, report);
      const std::size_t width = nameColumnWidth(selection);
      bool isAnyKnown = false;
      for (const HardwareRegister* record : selection) {
         const Value value = view.client().value(record->address);
         isAnyKnown = isAnyKnown || value;
         const Value wish = view.client().wish(record->address);
         const bool differs = wish && wish != value;
         nlohmann::ordered_json element = registerJson(*record);
         element["value"] = json(value);
         element["wish"] = json(wish);
         element["differs"] = differs;
         report.row(fmt::format("{}  {}  {}{}", padded(*record, width),
                                text(*record, value, report.base()),
                                text(*record, wish, report.base()), differs ? "  differs" : ""),
                    std::move(element));
      }
      report.property("ready", view.client().monitor().isReady());
      warnUnlessReady(view, isAnyKnown, report);
   });
}

void getShadow(ShadowView& view, const std::vector<std::string>& patterns, Report& report) {
   onShadow([&] {
      bool isAnyKnown = false;
      for (const HardwareRegister* record : selected(view, patterns, report)) {
         try {
            report.value(*record, view.client().read(record->name));
            isAnyKnown = true;
         } catch (const ShadowError& error) {
            report.failure(codeOf(error), error.what(), record->name);
         }
      }
      report.property("ready", view.client().monitor().isReady());
      if (isAnyKnown) { // otherwise each of them has said it
         warnUnlessReady(view, true, report);
      }
   });
}

void setShadow(ShadowView& view, const std::vector<std::string>& texts,
               const ShadowSetOptions& options, Report& report) {
   const auto assignments = shadowAssignments(view, texts, "a wish", report);
   if (!assignments) {
      return;
   }
   Selection records;
   std::map<std::uint32_t, ShadowAssignment> last; // what an address is to hold in the end
   for (const ShadowAssignment& assignment : *assignments) {
      records.push_back(assignment.record);
      last.insert_or_assign(assignment.record->address, assignment);
   }
   report.nameWidthIs(nameColumnWidth(records));
   onShadow([&] {
      for (const ShadowAssignment& assignment : *assignments) {
         view.client().wishIs(assignment.record->name, assignment.value);
         if (!options.wait) {
            report.value(*assignment.record, assignment.value);
         }
      }
      if (!options.wait) {
         return;
      }
      std::vector<CoreRegister> wished;
      wished.reserve(last.size());
      for (const auto& [address, assignment] : last) {
         wished.emplace_back(CoreRegisterKey(address), assignment.value);
      }
      const bool held = view.client().waitUntilHeld(wished, options.timeout);
      const std::chrono::duration<double> seconds = options.timeout;
      const CoreMonitor& monitor = view.client().monitor();
      const bool isReady = held || monitor.isReady();
      for (const auto& [address, assignment] : last) {
         const Value value = view.client().value(address);
         if (held || (isReady && value == assignment.value)) {
            report.value(*assignment.record, assignment.value);
            continue;
         }
         const std::string name = shownName(assignment.record->name);
         const std::string wanted = text(*assignment.record, assignment.value, report.base());
         const std::string text =
            isReady
               ? fmt::format(notHeld, name,
                             value ? "is " + TarnReg::text(*assignment.record, value, report.base())
                                   : std::string("has no value yet"),
                             wanted, seconds.count())
               : fmt::format(notKnown, name, wanted, seconds.count(), monitor.coreName(),
                             monitor.summary());
         report.failure(ExitCode::timeout, text, assignment.record->name);
      }
   });
}

void unsetShadow(ShadowView& view, const std::vector<std::string>& patterns, Report& report) {
   onShadow([&] {
      bool isAnyWished = false;
      const Selection selection = selected(view, patterns, report);
      for (const HardwareRegister* record : selection) {
         if (const Value wish = view.client().wish(record->address)) {
            isAnyWished = true;
            view.client().wishDel(record->name);
            report.value(*record, *wish);
         }
      }
      if (!isAnyWished && !selection.empty()) {
         report.nothing("nothing was wished of them");
      }
   });
}

void watchShadow(ShadowView& view, const std::vector<std::string>& patterns,
                 const ShadowWatchOptions& options, Report& report) {
   if (report.json() && options.count == 0 && !options.timeout) {
      throw Failure(ExitCode::usage, "--json prints one document at the end: give it one with "
                                     "--count or --timeout; --json-lines prints changes as "
                                     "they come");
   }
   onShadow([&] {
      const Selection selection = selected(view, patterns, report);
      if (selection.empty()) {
         return; // there is nothing to wait for
      }
      const std::size_t width = nameColumnWidth(selection);
      std::uint64_t seen = 0;
      const auto isEnough = [&] { return options.count != 0 && seen >= options.count; };
      report.nameWidthIs(width);
      std::unordered_map<const HardwareRegister*, Value> held;
      const auto show = [&](const HardwareRegister& record, Value value) {
         Value& previous = held[&record];
         report.change(record, value, previous);
         previous = value;
      };
      std::vector<ShadowClient::Following> followings;
      followings.reserve(selection.size());
      for (const HardwareRegister* record : selection) {
         // No change is missed or told twice: nothing is told before the loop runs, and only what
         // differs from what is held at this moment.
         followings.push_back(
            view.client().follow(record->name, [&, record](const std::string&, Value value) {
               if (!isEnough()) {
                  ++seen;
                  show(*record, value);
               }
            }));
         if (const Value value = view.client().value(record->address)) {
            show(*record, value);
         }
      }
      warnUnlessReady(view, !held.empty(), report);
      const auto isOver = [&] {
         if (const std::string damage = view.client().damage(); !damage.empty()) {
            throw Failure(ExitCode::general, damage);
         }
         return isEnough();
      };
      if (!options.timeout) {
         // As long as it takes; a signal ends it.
         while (!view.loop().runUntil(isOver, std::chrono::seconds(1))) {
            endWithoutReader();
         }
      } else if (!view.loop().runUntil(isOver, *options.timeout) && options.count != 0) {
         throw Failure(ExitCode::timeout,
                       fmt::format("{} of {} changes came in time", seen, options.count));
      }
   });
}

void diffShadow(ShadowView& view, const std::vector<std::string>& patterns, Report& report) {
   onShadow([&] {
      const Selection selection = selected(view, patterns, report);
      const std::size_t width = nameColumnWidth(selection);
      std::size_t wished = 0;
      std::size_t differing = 0;
      for (const HardwareRegister* record : selection) {
         const Value wish = view.client().wish(record->address);
         if (!wish) {
            continue;
         }
         ++wished;
         const Value value = view.client().value(record->address);
         if (value == wish) {
            continue;
         }
         ++differing;
         if (value) {
            report.difference(*record, *value, *wish);
            continue;
         }
         nlohmann::ordered_json element = registerJson(*record);
         element["value"] = nullptr;
         element["other"] = *wish;
         report.row(fmt::format("{}  {}  {}", padded(*record, width), unknown,
                                text(*record, wish, report.base())),
                    std::move(element));
      }
      if (wished == 0 && !selection.empty()) {
         report.nothing("nothing is wished of them");
      }
      if (differing > 0) {
         report.failure(ExitCode::general,
                        fmt::format("{} of {} wishes are not held", differing, wished));
      }
   });
}

} // namespace TarnReg
