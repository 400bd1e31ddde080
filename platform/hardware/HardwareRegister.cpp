#include "platform/hardware/HardwareRegister.h"

#include "platform/entity/ValueSyntax.h"

namespace Hardware {

HardwareRegister::HardwareRegister(Platform::TextRange& range) {
   Platform::TextRange ahead = range;
   Platform::RecordReader(ahead, valueTypeName())
      .field("name", name)
      .field("address", address)
      .field("width", width)
      .field("arraySize", arraySize)
      .field("accessWidth", accessWidth)
      .field("type", type)
      .field("writable", writable)
      .done();
   range = ahead;
}

bool HardwareRegister::isEq(const HardwareRegister& other) const noexcept {
   return address == other.address && width == other.width && arraySize == other.arraySize &&
          accessWidth == other.accessWidth && type == other.type && writable == other.writable &&
          name == other.name;
}

HardwareRegisterType HardwareRegister::regTypeFromString(std::string_view name) noexcept {
   for (const auto& entry : Platform::EnumTraits<HardwareRegisterType>::entries) {
      if (entry.name == name) {
         return static_cast<HardwareRegisterType>(entry.value);
      }
   }
   return HardwareRegisterType::unknown;
}

std::string_view HardwareRegister::regTypeToString(HardwareRegisterType type) noexcept {
   for (const auto& entry : Platform::EnumTraits<HardwareRegisterType>::entries) {
      if (entry.value == static_cast<std::uint32_t>(type)) {
         return entry.name;
      }
   }
   return "unknown";
}

String HardwareRegister::stringRep() const {
   return Platform::RecordWriter(valueTypeName())
      .field("name", name)
      .field("address", address)
      .field("width", width)
      .field("arraySize", arraySize)
      .field("accessWidth", accessWidth)
      .field("type", type)
      .field("writable", writable)
      .done();
}

} // namespace Hardware
