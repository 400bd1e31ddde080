#include "platform/trace/Levels.h"

#include <stdexcept>

#include <fmt/format.h>

#include "platform/trace/Source.h"

namespace Platform::Trace {

namespace {

constexpr std::string_view blanks = " \t\r\n";

std::string_view trimmed(std::string_view text) noexcept {
   const auto first = text.find_first_not_of(blanks);
   if (first == std::string_view::npos) {
      return {};
   }
   return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// Goes back only to the last star passed: what an earlier star took never needs to change. That
// bounds the work by the product of the lengths, whatever the pattern.
bool matches(std::string_view pattern, std::string_view name) noexcept {
   std::size_t p = 0;
   std::size_t n = 0;
   std::size_t starAt = std::string_view::npos;
   std::size_t starTookTo = 0;
   while (n < name.size()) {
      if (p < pattern.size() && pattern[p] == '*') {
         starAt = p++;
         starTookTo = n;
      } else if (p < pattern.size() && pattern[p] == name[n]) {
         ++p;
         ++n;
      } else if (starAt != std::string_view::npos) {
         p = starAt + 1;
         n = ++starTookTo;
      } else {
         return false;
      }
   }
   return pattern.find_first_not_of('*', p) == std::string_view::npos;
}

} // namespace

Levels::Levels(std::string_view spec) {
   std::vector<std::string> errors;
   Levels parsed(spec, errors);
   if (!errors.empty()) {
      throw std::invalid_argument(errors.front());
   }
   _entries = std::move(parsed._entries);
}

Levels::Levels(std::string_view spec, std::vector<std::string>& errors) {
   while (!spec.empty()) {
      const auto comma = spec.find(',');
      const std::string_view entry = trimmed(spec.substr(0, comma));
      spec = comma == std::string_view::npos ? std::string_view{} : spec.substr(comma + 1);
      if (entry.empty()) {
         continue;
      }
      const auto bad = [&](std::string_view reason) {
         errors.push_back(fmt::format("bad trace level '{}': {}", entry, reason));
      };
      const auto equals = entry.find('=');
      if (equals == std::string_view::npos) {
         bad("expected NAME=LEVEL");
         continue;
      }
      const std::string_view pattern = trimmed(entry.substr(0, equals));
      const std::string_view level = trimmed(entry.substr(equals + 1));
      if (pattern.empty()) {
         bad("expected a source name before the '='");
      } else if (level == "off") {
         _entries.push_back({std::string(pattern), off});
      } else if (level.size() == 1 && level[0] >= '0' && level[0] <= '9') {
         _entries.push_back({std::string(pattern), level[0] - '0'});
      } else {
         bad("expected a level, 0 to 9 or off, after the '='");
      }
   }
}

int Levels::threshold(std::string_view sourceName) const noexcept {
   for (auto entry = _entries.rbegin(); entry != _entries.rend(); ++entry) {
      if (matches(entry->pattern, sourceName)) {
         return entry->level;
      }
   }
   return defaultThreshold;
}

std::string Levels::spec() const {
   std::string text;
   for (const Entry& entry : _entries) {
      if (!text.empty()) {
         text += ',';
      }
      text += entry.pattern;
      text += '=';
      text += entry.level == off ? std::string("off") : std::to_string(entry.level);
   }
   return text;
}

} // namespace Platform::Trace
