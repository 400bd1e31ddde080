#include "platform/trace/Line.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include <fmt/format.h>

#include "platform/trace/Utf8.h"

namespace Platform::Trace {

namespace {

bool isUnsafe(std::uint32_t code) noexcept {
   return code < 0x20 || (code >= 0x7f && code <= 0x9f) ||      // controls, of both sets
          code == 0x200e || code == 0x200f || code == 0x061c || // direction marks
          (code >= 0x2028 && code <= 0x202e) ||                 // separators, embeddings, overrides
          (code >= 0x2066 && code <= 0x2069);                   // isolates
}

void appendEscaped(std::string& out, std::string_view text) {
   while (!text.empty()) {
      const Utf8Character character = firstUtf8Character(text);
      const std::size_t bytes = character.bytes == 0 ? 1 : character.bytes;
      const std::string_view raw = text.substr(0, bytes);
      text.remove_prefix(bytes);
      if (character.bytes != 0 && character.code == '\\') {
         out += "\\\\";
      } else if (character.bytes != 0 && !isUnsafe(character.code)) {
         out += raw;
      } else if (raw == "\n") {
         out += "\\n";
      } else if (raw == "\r") {
         out += "\\r";
      } else if (raw == "\t") {
         out += "\\t";
      } else {
         for (const char byte : raw) {
            fmt::format_to(std::back_inserter(out), "\\x{:02x}", static_cast<unsigned char>(byte));
         }
      }
   }
}

void appendBody(std::string& out, const Record& record) {
   appendEscaped(out, record.source);
   out += ' ';
   appendEscaped(out, record.function);
   out += ": ";
   appendEscaped(out, record.text);
}

} // namespace

std::string escaped(std::string_view text) {
   std::string out;
   out.reserve(text.size());
   appendEscaped(out, text);
   return out;
}

std::string lineBody(const Record& record) {
   std::string out;
   appendBody(out, record);
   return out;
}

std::string line(const Record& record) {
   using namespace std::chrono;
   const auto time = floor<microseconds>(record.time);
   const auto day = floor<days>(time);
   const year_month_day date(day);
   const hh_mm_ss clock(time - day);
   std::string out = fmt::format(
      "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z {} ", static_cast<int>(date.year()),
      static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), clock.hours().count(),
      clock.minutes().count(), clock.seconds().count(), clock.subseconds().count(), record.level);
   appendBody(out, record);
   return out;
}

} // namespace Platform::Trace
