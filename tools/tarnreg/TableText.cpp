#include "tools/tarnreg/TableText.h"

#include <algorithm>

#include <fmt/format.h>

#include "platform/entity/UniqueId.h"
#include "TarnRegFile/CoreRegister.h"
#include "TarnRegFile/OrderedRegisterOp.h"

namespace TarnReg {

namespace {

using namespace TarnRegFile::Sable;

std::string hexText(std::span<const std::uint8_t> bytes) {
   std::string text;
   for (const std::uint8_t byte : bytes) {
      text += fmt::format("{:02x}", byte);
   }
   return text;
}

/// The record, or none if the bytes are none: of a stored form that others wrote.
bool operationOf(std::span<const std::uint8_t> bytes, OrderedRegisterOp& operation) {
   if (OrderedRegisterOp::storedLen(bytes) == 0) {
      return false;
   }
   operation.deserialize(bytes.data(), bytes.size());
   return true;
}

std::string operationText(const OrderedRegisterOp& operation) {
   std::string text = fmt::format("size {}", operation.opSize());
   const std::size_t count = std::max(operation.regKeys().size(), operation.regValues().size());
   for (std::size_t i = 0; i < count; ++i) {
      text += i < operation.regKeys().size()
                 ? fmt::format("  {:#x}", operation.regKeys()[i].address())
                 : std::string("  ?");
      text += i < operation.regValues().size() ? fmt::format("={:#x}", operation.regValues()[i])
                                               : std::string("=?");
   }
   return text;
}

} // namespace

TableText::TableText(const Platform::Tables::TableShape& shape) : _kind(Kind::other) {
   if (shape.recordType == CoreRegister::valueTypeName() &&
       shape.recordSize == CoreRegister::maxSerializedLen) {
      _kind = Kind::registers;
   } else if (shape.recordType == OrderedRegisterOp::valueTypeName() &&
              shape.recordSize == OrderedRegisterOp::maxSerializedLen) {
      _kind = Kind::operations;
   }
}

std::string TableText::key(std::span<const std::uint8_t> bytes) const {
   if (_kind == Kind::registers && bytes.size() == CoreRegisterKey::serializedLen) {
      return fmt::format("{:#x}", CoreRegisterKey::deserialized(bytes.data()).address());
   }
   if (_kind == Kind::operations && bytes.size() == Platform::UniqueId::serializedLen) {
      return fmt::format("{:#018x}", Platform::UniqueId::deserialized(bytes.data()).value());
   }
   return hexText(bytes);
}

std::string TableText::record(std::span<const std::uint8_t> bytes) const {
   if (_kind == Kind::registers && bytes.size() == CoreRegister::maxSerializedLen) {
      CoreRegister record;
      record.deserialize(bytes.data(), bytes.size());
      return fmt::format("{:#x}", record.value());
   }
   OrderedRegisterOp operation;
   if (_kind == Kind::operations && operationOf(bytes, operation)) {
      return operationText(operation);
   }
   return hexText(bytes);
}

nlohmann::ordered_json TableText::keyJson(std::span<const std::uint8_t> bytes) const {
   if (_kind == Kind::registers && bytes.size() == CoreRegisterKey::serializedLen) {
      return {{"address", CoreRegisterKey::deserialized(bytes.data()).address()}};
   }
   return {{"key", key(bytes)}};
}

nlohmann::ordered_json TableText::recordJson(std::span<const std::uint8_t> bytes) const {
   if (_kind == Kind::registers && bytes.size() == CoreRegister::maxSerializedLen) {
      CoreRegister record;
      record.deserialize(bytes.data(), bytes.size());
      return {{"value", record.value()}};
   }
   OrderedRegisterOp operation;
   if (_kind == Kind::operations && operationOf(bytes, operation)) {
      nlohmann::ordered_json registers = nlohmann::ordered_json::array();
      for (const CoreRegisterKey key : operation.regKeys()) {
         registers.push_back(key.address());
      }
      nlohmann::ordered_json values = nlohmann::ordered_json::array();
      for (const std::uint32_t value : operation.regValues()) {
         values.push_back(value);
      }
      return {{"size", operation.opSize()}, {"registers", registers}, {"values", values}};
   }
   return {{"record", hexText(bytes)}};
}

} // namespace TarnReg
