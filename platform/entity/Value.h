#pragma once

#include <any>
#include <concepts>
#include <cstdint>
#include <string_view>
#include <utility>

#include "platform/entity/Export.h"
#include "platform/entity/Node.h"
#include "platform/entity/TextRange.h"
#include "platform/entity/Types.h"
#include "platform/entity/ValueTraits.h"
#include "platform/entity/ValueType.h"

namespace Platform {

/// A typed value as reflection hands it about: of one of the types that ValueTraits knows, or
/// empty (what an operation without a result returns).
class TARN_PLATFORM_API Value {
public:
   /// The empty value.
   Value() = default;
   Value(const ValueType& type, std::any data) : _type(&type), _data(std::move(data)) {}

   template <typename T>
   static Value of(T value) {
      return Value(valueType<T>(), std::any(std::move(value)));
   }

   /// A text is a String, however it is held.
   static Value of(const char* text) { return of(String(text)); }
   static Value of(std::string_view text) { return of(String(text)); }

   bool empty() const noexcept { return _type == nullptr; }

   /// The type; null for the empty value.
   const ValueType* type() const noexcept { return _type; }

   /// The type's name; "void" for the empty value.
   String typeName() const { return _type ? _type->name() : "void"; }

   /// The held T. Throws RangeError naming both types when another one is held.
   template <typename T>
   const T& as() const {
      if (const T* held = std::any_cast<T>(&_data)) {
         return *held;
      }
      _throwNot(valueType<T>());
   }

   /// The string form, which the type's parse() reads back; empty for the empty value.
   String toString() const { return _type ? _type->toString(_data) : String(); }

   const std::any& data() const noexcept { return _data; }

private:
   [[noreturn]] void _throwNot(const ValueType& wanted) const;

   const ValueType* _type = nullptr;
   std::any _data;
};

namespace Detail {

/// A signed or unsigned number of up to 64 bits, as it is carried between integer types.
struct Integer {
   bool known = false;
   bool negative = false;
   std::uint64_t magnitude = 0;
};
TARN_PLATFORM_API Integer integerIn(const std::any& data);

[[noreturn]] TARN_PLATFORM_API void throwNotA(std::string_view text, std::string_view type,
                                              std::string_view reason);
[[noreturn]] TARN_PLATFORM_API void throwCannotConvert(const Value& value, std::string_view type);

template <typename T>
constexpr bool isPtr = false;
template <typename T>
constexpr bool isPtr<Ptr<T>> = true;

template <typename T>
class TypedValueType final : public ValueType {
public:
   using Traits = ValueTraits<T>;

   String name() const override { return Traits::name(); }

   String toString(const std::any& data) const override {
      return Traits::write(*std::any_cast<T>(&data));
   }

   std::any parse(TextRange& range) const override { return std::any(Traits::read(range)); }

   std::any fromText(std::string_view text, const Directory* directory) const override {
      if constexpr (requires { Traits::fromText(text); }) {
         return std::any(Traits::fromText(text));
      } else {
         try {
            TextRange range(text, directory);
            std::any data = parse(range);
            if (!range.empty()) {
               throw RangeError("unexpected text after it: " + quote(range.rest()));
            }
            return data;
         } catch (const RangeError& error) {
            throwNotA(text, name(), error.what());
         }
      }
   }

   std::any convert(const Value& value) const override {
      if (std::any_cast<T>(&value.data())) {
         return value.data();
      }
      if constexpr (std::integral<T> && !std::same_as<T, bool>) {
         const Integer number = integerIn(value.data());
         if (number.known && _fits(number)) {
            return std::any(
               static_cast<T>(number.negative ? 0 - number.magnitude : number.magnitude));
         }
      }
      if constexpr (isPtr<T>) {
         if (value.type() && (value.type()->reference() == Reference::entity ||
                              value.type()->reference() == reference())) {
            return std::any(Traits::cast(value.type()->node(value.data())));
         }
      }
      throwCannotConvert(value, name());
   }

   Reference reference() const override {
      if constexpr (isPtr<T>) {
         return std::is_const_v<typename T::element_type> ? Reference::constEntity
                                                          : Reference::entity;
      } else {
         return Reference::none;
      }
   }

   Ptr<Node> node([[maybe_unused]] const std::any& data) const override {
      if constexpr (isPtr<T>) {
         const T& pointer = *std::any_cast<T>(&data);
         const Node* object = pointer.get();
         return Ptr<Node>(const_cast<Node*>(object));
      } else {
         return nullptr;
      }
   }

private:
   static bool _fits(const Integer& number) noexcept {
      using Limits = std::numeric_limits<T>;
      if (number.negative) {
         return std::is_signed_v<T> &&
                number.magnitude <= static_cast<std::uint64_t>(Limits::max()) + 1;
      }
      return number.magnitude <= static_cast<std::uint64_t>(Limits::max());
   }
};

} // namespace Detail

template <typename T>
const ValueType& valueType() {
   // Never destroyed: values may outlive the library's static objects.
   static const ValueType& type = *new Detail::TypedValueType<T>();
   return type;
}

template <typename Key>
void Node::publish(AttributeId attribute, const Key& key) const {
   _checkThread("publish");
   if (hasNotifiees()) {
      _publish(attribute, Value::of(key));
   }
}

} // namespace Platform
