#include "tools/tarnreg/ShadowOrderVerbs.h"

#include <memory>
#include <optional>
#include <utility>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/TextRange.h"
#include "platform/entity/UniqueId.h"
#include "TarnRegFile/OrderedClient.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/NumberFormat.h"
#include "tools/tarnreg/Printable.h"
#include "tools/tarnreg/Selection.h"
#include "tools/tarnreg/ShadowAssignments.h"

namespace TarnReg {

using Platform::UniqueId;
using TarnRegFile::HardwareRegister;
using TarnRegFile::Sable::CoreRegister;
using TarnRegFile::Sable::OrderedClient;
using TarnRegFile::Sable::OrderedOutcome;
using TarnRegFile::Sable::OrderedStage;
using TarnRegFile::Sable::ShadowError;

namespace {

constexpr const char* tooMany = "{} writes are too many, an order has at most {}";
constexpr const char* noId = "{}: an operation's id is a number, as order --no-wait prints it";
constexpr const char* stopped = "operation {} of core '{}' stopped after {} of {} writes; the "
                                "core's last error: {}";
constexpr const char* unknown = "no operation {} of core '{}': it was taken back, or has ended so "
                                "long ago that its outcome is not kept";
constexpr const char* begun = "operation {} of core '{}' has begun and cannot be taken back";
constexpr const char* ended = "operation {} of core '{}' has ended and cannot be taken back";

std::unique_ptr<OrderedClient> clientOf(ShadowView& view) {
   return std::make_unique<OrderedClient>(view.loop(), view.service(), view.client().coreName(),
                                          view.client().registers());
}

UniqueId parseId(const std::string& text) {
   try {
      Platform::TextRange range(text);
      const UniqueId id(range);
      if (range.empty() && id) {
         return id;
      }
   } catch (const Platform::RangeError&) {
      // Told as what else is none.
   }
   throw Failure(ExitCode::usage, fmt::format(noId, text));
}

/// The writes, one register a row.
void showWrites(ShadowView& view, const std::vector<CoreRegister>& writes, Report& report) {
   const auto& registers = view.client().registers();
   std::vector<std::pair<const HardwareRegister*, CoreRegister>> known;
   Selection selection;
   for (const CoreRegister& write : writes) {
      const std::string* const name = registers->findName(write.key().address());
      const HardwareRegister* const record = name ? registers->findRegister(*name) : nullptr;
      known.emplace_back(record, write);
      if (record) {
         selection.push_back(record);
      }
   }
   report.nameWidthIs(nameColumnWidth(selection));
   for (const auto& [record, write] : known) {
      if (record) {
         report.value(*record, write.value());
         continue;
      }
      // It was ordered by who knows another list.
      report.row(fmt::format("{:#x}  {}", write.key().address(),
                             formatNumber(write.value(), 32, report.base())),
                 {{"name", nullptr}, {"address", write.key().address()}, {"value", write.value()}});
   }
}

void showId(UniqueId id, Report& report) {
   if (report.json()) {
      report.property("operation", id.stringRep());
   } else {
      report.row(id.stringRep(), {});
   }
}

/// Waits for an operation's end, and tells what came of it.
void finish(ShadowView& view, OrderedClient& client, UniqueId id, Pace::Clock::duration timeout,
            Report& report) {
   OrderedOutcome outcome;
   std::optional<ShadowError> late;
   try {
      outcome = client.wait(id, timeout);
   } catch (const ShadowError& error) {
      if (error.kind() != ShadowError::Kind::timedOut) {
         throw;
      }
      late = error;
      outcome = client.outcome(id);
   }
   if (report.json()) {
      report.property("operation", id.stringRep());
      report.property("stage", Platform::enumString(outcome.stage));
      report.property("size", outcome.size);
   }
   showWrites(view, outcome.writes, report);
   if (late && !outcome.hasEnded()) {
      throw Failure(ExitCode::timeout, late->what());
   }
   if (outcome.stage == OrderedStage::stopped) {
      throw Failure(ExitCode::deviceError,
                    fmt::format(stopped, id.stringRep(), client.coreName(), outcome.writes.size(),
                                outcome.size,
                                outcome.lastError.empty() ? "none is known" : outcome.lastError));
   }
   if (outcome.stage == OrderedStage::unknown) {
      throw Failure(ExitCode::unknownName, fmt::format(unknown, id.stringRep(), client.coreName()));
   }
}

} // namespace

void orderShadow(ShadowView& view, const std::vector<std::string>& texts,
                 const ShadowOrderOptions& options, Report& report) {
   const auto assignments = shadowAssignments(view, texts, "a write", report);
   if (!assignments) {
      return;
   }
   if (assignments->size() > OrderedClient::mostWrites) {
      throw Failure(ExitCode::usage,
                    fmt::format(tooMany, assignments->size(), OrderedClient::mostWrites));
   }
   onShadow([&] {
      const auto client = clientOf(view);
      std::vector<OrderedClient::Write> writes;
      writes.reserve(assignments->size());
      for (const ShadowAssignment& assignment : *assignments) {
         writes.push_back({assignment.record->name, assignment.value});
      }
      const UniqueId id = client->submit(writes);
      if (options.wait) {
         finish(view, *client, id, options.timeout, report);
      } else {
         showId(id, report);
      }
   });
}

void showOutcome(ShadowView& view, const std::string& text, Pace::Clock::duration timeout,
                 Report& report) {
   const UniqueId id = parseId(text);
   onShadow([&] { finish(view, *clientOf(view), id, timeout, report); });
}

void cancelOrder(ShadowView& view, const std::string& text, Report& report) {
   const UniqueId id = parseId(text);
   onShadow([&] {
      const auto client = clientOf(view);
      if (client->takeBack(id)) {
         showId(id, report);
         return;
      }
      const OrderedOutcome outcome = client->outcome(id);
      if (outcome.stage == OrderedStage::unknown) {
         throw Failure(ExitCode::unknownName,
                       fmt::format(unknown, id.stringRep(), client->coreName()));
      }
      throw Failure(ExitCode::refused, fmt::format(fmt::runtime(outcome.hasEnded() ? ended : begun),
                                                   id.stringRep(), client->coreName()));
   });
}

} // namespace TarnReg
