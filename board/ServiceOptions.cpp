#include "board/ServiceOptions.h"

#include <stdexcept>

#include <fmt/format.h>

#include "platform/metrics/ListenAddress.h"
#include "platform/trace/Levels.h"

namespace Board {

namespace {

/// What `convert` makes of the text under `key`, if there is one; what it throws becomes an error
/// of that place.
template <typename Value, typename Convert>
void take(TomlTable& table, std::string_view key, const Convert& convert, Value& value) {
   const toml::node* node = table.take(key);
   if (!node) {
      return;
   }
   const std::string text = table.text(*node, key);
   try {
      value = convert(text);
   } catch (const std::invalid_argument& error) {
      table.fail(node->source(), error.what());
   }
}

} // namespace

void ServiceOptions::takeFrom(TomlTable& table) {
   take(table, "metrics", metricsAddressFrom, metrics);
   // A level alone may go without quotes.
   if (const toml::node* node = table.take("trace"); node && node->is_integer()) {
      traceLevels = traceLevelsFrom(fmt::format("{}", table.number(*node, "trace", 0, 9)));
   } else {
      take(table, "trace", traceLevelsFrom, traceLevels);
   }
   take(table, "log", logTargetFrom, log);
}

void ServiceArguments::replaceIn(ServiceOptions& options) const {
   options.metrics = metrics.value_or(options.metrics);
   options.traceLevels = traceLevels.value_or(options.traceLevels);
   options.log = log.value_or(options.log);
}

std::string traceLevelsFrom(std::string_view text) {
   if (text.size() == 1 && text[0] >= '0' && text[0] <= '9') {
      return fmt::format("*={}", text);
   }
   return Platform::Trace::Levels(text).spec();
}

LogTarget logTargetFrom(std::string_view text) {
   if (text == "stderr") {
      return LogTarget::standardError;
   }
   if (text == "syslog") {
      return LogTarget::systemLog;
   }
   throw std::invalid_argument(
      fmt::format("'{}' is no place for the log: stderr, syslog", shown(text)));
}

std::string metricsAddressFrom(const std::string& text) {
   static_cast<void>(Platform::Metrics::ListenAddress(text));
   return text;
}

} // namespace Board
