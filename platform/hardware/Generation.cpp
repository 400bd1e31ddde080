#include "platform/hardware/Generation.h"

#include "platform/entity/ValueSyntax.h"

namespace Hardware {

Generation::Generation(Platform::TextRange& range) {
   Platform::TextRange ahead = range;
   Platform::RecordReader(ahead, valueTypeName()).field("id", id).field("valid", valid).done();
   range = ahead;
}

String Generation::stringRep() const {
   return Platform::RecordWriter(valueTypeName()).field("id", id).field("valid", valid).done();
}

} // namespace Hardware
