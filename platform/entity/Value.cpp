#include "platform/entity/Value.h"

#include <charconv>

#include <fmt/format.h>

#include "platform/entity/TypeData.h"

namespace Platform {

Ptr<Node> ValueType::node(const std::any&) const {
   return nullptr;
}

void Value::_throwNot(const ValueType& wanted) const {
   throw RangeError(fmt::format("value is of type {}, not {}", typeName(), wanted.name()));
}

namespace {

struct Digits {
   std::string_view digits;
   int base;
   bool negative;
};

/// Takes sign and base prefix apart: 42, 0x2a, 0b101010.
Digits splitNumber(std::string_view number) noexcept {
   Digits split{number, 10, false};
   if (!split.digits.empty() && (split.digits[0] == '-' || split.digits[0] == '+')) {
      split.negative = split.digits[0] == '-';
      split.digits.remove_prefix(1);
   }
   if (split.digits.starts_with("0x") || split.digits.starts_with("0X")) {
      split.base = 16;
      split.digits.remove_prefix(2);
   } else if (split.digits.starts_with("0b") || split.digits.starts_with("0B")) {
      split.base = 2;
      split.digits.remove_prefix(2);
   }
   return split;
}

template <typename Limit>
[[noreturn]] void throwOutOfRange(std::string_view number, std::string_view type, Limit min,
                                  Limit max) {
   throw RangeError(fmt::format("{} is out of range for {} ({} to {})", number, type, min, max));
}

[[noreturn]] void throwNoNumber(std::string_view number, const TextRange& range) {
   throw RangeError(
      fmt::format("{} is not a number", quote(number.empty() ? range.rest() : number)));
}

template <typename T>
bool takeInteger(const std::any& data, Detail::Integer& out) {
   const T* held = std::any_cast<T>(&data);
   if (!held) {
      return false;
   }
   out.known = true;
   if constexpr (std::is_signed_v<T>) {
      out.negative = *held < 0;
   }
   const auto bits = static_cast<std::uint64_t>(*held);
   out.magnitude = out.negative ? 0 - bits : bits;
   return true;
}

template <typename... T>
Detail::Integer takeAnyInteger(const std::any& data) {
   Detail::Integer number;
   (takeInteger<T>(data, number) || ...);
   return number;
}

} // namespace

bool ValueTraits<bool>::read(TextRange& range) {
   TextRange ahead = range;
   const std::string_view word = ahead.takeWord();
   const bool yes = word == "true" || word == "1";
   if (!yes && word != "false" && word != "0") {
      throw RangeError(
         fmt::format("{} is neither true nor false", quote(word.empty() ? range.rest() : word)));
   }
   range = ahead;
   return yes;
}

String ValueTraits<double>::write(double value) {
   return fmt::format("{}", value);
}

double ValueTraits<double>::read(TextRange& range) {
   TextRange ahead = range;
   const std::string_view number = ahead.takeNumber();
   std::string_view digits = number;
   if (digits.starts_with('+') && !digits.starts_with("+-")) {
      digits.remove_prefix(1); // which from_chars does not take
   }
   double value = 0;
   const char* end = digits.data() + digits.size();
   const auto [stop, error] = std::from_chars(digits.data(), end, value);
   if (error == std::errc::invalid_argument || stop != end) {
      throwNoNumber(number, range);
   }
   if (error != std::errc()) {
      throw RangeError(fmt::format("{} is out of range for Double", number));
   }
   range = ahead;
   return value;
}

String ValueTraits<Bytes>::write(const Bytes& value) {
   return fmt::format("x'{:02x}'", fmt::join(value, ""));
}

Bytes ValueTraits<Bytes>::read(TextRange& range) {
   TextRange ahead = range;
   ahead.require("x'");
   const std::string_view digits = ahead.takeWord();
   ahead.require("'");
   if (digits.size() % 2 != 0) {
      throw RangeError("bytes need two hexadecimal digits each");
   }
   Bytes bytes(digits.size() / 2);
   for (std::size_t i = 0; i < bytes.size(); ++i) {
      const char* first = digits.data() + 2 * i;
      const auto [stop, error] = std::from_chars(first, first + 2, bytes[i], 16);
      if (error != std::errc() || stop != first + 2) {
         throw RangeError(
            fmt::format("{} are not two hexadecimal digits", quote(std::string_view(first, 2))));
      }
   }
   range = ahead;
   return bytes;
}

namespace Detail {

std::uint64_t readUnsigned(TextRange& range, std::string_view type, std::uint64_t max) {
   TextRange ahead = range;
   const std::string_view number = ahead.takeNumber();
   const Digits split = splitNumber(number);
   std::uint64_t value = 0;
   const char* end = split.digits.data() + split.digits.size();
   const auto [stop, error] = std::from_chars(split.digits.data(), end, value, split.base);
   if (error == std::errc::invalid_argument || stop != end) {
      throwNoNumber(number, range);
   }
   if (error != std::errc() || value > max || (split.negative && value != 0)) {
      throwOutOfRange(number, type, std::uint64_t{0}, max);
   }
   range = ahead;
   return value;
}

std::int64_t readSigned(TextRange& range, std::string_view type, std::int64_t min,
                        std::int64_t max) {
   TextRange ahead = range;
   const std::string_view number = ahead.takeNumber();
   const Digits split = splitNumber(number);
   std::uint64_t magnitude = 0;
   const char* end = split.digits.data() + split.digits.size();
   const auto [stop, error] = std::from_chars(split.digits.data(), end, magnitude, split.base);
   if (error == std::errc::invalid_argument || stop != end) {
      throwNoNumber(number, range);
   }
   const std::uint64_t limit =
      split.negative ? 0 - static_cast<std::uint64_t>(min) : static_cast<std::uint64_t>(max);
   if (error != std::errc() || magnitude > limit) {
      throwOutOfRange(number, type, min, max);
   }
   range = ahead;
   return static_cast<std::int64_t>(split.negative ? 0 - magnitude : magnitude);
}

String writeReference(const Node* node) {
   if (!node) {
      return "null";
   }
   const TypeData& type = node->typeData();
   const AttributeData* name = type.findAttribute("name");
   if (!name || name->collection()) {
      return fmt::format("Entity({})", quote(type.name()));
   }
   return fmt::format("Entity({}, {})", quote(type.name()), name->get(*node).toString());
}

Ptr<Node> readReference(TextRange& range) {
   TextRange ahead = range;
   Ptr<Node> node;
   if (!ahead.consume("null")) {
      ahead.require("Entity(");
      const String type = unquote(ahead);
      ahead.require(", ");
      const String name = unquote(ahead);
      ahead.require(")");
      if (!ahead.directory()) {
         throw RangeError(
            fmt::format("no directory to find entity {} of type {} in", quote(name), type));
      }
      node = ahead.directory()->find(type, name);
      if (!node) {
         throw RangeError(fmt::format("no live entity {} of type {}", quote(name), type));
      }
   }
   range = ahead;
   return node;
}

void throwWrongClass(const Node& node, const TypeData& wanted) {
   throw RangeError(fmt::format("entity is a {}, not a {}", node.typeData().name(), wanted.name()));
}

Integer integerIn(const std::any& data) {
   return takeAnyInteger<int, unsigned, long, unsigned long, long long, unsigned long long, short,
                         unsigned short, char, signed char, unsigned char>(data);
}

void throwNotA(std::string_view text, std::string_view type, std::string_view reason) {
   throw RangeError(fmt::format("{} is not a {}: {}", quote(text), type, reason));
}

void throwCannotConvert(const Value& value, std::string_view type) {
   throw RangeError(fmt::format("{} of type {} cannot become a {}",
                                value.empty() ? "the empty value" : value.toString(),
                                value.typeName(), type));
}

} // namespace Detail

} // namespace Platform
