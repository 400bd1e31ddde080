#include "tools/tarnreg/ShadowVerbs.h"

#include <algorithm>
#include <exception>
#include <map>
#include <utility>

#include <fmt/format.h>

#include "TarnRegFile/RegisterFileChecker.h"
#include "TarnRegFile/RegisterFileHelper.h"
#include "TarnRegFile/ShadowError.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/NamePattern.h"
#include "tools/tarnreg/NumberFormat.h"
#include "tools/tarnreg/Printable.h"
#include "tools/tarnreg/Selection.h"

namespace TarnReg {

using TarnRegFile::HardwareRegister;
using TarnRegFile::Sable::CoreRegister;
using TarnRegFile::Sable::CoreRegisterKey;
using TarnRegFile::Sable::ShadowClient;
using TarnRegFile::Sable::ShadowError;
using Value = std::optional<std::uint32_t>;

namespace {

constexpr const char* unknown = "-";

/// A device that is only its register list. None of the verbs accesses it.
class ListOnly : public TarnRegFile::BaseTransportMethodImpl {
public:
   explicit ListOnly(const std::string& list) : BaseTransportMethodImpl(list.c_str(), 1, nullptr) {}
   std::uint32_t regRead(const char*) override { throw std::logic_error("no transport"); }
   void regWrite(const char*, std::uint32_t) override { throw std::logic_error("no transport"); }
};

ExitCode codeOf(const ShadowError& error) {
   switch (error.kind()) {
   case ShadowError::Kind::unknownRegister:
      return ExitCode::unknownName;
   case ShadowError::Kind::noValue:
      return ExitCode::deviceError;
   case ShadowError::Kind::notPermitted:
      return ExitCode::refused;
   case ShadowError::Kind::timedOut:
      return ExitCode::timeout;
   case ShadowError::Kind::damaged:
      break;
   }
   return ExitCode::general;
}

/// Runs `work` and turns what may go wrong with the tables into the command's failures.
template <typename Work>
auto onShadow(const Work& work) {
   try {
      return work();
   } catch (const ShadowError& error) {
      throw Failure(codeOf(error), error.what());
   }
}

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

struct Assignment {
   const HardwareRegister* record;
   std::uint32_t value;
};

void appendAssignments(ShadowView& view, const std::string& given, std::vector<Assignment>& out) {
   const std::size_t equals = given.rfind('=');
   if (equals == std::string::npos || equals == 0) {
      throw Failure(ExitCode::usage, fmt::format("{}: a wish is NAME=VALUE", given));
   }
   const std::uint32_t value = parseNumber(given.substr(equals + 1), given);
   for (const HardwareRegister* record : selectRegisters(view.device(), given.substr(0, equals))) {
      if (!record->writable) {
         throw Failure(ExitCode::refused, fmt::format("{} is read-only", shownName(record->name)));
      }
      view.requireFits(*record, value);
      out.push_back({record, value});
   }
}

} // namespace

ShadowView::ShadowView(const Platform::Tables::TableDirectory& directory, const std::string& core,
                       const std::string& list, const Board::TransportUrl& url)
   : _service(_loop, directory), _url(url) {
   // Loading it would stop the process.
   if (const std::size_t line = TarnRegFile::RegisterFileChecker::stoppingLine(list)) {
      throw Failure(
         ExitCode::general,
         fmt::format("{}:{}: the lower bound of a range is above the upper", list, line));
   }
   const auto method = TarnRegFile::transportMethodFactory(core);
   try {
      method->implPtrIs(new ListOnly(list));
   } catch (const std::exception& error) {
      throw Failure(ExitCode::general,
                    fmt::format("{}: {}; tarnreg check says where", list, error.what()));
   }
   _device = std::make_unique<Device>(method, nullptr);
   _client = onShadow([&] {
      return std::make_unique<ShadowClient>(_loop, _service, core,
                                            method->regFileHelper()->regFilePtr());
   });
}

void ShadowView::requireFits(const HardwareRegister& record, std::uint32_t value) const {
   const auto* i2c = std::get_if<Board::I2cAt>(&_url.where());
   // Values of a device that is accessed in blocks are not in the low bits.
   if (!i2c || i2c->flavour != TarnRegFile::I2cFlavour::dataBlock) {
      TarnReg::requireFits(*_device, record, value);
   }
}

void listShadow(ShadowView& view, const std::vector<std::string>& patterns, Report& report) {
   onShadow([&] {
      const Selection selection = selected(view, patterns, report);
      const std::size_t width = nameColumnWidth(selection);
      for (const HardwareRegister* record : selection) {
         const Value value = view.client().value(record->address);
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
   });
}

void getShadow(ShadowView& view, const std::vector<std::string>& patterns, Report& report) {
   for (const HardwareRegister* record : selected(view, patterns, report)) {
      try {
         report.value(*record, view.client().read(record->name));
      } catch (const ShadowError& error) {
         report.failure(codeOf(error), error.what(), record->name);
      }
   }
}

void setShadow(ShadowView& view, const std::vector<std::string>& texts,
               const ShadowSetOptions& options, Report& report) {
   std::vector<Assignment> assignments;
   bool good = true;
   for (const std::string& given : texts) {
      try {
         appendAssignments(view, given, assignments);
      } catch (const Failure& failure) {
         report.failure(failure.code(), failure.what(), given);
         good = false;
      }
   }
   if (!good) {
      return;
   }
   Selection records;
   std::map<std::uint32_t, Assignment> last; // what an address is to hold in the end
   for (const Assignment& assignment : assignments) {
      records.push_back(assignment.record);
      last.insert_or_assign(assignment.record->address, assignment);
   }
   report.nameWidthIs(nameColumnWidth(records));
   onShadow([&] {
      for (const Assignment& assignment : assignments) {
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
      for (const auto& [address, assignment] : last) {
         const Value value = view.client().value(address);
         if (held || value == assignment.value) {
            report.value(*assignment.record, assignment.value);
            continue;
         }
         report.failure(ExitCode::timeout,
                        fmt::format("{} {}, not {}, after {} s; the wish stands",
                                    shownName(assignment.record->name),
                                    value ? "is " + text(*assignment.record, value, report.base())
                                          : std::string("has no value yet"),
                                    text(*assignment.record, assignment.value, report.base()),
                                    seconds.count()),
                        assignment.record->name);
      }
   });
}

void unsetShadow(ShadowView& view, const std::vector<std::string>& patterns, Report& report) {
   onShadow([&] {
      for (const HardwareRegister* record : selected(view, patterns, report)) {
         if (const Value wish = view.client().wish(record->address)) {
            view.client().wishDel(record->name);
            report.value(*record, *wish);
         }
      }
   });
}

void watchShadow(ShadowView& view, const std::vector<std::string>& patterns,
                 const ShadowWatchOptions& options, Report& report) {
   if (report.json() && options.count == 0 && !options.timeout) {
      throw Failure(ExitCode::usage, "--json prints one document at the end: give it one with "
                                     "--count or --timeout");
   }
   onShadow([&] {
      const Selection selection = selected(view, patterns, report);
      if (selection.empty()) {
         return; // there is nothing to wait for
      }
      const std::size_t width = nameColumnWidth(selection);
      std::uint64_t seen = 0;
      const auto isEnough = [&] { return options.count != 0 && seen >= options.count; };
      const auto show = [&](const HardwareRegister& record, Value value) {
         if (value) {
            report.value(record, *value);
            return;
         }
         nlohmann::ordered_json element = registerJson(record);
         element["value"] = nullptr;
         report.event(fmt::format("{}  {}", padded(record, width), unknown), std::move(element));
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
      const auto isOver = [&] {
         if (const std::string damage = view.client().damage(); !damage.empty()) {
            throw Failure(ExitCode::general, damage);
         }
         return isEnough();
      };
      if (!options.timeout) {
         // As long as it takes; a signal ends it.
         while (!view.loop().runUntil(isOver, std::chrono::hours(1))) {
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
      if (differing > 0) {
         report.failure(ExitCode::general,
                        fmt::format("{} of {} wishes are not held", differing, wished));
      }
   });
}

} // namespace TarnReg
