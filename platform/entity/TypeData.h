#pragma once

#include <functional>
#include <span>
#include <string_view>
#include <vector>

#include "platform/entity/Export.h"
#include "platform/entity/Types.h"
#include "platform/entity/Value.h"

namespace Platform {

class Node;

/// One attribute of a type: its name, type and access, and how it is read and set. A collection
/// attribute has keys and elements in place of one value.
struct AttributeData {
   String name;
   const ValueType* type = nullptr;    ///< of the value, or of a collection's elements
   const ValueType* keyType = nullptr; ///< of a collection's keys; null for a plain attribute

   std::function<Value(const Node&)> get;               ///< empty for a collection
   std::function<void(Node&, const std::any&)> set;     ///< empty when read-only
   std::function<std::vector<Value>(const Node&)> keys; ///< collection: its keys, in order
   std::function<Value(const Node&, const std::any& key)> element; ///< collection: the one at a key

   bool collection() const noexcept { return keyType != nullptr; }
   bool writable() const noexcept { return static_cast<bool>(set); }
};

/// One argument of an operation.
struct ArgumentData {
   String name;
   const ValueType* type = nullptr;
};

/// One operation of a type: its name, its arguments by name and type, and the call.
struct OperationData {
   String name;
   std::vector<ArgumentData> arguments;
   const ValueType* result = nullptr; ///< null when it returns nothing

   /// Calls it; `arguments` hold exactly the types listed.
   std::function<Value(Node&, std::span<const std::any> arguments)> call;

   /// "regWrite(regName: String, value: U32)", with " -> U32" when there is a result.
   String signature() const;
};

/// The reflection table of one type: name, base, attributes, operations. Built once, beside the
/// class, with TypeBuilder; from it alone come describe, get, set and invoke by name. Immutable
/// afterwards, so any thread may read it.
///
/// The functions that take a name look it up in this type, then in its bases, and throw RangeError
/// naming the type, the attribute or operation, and the argument.
class TARN_PLATFORM_API TypeData {
public:
   explicit TypeData(String name, const TypeData* base = nullptr)
      : _name(std::move(name)), _base(base) {}

   std::string_view name() const noexcept { return _name; }
   const TypeData* base() const noexcept { return _base; }

   /// This type's own rows, in order of declaration.
   const std::vector<AttributeData>& attributes() const noexcept { return _attributes; }
   const std::vector<OperationData>& operations() const noexcept { return _operations; }

   /// This type's row or a base's; null when there is none.
   const AttributeData* findAttribute(std::string_view name) const noexcept;
   const OperationData* findOperation(std::string_view name) const noexcept;

   /// Whether this type is `other` or derived from it.
   bool isA(const TypeData& other) const noexcept;

   /// The whole table as text, bases first, one row a line.
   String describe() const;

   Value get(const Node& node, std::string_view attribute) const;
   Value getAt(const Node& node, std::string_view collection, const Value& key) const;
   std::vector<Value> keys(const Node& node, std::string_view collection) const;

   void set(Node& node, std::string_view attribute, const Value& value) const;
   void setText(Node& node, std::string_view attribute, std::string_view text,
                const Directory* directory = nullptr) const;

   Value invoke(Node& node, std::string_view operation, std::span<const Value> arguments) const;

   /// Invokes with arguments as a person types them, by position.
   Value invokeText(Node& node, std::string_view operation, std::span<const String> arguments,
                    const Directory* directory = nullptr) const;

private:
   template <typename C>
   friend class TypeBuilder;

   const AttributeData& _attribute(std::string_view name) const;
   const AttributeData& _writable(std::string_view name) const;
   const AttributeData& _collection(std::string_view name) const;
   const OperationData& _operation(std::string_view name, std::size_t argumentCount) const;

   String _name;
   const TypeData* _base;
   std::vector<AttributeData> _attributes;
   std::vector<OperationData> _operations;
};

/// Reflection of a live node, by names: what a command line or another language calls.
namespace Reflect {
TARN_PLATFORM_API Value get(const Node& node, std::string_view attribute);
TARN_PLATFORM_API void set(Node& node, std::string_view attribute, const Value& value);
TARN_PLATFORM_API Value invoke(Node& node, std::string_view operation,
                               std::initializer_list<Value> arguments);
} // namespace Reflect

} // namespace Platform
