#include "platform/entity/TypeData.h"

#include <algorithm>

#include <fmt/format.h>

#include "platform/entity/Errors.h"

namespace Platform {

namespace {

template <typename Row>
const Row* findRow(const std::vector<Row>& rows, std::string_view name) noexcept {
   const auto found =
      std::find_if(rows.begin(), rows.end(), [&](const Row& row) { return row.name == name; });
   return found == rows.end() ? nullptr : &*found;
}

/// Runs `convert`; an error is rethrown with where it belongs in front.
template <typename Convert>
std::any converted(const String& where, Convert&& convert) {
   try {
      return convert();
   } catch (const RangeError& error) {
      throw RangeError(fmt::format("{}: {}", where, error.what()));
   }
}

void describeOwn(const TypeData& type, String& out) {
   for (const AttributeData& attribute : type.attributes()) {
      if (attribute.collection()) {
         out += fmt::format("  attribute {}: collection of {} by {}\n", attribute.name,
                            attribute.type->name(), attribute.keyType->name());
      } else {
         out += fmt::format("  attribute {}: {}, {}\n", attribute.name, attribute.type->name(),
                            attribute.writable() ? "read-write" : "read-only");
      }
   }
   for (const OperationData& operation : type.operations()) {
      out += fmt::format("  operation {}\n", operation.signature());
   }
}

} // namespace

String OperationData::signature() const {
   String out = name + "(";
   const char* separator = "";
   for (const ArgumentData& argument : arguments) {
      out += fmt::format("{}{}: {}", separator, argument.name, argument.type->name());
      separator = ", ";
   }
   out += ")";
   if (result) {
      out += " -> " + result->name();
   }
   return out;
}

const AttributeData* TypeData::findAttribute(std::string_view name) const noexcept {
   const AttributeData* own = findRow(_attributes, name);
   return own || !_base ? own : _base->findAttribute(name);
}

const OperationData* TypeData::findOperation(std::string_view name) const noexcept {
   const OperationData* own = findRow(_operations, name);
   return own || !_base ? own : _base->findOperation(name);
}

bool TypeData::isA(const TypeData& other) const noexcept {
   return this == &other || (_base && _base->isA(other));
}

String TypeData::describe() const {
   String out = "type " + _name;
   if (_base) {
      out += " : " + _base->_name;
   }
   out += "\n";
   std::vector<const TypeData*> chain;
   for (const TypeData* type = this; type; type = type->_base) {
      chain.push_back(type);
   }
   for (auto type = chain.rbegin(); type != chain.rend(); ++type) {
      describeOwn(**type, out);
   }
   return out;
}

const AttributeData& TypeData::_attribute(std::string_view name) const {
   const AttributeData* attribute = findAttribute(name);
   if (!attribute) {
      throw RangeError(fmt::format("{} has no attribute {}", _name, quote(name)));
   }
   return *attribute;
}

const AttributeData& TypeData::_writable(std::string_view name) const {
   const AttributeData& attribute = _attribute(name);
   if (!attribute.writable()) {
      throw RangeError(fmt::format("{}::{} is read-only", _name, name));
   }
   return attribute;
}

const AttributeData& TypeData::_collection(std::string_view name) const {
   const AttributeData& attribute = _attribute(name);
   if (!attribute.collection()) {
      throw RangeError(fmt::format("{}::{} is not a collection", _name, name));
   }
   return attribute;
}

const OperationData& TypeData::_operation(std::string_view name, std::size_t argumentCount) const {
   const OperationData* operation = findOperation(name);
   if (!operation) {
      throw RangeError(fmt::format("{} has no operation {}", _name, quote(name)));
   }
   if (operation->arguments.size() != argumentCount) {
      throw RangeError(fmt::format("{}::{} takes {} argument{}, {} given", _name,
                                   operation->signature(), operation->arguments.size(),
                                   operation->arguments.size() == 1 ? "" : "s", argumentCount));
   }
   return *operation;
}

Value TypeData::get(const Node& node, std::string_view attribute) const {
   const AttributeData& row = _attribute(attribute);
   if (row.collection()) {
      throw RangeError(
         fmt::format("{}::{} is a collection; it is read at a key", _name, attribute));
   }
   return row.get(node);
}

Value TypeData::getAt(const Node& node, std::string_view collection, const Value& key) const {
   const AttributeData& row = _collection(collection);
   return row.element(node, converted(fmt::format("{}::{}: key", _name, collection),
                                      [&] { return row.keyType->convert(key); }));
}

std::vector<Value> TypeData::keys(const Node& node, std::string_view collection) const {
   return _collection(collection).keys(node);
}

void TypeData::set(Node& node, std::string_view attribute, const Value& value) const {
   const AttributeData& row = _writable(attribute);
   row.set(node, converted(fmt::format("{}::{}", _name, attribute),
                           [&] { return row.type->convert(value); }));
}

void TypeData::setText(Node& node, std::string_view attribute, std::string_view text,
                       const Directory* directory) const {
   const AttributeData& row = _writable(attribute);
   row.set(node, converted(fmt::format("{}::{}", _name, attribute),
                           [&] { return row.type->fromText(text, directory); }));
}

Value TypeData::invoke(Node& node, std::string_view operation,
                       std::span<const Value> arguments) const {
   const OperationData& row = _operation(operation, arguments.size());
   std::vector<std::any> typed;
   for (std::size_t i = 0; i < arguments.size(); ++i) {
      typed.push_back(converted(
         fmt::format("{}::{}: argument {}", _name, operation, quote(row.arguments[i].name)),
         [&] { return row.arguments[i].type->convert(arguments[i]); }));
   }
   return row.call(node, typed);
}

Value TypeData::invokeText(Node& node, std::string_view operation,
                           std::span<const String> arguments, const Directory* directory) const {
   const OperationData& row = _operation(operation, arguments.size());
   std::vector<std::any> typed;
   for (std::size_t i = 0; i < arguments.size(); ++i) {
      typed.push_back(converted(
         fmt::format("{}::{}: argument {}", _name, operation, quote(row.arguments[i].name)),
         [&] { return row.arguments[i].type->fromText(arguments[i], directory); }));
   }
   return row.call(node, typed);
}

namespace Reflect {

Value get(const Node& node, std::string_view attribute) {
   return node.typeData().get(node, attribute);
}

void set(Node& node, std::string_view attribute, const Value& value) {
   node.typeData().set(node, attribute, value);
}

Value invoke(Node& node, std::string_view operation, std::initializer_list<Value> arguments) {
   return node.typeData().invoke(node, operation, std::span(arguments.begin(), arguments.size()));
}

} // namespace Reflect

} // namespace Platform
