#include "platform/hardware/CoreRegisterDescriptor.h"

#include "platform/entity/ValueSyntax.h"

namespace Hardware {

CoreRegisterDescriptor::CoreRegisterDescriptor(Platform::TextRange& range) {
   Platform::TextRange ahead = range;
   Platform::RecordReader(ahead, valueTypeName())
      .field("address", address)
      .field("notWritable", notWritable)
      .done();
   range = ahead;
}

String CoreRegisterDescriptor::stringRep() const {
   return Platform::RecordWriter(valueTypeName())
      .field("address", address)
      .field("notWritable", notWritable)
      .done();
}

} // namespace Hardware
