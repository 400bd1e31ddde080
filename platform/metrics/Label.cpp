#include "platform/metrics/Label.h"

#include <algorithm>

#include "platform/trace/Utf8.h"

namespace Platform::Metrics {

namespace {

// Not the <cctype> functions: a program's locale must not change what a name is.
bool isLetter(char character) noexcept {
   return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

bool isDigit(char character) noexcept {
   return character >= '0' && character <= '9';
}

template <typename Extra>
bool isName(std::string_view name, std::size_t maxBytes, Extra isExtra) noexcept {
   return !name.empty() && name.size() <= maxBytes && !isDigit(name.front()) &&
          std::all_of(name.begin(), name.end(), [&](char character) {
             return isLetter(character) || isDigit(character) || isExtra(character);
          });
}

} // namespace

bool isMetricName(std::string_view name) noexcept {
   constexpr std::size_t maxBytes = 128;
   return isName(name, maxBytes,
                 [](char character) { return character == '_' || character == ':'; });
}

bool isLabelName(std::string_view name) noexcept {
   constexpr std::size_t maxBytes = 64;
   return !name.starts_with("__") &&
          isName(name, maxBytes, [](char character) { return character == '_'; });
}

std::string boundedLabelValue(std::string_view value, std::size_t maxBytes) {
   constexpr std::string_view ellipsis = "...";
   std::string out;
   // The longest beginning that leaves room for the ellipsis, should one be needed.
   std::size_t cut = 0;
   while (!value.empty()) {
      const Trace::Utf8Character character = Trace::firstUtf8Character(value);
      const std::size_t bytes = character.bytes == 0 ? 1 : character.bytes;
      const bool isControl =
         character.code != '\n' &&
         (character.code < 0x20 || (character.code >= 0x7f && character.code <= 0x9f));
      if (character.bytes == 0 || isControl) {
         out += '?';
      } else {
         out += value.substr(0, bytes);
      }
      value.remove_prefix(bytes);
      if (out.size() + ellipsis.size() <= maxBytes) {
         cut = out.size();
      }
      if (out.size() > maxBytes) {
         out.resize(cut);
         out += ellipsis;
         return out;
      }
   }
   return out;
}

} // namespace Platform::Metrics
