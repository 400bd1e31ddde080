#include "TarnRegFile/OpIndex.h"

#include "platform/entity/Errors.h"
#include "platform/entity/ValueTraits.h"

namespace TarnRegFile::Sable {

OpIndex::OpIndex(Platform::TextRange& range) {
   Platform::TextRange ahead = range;
   // Wider than an index, so that all numbers outside of the range are told alike.
   _value = OpIndex(Platform::ValueTraits<std::int64_t>::read(ahead))._value;
   range = ahead;
}

void OpIndex::_throwOutOfRange() {
   throw Platform::RangeError(
      "TarnRegFile::Sable::OpIndex::value < TarnRegFile::Sable::OpIndex::min or > "
      "TarnRegFile::Sable::OpIndex::max not allowed");
}

} // namespace TarnRegFile::Sable
