#include "platform/entity/TextRange.h"

#include <cstdint>

#include <fmt/format.h>

#include "platform/entity/Errors.h"

namespace Platform {

namespace {

bool isWordChar(char c) noexcept {
   return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

/// Length of the printable UTF-8 sequence that `text` begins with, 0 when there is none. C1
/// controls, overlong forms and surrogates do not count.
std::size_t utf8Length(std::string_view text) noexcept {
   const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
   const unsigned char lead = byte(0);
   std::size_t length = 0;
   std::uint32_t code = 0;
   if (lead < 0x80) {
      return lead >= 0x20 && lead != 0x7f ? 1 : 0;
   }
   if (lead >= 0xc2 && lead <= 0xdf) {
      length = 2;
      code = lead & 0x1fU;
   } else if (lead >= 0xe0 && lead <= 0xef) {
      length = 3;
      code = lead & 0x0fU;
   } else if (lead >= 0xf0 && lead <= 0xf4) {
      length = 4;
      code = lead & 0x07U;
   } else {
      return 0;
   }
   if (text.size() < length) {
      return 0;
   }
   for (std::size_t i = 1; i < length; ++i) {
      if ((byte(i) & 0xc0U) != 0x80U) {
         return 0;
      }
      code = code << 6 | (byte(i) & 0x3fU);
   }
   const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
   const bool surrogate = code >= 0xd800 && code <= 0xdfff;
   const bool c1Control = code < 0xa0;
   return overlong || surrogate || c1Control || code > 0x10ffff ? 0 : length;
}

int hexDigit(char c) noexcept {
   if (c >= '0' && c <= '9') {
      return c - '0';
   }
   if (c >= 'a' && c <= 'f') {
      return c - 'a' + 10;
   }
   if (c >= 'A' && c <= 'F') {
      return c - 'A' + 10;
   }
   return -1;
}

/// What an error message shows of the text that was found: not all of a long one.
String excerpt(std::string_view text) {
   constexpr std::size_t limit = 40;
   return text.size() <= limit ? quote(text) : quote(text.substr(0, limit)) + "...";
}

char unescape(TextRange& range) {
   const char c = range.peek();
   if (range.empty()) {
      throw RangeError("string ends in the middle of an escape");
   }
   range.advance(1);
   switch (c) {
   case 'n':
      return '\n';
   case 'r':
      return '\r';
   case 't':
      return '\t';
   case '\'':
   case '\\':
      return c;
   case 'x': {
      const std::string_view rest = range.rest();
      const int high = rest.size() >= 2 ? hexDigit(rest[0]) : -1;
      const int low = rest.size() >= 2 ? hexDigit(rest[1]) : -1;
      if (high < 0 || low < 0) {
         throw RangeError("\\x in a string needs two hexadecimal digits");
      }
      range.advance(2);
      return static_cast<char>(high * 16 + low);
   }
   default:
      throw RangeError(fmt::format("unknown escape {} in a string", quote(String("\\") + c)));
   }
}

} // namespace

bool TextRange::consume(std::string_view prefix) noexcept {
   if (!_rest.starts_with(prefix)) {
      return false;
   }
   _rest.remove_prefix(prefix.size());
   return true;
}

void TextRange::require(std::string_view prefix) {
   if (!consume(prefix)) {
      throw RangeError(fmt::format("expected {} but found {}", quote(prefix),
                                   _rest.empty() ? "the end of the text" : excerpt(_rest)));
   }
}

std::string_view TextRange::takeWord() noexcept {
   std::size_t length = 0;
   while (length < _rest.size() && isWordChar(_rest[length])) {
      ++length;
   }
   const std::string_view word = _rest.substr(0, length);
   advance(length);
   return word;
}

std::string_view TextRange::takeNumber() noexcept {
   std::size_t length = 0;
   while (length < _rest.size() && (isWordChar(_rest[length]) || _rest[length] == '.' ||
                                    _rest[length] == '+' || _rest[length] == '-')) {
      ++length;
   }
   const std::string_view number = _rest.substr(0, length);
   advance(length);
   return number;
}

String quote(std::string_view text) {
   String out = "'";
   while (!text.empty()) {
      const char c = text.front();
      std::size_t length = 1;
      if (c == '\'' || c == '\\') {
         out += '\\';
         out += c;
      } else if (c == '\n') {
         out += "\\n";
      } else if (c == '\r') {
         out += "\\r";
      } else if (c == '\t') {
         out += "\\t";
      } else if (const std::size_t valid = utf8Length(text)) {
         length = valid;
         out += text.substr(0, length);
      } else {
         out += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
      }
      text.remove_prefix(length);
   }
   out += '\'';
   return out;
}

String unquote(TextRange& range) {
   range.require("'");
   String out;
   while (true) {
      if (range.empty()) {
         throw RangeError("string has no closing quote");
      }
      const char c = range.peek();
      range.advance(1);
      if (c == '\'') {
         return out;
      }
      out += c == '\\' ? unescape(range) : c;
   }
}

} // namespace Platform
