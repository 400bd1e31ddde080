#pragma once

#include <concepts>
#include <cstdint>
#include <limits>
#include <string_view>
#include <type_traits>

#include "platform/entity/Directory.h"
#include "platform/entity/EnumType.h"
#include "platform/entity/Errors.h"
#include "platform/entity/Export.h"
#include "platform/entity/Node.h"
#include "platform/entity/Ptr.h"
#include "platform/entity/TextRange.h"
#include "platform/entity/Types.h"

namespace Platform {

/// How values of type T are named, written and read. Each specialisation has
///    static String name();                  // in descriptions and errors
///    static String write(const T&);         // the string form
///    static T read(TextRange&);             // takes the string form off the front
/// and may have
///    static T fromText(std::string_view);   // as a person types it, when that differs
///
/// A class of the program joins in through three members: a static valueTypeName(), a
/// stringRep() and a constructor from TextRange&.
template <typename T>
struct ValueTraits;

namespace Detail {
TARN_PLATFORM_API std::uint64_t readUnsigned(TextRange& range, std::string_view type,
                                             std::uint64_t max);
TARN_PLATFORM_API std::int64_t readSigned(TextRange& range, std::string_view type, std::int64_t min,
                                          std::int64_t max);
TARN_PLATFORM_API String writeReference(const Node* node);
TARN_PLATFORM_API Ptr<Node> readReference(TextRange& range);
[[noreturn]] TARN_PLATFORM_API void throwWrongClass(const Node& node, const TypeData& wanted);
} // namespace Detail

template <>
struct TARN_PLATFORM_API ValueTraits<bool> {
   static String name() { return "Bool"; }
   static String write(bool value) { return value ? "true" : "false"; }
   static bool read(TextRange& range);
};

template <typename T>
requires(std::integral<T> && !std::same_as<T, bool>) struct ValueTraits<T> {
   static String name() {
      return (std::is_signed_v<T> ? "S" : "U") + std::to_string(sizeof(T) * 8);
   }
   static String write(T value) { return std::to_string(value); }
   static T read(TextRange& range) {
      using Limits = std::numeric_limits<T>;
      if constexpr (std::is_signed_v<T>) {
         return static_cast<T>(Detail::readSigned(range, name(), Limits::min(), Limits::max()));
      } else {
         return static_cast<T>(Detail::readUnsigned(range, name(), Limits::max()));
      }
   }
};

template <>
struct TARN_PLATFORM_API ValueTraits<double> {
   static String name() { return "Double"; }
   static String write(double value);
   static double read(TextRange& range);
};

template <>
struct TARN_PLATFORM_API ValueTraits<String> {
   static String name() { return "String"; }
   static String write(const String& value) { return quote(value); }
   static String read(TextRange& range) { return unquote(range); }
   static String fromText(std::string_view text) { return String(text); }
};

/// Bytes are written as x'0011aaff'.
template <>
struct TARN_PLATFORM_API ValueTraits<Bytes> {
   static String name() { return "Bytes"; }
   static String write(const Bytes& value);
   static Bytes read(TextRange& range);
};

template <ReflectedEnum E>
struct ValueTraits<E> {
   static String name() { return String(EnumTraits<E>::name); }
   static String write(E value) { return enumString(value); }
   static E read(TextRange& range) { return enumParse<E>(range); }
};

/// A reference is written as Entity('Type', 'name'), or null. It is read back through the range's
/// directory.
template <typename T>
struct ValueTraits<Ptr<T>> {
   static String name() {
      return (std::is_const_v<T> ? "Ptr<const " : "Ptr<") + String(T::staticType().name()) + ">";
   }
   static String write(const Ptr<T>& value) { return Detail::writeReference(value.get()); }
   static Ptr<T> read(TextRange& range) { return cast(Detail::readReference(range)); }

   static Ptr<T> cast(const Ptr<Node>& node) {
      Ptr<T> wanted = ptrCast<T>(node);
      if (node && !wanted) {
         Detail::throwWrongClass(*node, T::staticType());
      }
      return wanted;
   }
};

template <typename T>
requires requires(const T& value, TextRange& range) {
   T::valueTypeName();
   value.stringRep();
   T(range);
}
struct ValueTraits<T> {
   static String name() { return String(T::valueTypeName()); }
   static String write(const T& value) { return value.stringRep(); }
   static T read(TextRange& range) { return T(range); }
};

} // namespace Platform
