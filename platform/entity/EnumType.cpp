#include "platform/entity/EnumType.h"

#include <algorithm>

#include <fmt/format.h>

#include "platform/entity/Errors.h"

namespace Platform::Detail {

String enumString(const EnumTable& table, std::uint32_t value) {
   const auto* found =
      std::find_if(table.begin, table.end, [&](const EnumEntry& e) { return e.value == value; });
   if (found != table.end) {
      return String(found->name);
   }
   const std::size_t scope = table.type.rfind(':');
   return fmt::format(
      "{}({})", scope == std::string_view::npos ? table.type : table.type.substr(scope + 1), value);
}

std::uint32_t enumByValue(const EnumTable& table, std::uint32_t value) {
   if (std::none_of(table.begin, table.end, [&](const EnumEntry& e) { return e.value == value; })) {
      throw RangeError(fmt::format("{} has no value {}", table.type, value));
   }
   return value;
}

std::uint32_t enumByName(const EnumTable& table, std::string_view name) {
   const auto* found =
      std::find_if(table.begin, table.end, [&](const EnumEntry& e) { return e.name == name; });
   if (found != table.end) {
      return found->value;
   }
   String names;
   for (const auto* entry = table.begin; entry != table.end; ++entry) {
      names += names.empty() ? "" : ", ";
      names += entry->name;
   }
   throw RangeError(
      fmt::format("{} has no value {} (there are {})", table.type, quote(name), names));
}

std::uint32_t enumParse(const EnumTable& table, TextRange& range) {
   TextRange ahead = range;
   const std::uint32_t value = enumByName(table, ahead.takeWord());
   range = ahead;
   return value;
}

} // namespace Platform::Detail
