#pragma once

#include <string>
#include <vector>

#include "platform/entity/TypeData.h"

namespace TestSupport {

/// The names of a type's own attributes, in order, "(rw)" behind those that can be set.
inline std::vector<std::string> reflectedAttributes(const Platform::TypeData& type) {
   std::vector<std::string> lines;
   for (const auto& attribute : type.attributes()) {
      lines.push_back(attribute.name + (attribute.writable() ? " (rw)" : ""));
   }
   return lines;
}

/// A type's own operations, in order, as "name(argument, argument)".
inline std::vector<std::string> reflectedOperations(const Platform::TypeData& type) {
   std::vector<std::string> lines;
   for (const auto& operation : type.operations()) {
      std::string line = operation.name + "(";
      for (const auto& argument : operation.arguments) {
         line += (line.back() == '(' ? "" : ", ") + argument.name;
      }
      lines.push_back(line + ")");
   }
   return lines;
}

} // namespace TestSupport
