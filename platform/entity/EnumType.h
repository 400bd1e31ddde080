#pragma once

#include <concepts>
#include <cstdint>
#include <iterator>
#include <ostream>
#include <string_view>
#include <type_traits>

#include "platform/entity/Export.h"
#include "platform/entity/TextRange.h"
#include "platform/entity/Types.h"

namespace Platform {

/// One enumerator: its number and its string form.
struct EnumEntry {
   std::uint32_t value;
   std::string_view name;
};

/// Describes the enumeration E to the framework. Specialise it with
///    static constexpr std::string_view name;     // of the type, with its namespace
///    static constexpr EnumEntry entries[];       // every enumerator
/// and the functions below work on E.
template <typename E>
struct EnumTraits;

template <typename E>
concept ReflectedEnum = std::is_enum_v<E> && requires {
   EnumTraits<E>::name;
   EnumTraits<E>::entries[0].value;
};

namespace Detail {
struct EnumTable {
   std::string_view type;
   const EnumEntry* begin;
   const EnumEntry* end;
};
TARN_PLATFORM_API String enumString(const EnumTable& table, std::uint32_t value);
TARN_PLATFORM_API std::uint32_t enumByValue(const EnumTable& table, std::uint32_t value);
TARN_PLATFORM_API std::uint32_t enumByName(const EnumTable& table, std::string_view name);
TARN_PLATFORM_API std::uint32_t enumParse(const EnumTable& table, TextRange& range);

template <ReflectedEnum E>
constexpr EnumTable enumTable() noexcept {
   return {EnumTraits<E>::name, std::begin(EnumTraits<E>::entries),
           std::end(EnumTraits<E>::entries)};
}
} // namespace Detail

/// The string form: the enumerator's name, or "Type(number)" for a number that has none.
template <ReflectedEnum E>
String enumString(E value) {
   return Detail::enumString(Detail::enumTable<E>(), static_cast<std::uint32_t>(value));
}

/// The enumerator with this number. Throws RangeError naming the type and the number.
template <ReflectedEnum E>
E enumInstance(std::uint32_t value) {
   return static_cast<E>(Detail::enumByValue(Detail::enumTable<E>(), value));
}

/// The enumerator with this name. Throws RangeError naming the type, the text and the names there
/// are.
template <ReflectedEnum E>
E enumInstance(std::string_view name) {
   return static_cast<E>(Detail::enumByName(Detail::enumTable<E>(), name));
}

/// Reads an enumerator's name off the front of `range`. Throws RangeError, `range` then unchanged.
template <ReflectedEnum E>
E enumParse(TextRange& range) {
   return static_cast<E>(Detail::enumParse(Detail::enumTable<E>(), range));
}

/// Writes the string form. An enumeration of another namespace joins in there with
/// `using Platform::operator<<;`.
template <ReflectedEnum E>
std::ostream& operator<<(std::ostream& stream, E value) {
   return stream << enumString(value);
}

} // namespace Platform
