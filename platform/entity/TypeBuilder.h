#pragma once

#include <initializer_list>
#include <stdexcept>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "platform/entity/TypeData.h"

namespace Platform {

namespace Detail {

template <typename Method>
struct MethodTraits;

template <typename C, typename R, typename... A>
struct MethodTraits<R (C::*)(A...)> {
   using Class = C;
   using Result = std::remove_cvref_t<R>;
   using Arguments = std::tuple<std::remove_cvref_t<A>...>;
};
template <typename C, typename R, typename... A>
struct MethodTraits<R (C::*)(A...) const> : MethodTraits<R (C::*)(A...)> {};
template <typename C, typename R, typename... A>
struct MethodTraits<R (C::*)(A...) noexcept> : MethodTraits<R (C::*)(A...)> {};
template <typename C, typename R, typename... A>
struct MethodTraits<R (C::*)(A...) const noexcept> : MethodTraits<R (C::*)(A...)> {};

} // namespace Detail

/// Builds the reflection table of class C from pointers to its members:
///
///    const TypeData& Fan::staticType() {
///       static const TypeData type = TypeBuilder<Fan>("Demo::Fan", Node::staticType())
///                                       .attribute<&Fan::name>("name")
///                                       .attribute<&Fan::speed, &Fan::speedIs>("speed")
///                                       .operation<&Fan::spin>("spin", {"rpm"})
///                                       .build();
///       return type;
///    }
template <typename C>
class TypeBuilder {
public:
   TypeBuilder(String name, const TypeData& base) : _type(std::move(name), &base) {}

   /// A read-only attribute.
   template <auto Getter>
   TypeBuilder& attribute(std::string_view name) {
      using T = typename Detail::MethodTraits<decltype(Getter)>::Result;
      AttributeData row;
      row.name = name;
      row.type = &valueType<T>();
      row.get = [](const Node& node) { return Value::of<T>((_of(node).*Getter)()); };
      _type._attributes.push_back(std::move(row));
      return *this;
   }

   /// A read-write attribute.
   template <auto Getter, auto Setter>
   TypeBuilder& attribute(std::string_view name) {
      using T = typename Detail::MethodTraits<decltype(Getter)>::Result;
      attribute<Getter>(name);
      _type._attributes.back().set = [](Node& node, const std::any& value) {
         (_of(node).*Setter)(*std::any_cast<T>(&value));
      };
      return *this;
   }

   /// A collection: `Keys` returns its keys as a container, `Element` the element at a key.
   template <auto Keys, auto Element>
   TypeBuilder& collection(std::string_view name) {
      using K = typename Detail::MethodTraits<decltype(Keys)>::Result::value_type;
      using T = typename Detail::MethodTraits<decltype(Element)>::Result;
      AttributeData row;
      row.name = name;
      row.type = &valueType<T>();
      row.keyType = &valueType<K>();
      row.keys = [](const Node& node) {
         std::vector<Value> keys;
         for (const K& key : (_of(node).*Keys)()) {
            keys.push_back(Value::of<K>(key));
         }
         return keys;
      };
      row.element = [](const Node& node, const std::any& key) {
         return Value::of<T>((_of(node).*Element)(*std::any_cast<K>(&key)));
      };
      _type._attributes.push_back(std::move(row));
      return *this;
   }

   /// An operation, with the names of its arguments.
   template <auto Method>
   TypeBuilder& operation(std::string_view name,
                          std::initializer_list<std::string_view> argumentNames = {}) {
      using Traits = Detail::MethodTraits<decltype(Method)>;
      using Arguments = typename Traits::Arguments;
      using R = typename Traits::Result;
      OperationData row;
      row.name = name;
      if constexpr (!std::is_void_v<R>) {
         row.result = &valueType<R>();
      }
      _arguments<Arguments>(row, argumentNames,
                            std::make_index_sequence<std::tuple_size_v<Arguments>>{});
      row.call = [](Node& node, std::span<const std::any> values) {
         return _call<Method, R, Arguments>(
            _of(node), values, std::make_index_sequence<std::tuple_size_v<Arguments>>{});
      };
      _type._operations.push_back(std::move(row));
      return *this;
   }

   TypeData build() { return std::move(_type); }

private:
   static C& _of(Node& node) { return const_cast<C&>(_of(std::as_const(node))); }
   static const C& _of(const Node& node) {
      const C* object = dynamic_cast<const C*>(&node);
      if (!object) {
         Detail::throwWrongClass(node, C::staticType());
      }
      return *object;
   }

   template <typename Arguments, std::size_t... I>
   static void _arguments(OperationData& row, std::initializer_list<std::string_view> names,
                          std::index_sequence<I...>) {
      if (names.size() != sizeof...(I)) {
         throw std::logic_error("operation " + row.name +
                                " declared with the wrong argument names");
      }
      (row.arguments.push_back(
          {String(std::data(names)[I]), &valueType<std::tuple_element_t<I, Arguments>>()}),
       ...);
   }

   template <auto Method, typename R, typename Arguments, std::size_t... I>
   static Value _call(C& object, [[maybe_unused]] std::span<const std::any> values,
                      std::index_sequence<I...>) {
      if constexpr (std::is_void_v<R>) {
         (object.*Method)(*std::any_cast<std::tuple_element_t<I, Arguments>>(&values[I])...);
         return Value();
      } else {
         return Value::of<R>(
            (object.*Method)(*std::any_cast<std::tuple_element_t<I, Arguments>>(&values[I])...));
      }
   }

   TypeData _type;
};

} // namespace Platform
