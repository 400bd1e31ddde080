#include "TarnRegFile/CoreRegisterKey.h"

#include <google/protobuf/io/coded_stream.h>

#include "platform/entity/ValueSyntax.h"

namespace TarnRegFile::Sable {

namespace Wire = Platform::Wire;

namespace {

constexpr std::uint32_t addressTag = Wire::tagOf(599, Wire::Type::varint);

} // namespace

CoreRegisterKey::CoreRegisterKey(Platform::TextRange& range) {
   Platform::TextRange ahead = range;
   if (ahead.rest().starts_with("Value(")) {
      Platform::RecordReader(ahead, valueTypeName()).field("address", _address).done();
   } else {
      _address = Platform::ValueTraits<std::uint32_t>::read(ahead);
   }
   range = ahead;
}

String CoreRegisterKey::stringRep() const {
   return Platform::RecordWriter(valueTypeName()).field("address", _address).done();
}

std::size_t CoreRegisterKey::messageLen() const noexcept {
   return Wire::varintLen(addressTag) + Wire::varintLen(_address);
}

void CoreRegisterKey::writeFields(Wire::OutputStream& stream) const {
   stream.WriteTag(addressTag);
   stream.WriteVarint32(_address);
}

void CoreRegisterKey::readMessageField(std::uint32_t tag, Wire::InputStream& stream) {
   if (Wire::fieldOf(tag) == Wire::fieldOf(addressTag)) {
      _address = Wire::readVarint32(tag, stream);
   } else {
      Wire::skipField(tag, stream);
   }
}

} // namespace TarnRegFile::Sable
