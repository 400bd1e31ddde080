#include "TarnRegFile/CoreRegister.h"

#include <fmt/format.h>

#include "platform/entity/ValueSyntax.h"

namespace TarnRegFile::Sable {

CoreRegister::CoreRegister(Platform::TextRange& range) {
   Platform::TextRange ahead = range;
   Platform::RecordReader(ahead, valueTypeName()).field("key", _key).field("value", _value).done();
   range = ahead;
}

String CoreRegister::stringRep() const {
   return Platform::RecordWriter(valueTypeName()).field("key", _key).field("value", _value).done();
}

void CoreRegister::_throwTooShort(std::size_t length) {
   throw Platform::RangeError(
      fmt::format("stored CoreRegister takes {} bytes, there are {}", maxSerializedLen, length));
}

} // namespace TarnRegFile::Sable
