#include "platform/entity/WireFormat.h"

#include <limits>

#include <google/protobuf/io/coded_stream.h>

#include "platform/entity/Errors.h"

namespace Platform::Wire {

namespace {

[[noreturn]] void fail() {
   throw MessageError("Unexpected error when reading Protobuf bytes");
}

void require(bool readWell) {
   if (!readWell) {
      fail();
   }
}

/// Neither ReadTag's answer at the end, which is that of a tag of 0, nor its cutting off of what
/// is beyond 32 bits would do.
std::uint32_t readTag(InputStream& stream) {
   std::uint64_t tag = 0;
   require(stream.ReadVarint64(&tag) && tag <= std::numeric_limits<std::uint32_t>::max() &&
           tag >= tagOf(1, Type::varint));
   return static_cast<std::uint32_t>(tag);
}

void skipGroup(std::uint32_t field, InputStream& stream) {
   require(stream.IncrementRecursionDepth());
   while (true) {
      const std::uint32_t tag = readTag(stream);
      if (typeOf(tag) == Type::endGroup) {
         require(fieldOf(tag) == field);
         stream.DecrementRecursionDepth();
         return;
      }
      skipField(tag, stream);
   }
}

} // namespace

void requireType(std::uint32_t tag, Type type) {
   require(typeOf(tag) == type);
}

std::uint32_t readVarint32(std::uint32_t tag, InputStream& stream) {
   return static_cast<std::uint32_t>(readVarint64(tag, stream));
}

std::uint64_t readVarint64(std::uint32_t tag, InputStream& stream) {
   requireType(tag, Type::varint);
   std::uint64_t value = 0;
   require(stream.ReadVarint64(&value));
   return value;
}

std::uint64_t readFixed64(std::uint32_t tag, InputStream& stream) {
   requireType(tag, Type::fixed64);
   std::uint64_t value = 0;
   require(stream.ReadLittleEndian64(&value));
   return value;
}

void skipField(std::uint32_t tag, InputStream& stream) {
   switch (typeOf(tag)) {
   case Type::varint: {
      std::uint64_t ignored = 0;
      return require(stream.ReadVarint64(&ignored));
   }
   case Type::fixed64:
      return require(stream.Skip(8));
   case Type::lengthDelimited: {
      int length = 0;
      return require(stream.ReadVarintSizeAsInt(&length) && stream.Skip(length));
   }
   case Type::startGroup:
      return skipGroup(fieldOf(tag), stream);
   case Type::fixed32:
      return require(stream.Skip(4));
   case Type::endGroup:
      break;
   }
   fail();
}

Section::Section(InputStream& stream) : _stream(stream), _outerLimit(0) {
   int length = 0;
   require(stream.ReadVarintSizeAsInt(&length));
   // A limit beyond the one in force would be passed over in silence. Without one, -1, too little
   // is noticed where the stream ends.
   const int left = stream.BytesUntilLimit();
   require(left < 0 || length <= left);
   _outerLimit = stream.PushLimit(length);
}

Section::~Section() {
   _stream.PopLimit(_outerLimit);
}

std::uint32_t Section::nextTag() {
   return _stream.BytesUntilLimit() == 0 ? 0 : readTag(_stream);
}

} // namespace Platform::Wire
