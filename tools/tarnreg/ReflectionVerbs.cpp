#include <algorithm>
#include <array>
#include <cerrno>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <fmt/format.h>

#include "board/NearNames.h"
#include "platform/entity/Errors.h"
#include "platform/entity/TypeData.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/NamePattern.h"
#include "tools/tarnreg/Printable.h"
#include "tools/tarnreg/Verbs.h"

namespace TarnReg {

using Platform::TypeData;

namespace {

std::array<const TypeData*, 8> knownTypes() {
   return {&TarnRegFile::TransportMethod::staticType(),
           &TarnRegFile::TransportMethodError::staticType(),
           &TarnRegFile::BaseTransportDescriptor::staticType(),
           &TarnRegFile::RegFileHelper::staticType(),
           &TarnRegFile::RegList::staticType(),
           &TarnRegFile::RegListElement::staticType(),
           &TarnRegFile::AsyncHelperBase::staticType(),
           &Hardware::HardwareRegisterFile::staticType()};
}

/// A type is named in full, or by what stands after its namespace.
const TypeData* findType(const std::string& name) {
   for (const TypeData* type : knownTypes()) {
      const std::string_view full = type->name();
      if (full == name || full.substr(full.rfind(':') + 1) == name) {
         return type;
      }
   }
   return nullptr;
}

nlohmann::ordered_json typeJson(const TypeData& type) {
   nlohmann::ordered_json json;
   json["name"] = type.name();
   json["base"] = type.base() ? nlohmann::ordered_json(type.base()->name()) : nullptr;
   json["attributes"] = nlohmann::ordered_json::array();
   for (const auto& attribute : type.attributes()) {
      nlohmann::ordered_json row;
      row["name"] = attribute.name;
      row["type"] = attribute.type->name();
      if (attribute.collection()) {
         row["key"] = attribute.keyType->name();
      }
      row["writable"] = attribute.writable();
      json["attributes"].push_back(std::move(row));
   }
   json["operations"] = nlohmann::ordered_json::array();
   for (const auto& operation : type.operations()) {
      nlohmann::ordered_json row;
      row["name"] = operation.name;
      row["arguments"] = nlohmann::ordered_json::array();
      for (const auto& argument : operation.arguments) {
         row["arguments"].push_back({{"name", argument.name}, {"type", argument.type->name()}});
      }
      row["result"] = operation.result ? operation.result->name() : "void";
      json["operations"].push_back(std::move(row));
   }
   return json;
}

/// Prints the elements of an entity that holds collections; false when `result` is none.
bool printCollections(const Platform::Value& result, Report& report) {
   const Platform::Ptr<Platform::Node> node =
      result.empty() ? nullptr : result.type()->node(result.data());
   if (!node) {
      return false;
   }
   bool any = false;
   for (const auto& attribute : node->typeData().attributes()) {
      if (!attribute.collection()) {
         continue;
      }
      any = true;
      for (const Platform::Value& key : attribute.keys(*node)) {
         const std::string element = attribute.element(*node, key.data()).toString();
         report.row(printable(fmt::format("{}[{}]={}", attribute.name, key.toString(), element)),
                    {{"collection", attribute.name},
                     {"key", jsonText(key.toString())},
                     {"value", jsonText(element)}});
      }
   }
   return any;
}

/// A misspelt name is to be told before the access, not as its failure.
void requireRegister(Device& device, const Platform::OperationData& operation,
                     const std::vector<std::string>& arguments) {
   if (operation.name == "hasRegName") {
      return;
   }
   for (std::size_t i = 0; i < std::min(operation.arguments.size(), arguments.size()); ++i) {
      const std::string& argument = operation.arguments[i].name;
      if ((argument == "regName" || argument == "regArrayName") && !device.find(arguments[i])) {
         throwUnknown(device, arguments[i]);
      }
   }
}

} // namespace

std::vector<std::string> typeNames() {
   std::vector<std::string> names;
   for (const TypeData* type : knownTypes()) {
      const std::string_view full = type->name();
      names.emplace_back(full.substr(full.rfind(':') + 1));
   }
   return names;
}

std::vector<std::string> operationNames() {
   std::vector<std::string> names;
   for (const TypeData* type = &TarnRegFile::TransportMethod::staticType(); type;
        type = type->base()) {
      for (const auto& operation : type->operations()) {
         names.emplace_back(operation.name);
      }
   }
   return names;
}

void describeType(const std::string& name, Report& report) {
   if (name.empty()) {
      for (const TypeData* type : knownTypes()) {
         report.row(std::string(type->name()),
                    report.json() ? typeJson(*type) : nlohmann::ordered_json());
      }
      return;
   }
   const TypeData* type = findType(name);
   if (!type) {
      Board::NearNames near(name);
      for (const std::string& each : typeNames()) {
         near.add(each);
      }
      throw Failure(ExitCode::unknownName,
                    fmt::format("no type {}; describe without a name lists them{}", name,
                                Board::didYouMean(near.nearest())));
   }
   std::string text = type->describe();
   text.pop_back(); // the row ends the last line
   report.row(text, report.json() ? typeJson(*type) : nlohmann::ordered_json());
}

void callOperation(Device& device, const std::string& operation,
                   const std::vector<std::string>& arguments, Report& report) {
   TarnRegFile::TransportMethod& method = device.method();
   const Platform::OperationData* row = method.typeData().findOperation(operation);
   if (!row) {
      Board::NearNames near(operation);
      for (const std::string& each : operationNames()) {
         near.add(each);
      }
      throw Failure(ExitCode::unknownName,
                    fmt::format("no operation {}; describe TransportMethod lists them{}",
                                shownName(operation), Board::didYouMean(near.nearest())));
   }
   requireRegister(device, *row, arguments);
   if ((operation == "regReadArray" || operation == "regWriteArray") && !device.hasBlockAccess()) {
      throw Failure(ExitCode::deviceError,
                    fmt::format("cannot call {}: this transport has no block access", operation));
   }
   if (operation == "dumpAll" && device.isAsync()) {
      throw Failure(ExitCode::deviceError,
                    "cannot call dumpAll: the values of this transport arrive later; tarnreg dump "
                    "waits for them");
   }
   try {
      Platform::Value result;
      const auto call = [&] {
         result = method.typeData().invokeText(method, operation, arguments, nullptr);
      };
      const bool isRead = operation == "regRead";
      if (device.isAsync() && !arguments.empty() && (isRead || operation == "regWrite")) {
         // What it returns is not the register's value yet.
         const std::uint32_t value = device.submit(isRead, arguments[0], call);
         result = isRead ? Platform::Value::of(value) : Platform::Value();
      } else {
         device.access("call", operation, call);
      }
      if (printCollections(result, report)) {
         return;
      }
      if (!result.empty()) {
         nlohmann::ordered_json element;
         if (report.json()) {
            element["type"] = result.typeName();
            element["value"] = jsonText(result.toString());
         }
         report.row(printable(result.toString()), std::move(element));
      }
   } catch (const Platform::RangeError& error) {
      throw Failure(ExitCode::usage, error.what());
   } catch (const AccessError& error) {
      throw Failure(error.code(), error.what());
   } catch (const std::system_error& error) {
      throw Failure(error.code() == std::errc::no_such_file_or_directory ? ExitCode::unknownName
                                                                         : ExitCode::deviceError,
                    error.what());
   } catch (const std::runtime_error& error) {
      throw Failure(ExitCode::deviceError, error.what());
   }
}

} // namespace TarnReg
