#include "platform/trace/Line.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include <fmt/format.h>

namespace Platform::Trace {

namespace {

struct Character {
   std::size_t bytes; // 0: what is there is not UTF-8
   std::uint32_t code;
};

// The character that `text`, which is not empty, begins with. Overlong forms, surrogates and
// codes beyond Unicode are not UTF-8: a lenient terminal might make a control character of them.
Character firstCharacter(std::string_view text) noexcept {
   const auto byte = [&](std::size_t at) {
      return static_cast<std::uint32_t>(static_cast<unsigned char>(text[at]));
   };
   const std::uint32_t lead = byte(0);
   if (lead < 0x80) {
      return {1, lead};
   }
   std::size_t bytes = 0;
   std::uint32_t code = 0;
   std::uint32_t least = 0;
   if ((lead & 0xe0U) == 0xc0) {
      bytes = 2;
      code = lead & 0x1fU;
      least = 0x80;
   } else if ((lead & 0xf0U) == 0xe0) {
      bytes = 3;
      code = lead & 0x0fU;
      least = 0x800;
   } else if ((lead & 0xf8U) == 0xf0) {
      bytes = 4;
      code = lead & 0x07U;
      least = 0x10000;
   } else {
      return {0, 0};
   }
   if (text.size() < bytes) {
      return {0, 0};
   }
   for (std::size_t at = 1; at < bytes; ++at) {
      if ((byte(at) & 0xc0U) != 0x80) {
         return {0, 0};
      }
      code = (code << 6U) | (byte(at) & 0x3fU);
   }
   const bool surrogate = code >= 0xd800 && code <= 0xdfff;
   return code < least || surrogate || code > 0x10ffff ? Character{0, 0} : Character{bytes, code};
}

bool isUnsafe(std::uint32_t code) noexcept {
   return code < 0x20 || (code >= 0x7f && code <= 0x9f) ||      // controls, of both sets
          code == 0x200e || code == 0x200f || code == 0x061c || // direction marks
          (code >= 0x2028 && code <= 0x202e) ||                 // separators, embeddings, overrides
          (code >= 0x2066 && code <= 0x2069);                   // isolates
}

void appendEscaped(std::string& out, std::string_view text) {
   while (!text.empty()) {
      const Character character = firstCharacter(text);
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
