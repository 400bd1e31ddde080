#include <algorithm>
#include <optional>

#include <fmt/format.h>

#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/NamePattern.h"
#include "tools/tarnreg/Printable.h"
#include "tools/tarnreg/ReadAhead.h"
#include "tools/tarnreg/Selection.h"
#include "tools/tarnreg/Verbs.h"

namespace TarnReg {

using TarnRegFile::HardwareRegister;

namespace {

/// What a register was found to hold last: a value, or the reason for which it could not be read.
struct Seen {
   const HardwareRegister* record;
   std::optional<std::uint32_t> value;
   std::string error;
};

void look(ReadAhead& values, Seen& seen, Report& report) {
   try {
      const std::uint32_t value = values.next();
      if (seen.value != value) {
         report.change(*seen.record, value, seen.value);
         seen.value = value;
      }
      seen.error.clear();
   } catch (const AccessError& error) {
      // Once, not in each round; it is news again when another reason or a value came in between.
      seen.value.reset();
      if (seen.error != error.what()) {
         seen.error = error.what();
         report.failure(error.code(), error.what(), seen.record->name);
      }
   }
}

/// A condition on one register.
struct Condition {
   const HardwareRegister* record;
   std::uint32_t mask;
   std::uint32_t wanted;
};

void appendConditions(Device& device, const std::string& text, std::vector<Condition>& out) {
   const std::size_t equals = text.rfind('=');
   if (equals == std::string::npos || equals == 0) {
      throw Failure(ExitCode::usage,
                    fmt::format("{}: a condition is NAME=VALUE or NAME&MASK=VALUE", text));
   }
   std::string name = text.substr(0, equals);
   std::uint32_t mask = 0xFFFFFFFF;
   // A register may have the sign in its name.
   if (const std::size_t ampersand = name.rfind('&');
       ampersand != std::string::npos && !device.find(name)) {
      mask = parseNumber(name.substr(ampersand + 1), text);
      name.resize(ampersand);
   }
   const std::uint32_t wanted = parseNumber(text.substr(equals + 1), text);
   if ((wanted & ~mask) != 0) {
      throw Failure(
         ExitCode::usage,
         fmt::format("{}: never, {:#x} has bits that the mask leaves out", text, wanted));
   }
   for (const HardwareRegister* record : selectRegisters(device, name)) {
      if (!device.readsWholeWords()) {
         requireFits(device, *record, wanted);
      }
      out.push_back({record, mask, wanted});
   }
}

std::string conditionText(const Condition& condition) {
   return condition.mask == 0xFFFFFFFF
             ? fmt::format("{:#x}", condition.wanted)
             : fmt::format("{:#x} in the bits {:#x}", condition.wanted, condition.mask);
}

/// Reads the registers of the conditions. Returns why they do not hold, the first reason; nothing
/// when all of them do, with their values.
std::optional<std::string> unmet(Device& device, const std::vector<Condition>& conditions,
                                 std::vector<std::uint32_t>& values) {
   values.clear();
   for (const Condition& condition : conditions) {
      try {
         const std::uint32_t value = device.read(condition.record->name);
         if ((value & condition.mask) != condition.wanted) {
            return fmt::format("{} is {:#x}, not {}", shownName(condition.record->name), value,
                               conditionText(condition));
         }
         values.push_back(value);
      } catch (const AccessError& error) {
         // A device in reset answers nothing; that it does may be what is being waited for.
         return error.what();
      }
   }
   return std::nullopt;
}

/// The time that an access may take, in milliseconds, while `left` is left of all: no more than
/// that, and than `set` unless that is 0. The last look has a moment too.
std::uint32_t boundedTo(Pace::Clock::duration left, std::uint32_t set) {
   constexpr Pace::Clock::duration moment = std::chrono::milliseconds(100);
   const std::uint32_t bound = millisecondsOf(std::max(left, moment));
   return set == 0 ? bound : std::min(set, bound);
}

} // namespace

void watchRegisters(Device& device, const std::vector<std::string>& patterns,
                    const WatchOptions& options, const Pace& pace, Report& report) {
   device.requireReadable();
   if (report.json() && options.count == 0) {
      throw Failure(ExitCode::usage, "--json of a watch needs --count: it is printed at the end; "
                                     "--json-lines prints changes as they come");
   }
   const Selection selection = selectAll(device, patterns, report);
   report.nameWidthIs(nameColumnWidth(selection));
   std::vector<Seen> registers;
   registers.reserve(selection.size());
   for (const HardwareRegister* record : selection) {
      registers.push_back({record, std::nullopt, {}});
   }
   if (registers.empty()) {
      return; // there is nothing to wait for
   }
   for (std::uint64_t round = 1;; ++round) {
      ReadAhead values(device, selection);
      for (Seen& seen : registers) {
         look(values, seen, report);
      }
      if (round == options.count) {
         return;
      }
      pace.wait(options.interval);
   }
}

void pollRegisters(Device& device, const std::vector<std::string>& conditionTexts,
                   const PollOptions& options, const Pace& pace, Report& report) {
   device.requireReadable();
   std::vector<Condition> conditions;
   for (const std::string& text : conditionTexts) {
      appendConditions(device, text, conditions);
   }
   std::vector<const HardwareRegister*> records;
   records.reserve(conditions.size());
   for (const Condition& condition : conditions) {
      records.push_back(condition.record);
   }
   report.nameWidthIs(nameColumnWidth(records));
   const Pace::Clock::time_point deadline = pace.now() + options.timeout;
   std::vector<std::uint32_t> values;
   const std::uint32_t accessTimeout = device.accessTimeout();
   const auto look = [&] {
      device.accessTimeoutIs(boundedTo(deadline - pace.now(), accessTimeout));
      return unmet(device, conditions, values);
   };
   while (const std::optional<std::string> reason = look()) {
      const Pace::Clock::time_point now = pace.now();
      if (now >= deadline) {
         const std::chrono::duration<double> seconds = options.timeout;
         throw Failure(ExitCode::timeout,
                       fmt::format("timed out after {} s: {}", seconds.count(), *reason));
      }
      // The last look is at the deadline, not an interval before it.
      pace.wait(std::min<Pace::Clock::duration>(options.interval, deadline - now));
   }
   for (std::size_t i = 0; i < values.size(); ++i) {
      report.value(*conditions[i].record, values[i]);
   }
}

} // namespace TarnReg
