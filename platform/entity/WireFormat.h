#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/entity/Export.h"

// Named only: whoever reads or writes a stream includes protobuf's header, whoever includes this
// one does not have to.
namespace google::protobuf::io {
class CodedInputStream;
class CodedOutputStream;
} // namespace google::protobuf::io

/// What records need that read and write protobuf's wire format themselves, because their messages
/// are part of a protocol and must come out byte for byte the same.
///
/// Everything that reads throws MessageError when the bytes are not what was asked for: another
/// wire type, a length that runs past what encloses it, an end in the middle. The stream's
/// position is then anywhere. A stream is used by one thread at a time.
namespace Platform::Wire {

using InputStream = google::protobuf::io::CodedInputStream;
using OutputStream = google::protobuf::io::CodedOutputStream;

enum class Type : std::uint8_t {
   varint = 0,
   fixed64 = 1,
   lengthDelimited = 2,
   startGroup = 3,
   endGroup = 4,
   fixed32 = 5,
};

/// What goes before a field: its number and its wire type.
constexpr std::uint32_t tagOf(std::uint32_t field, Type type) noexcept {
   return field << 3 | static_cast<std::uint32_t>(type);
}
constexpr std::uint32_t fieldOf(std::uint32_t tag) noexcept {
   return tag >> 3;
}
constexpr Type typeOf(std::uint32_t tag) noexcept {
   return static_cast<Type>(tag & 7);
}

/// Bytes that `value` takes as a varint.
constexpr std::size_t varintLen(std::uint64_t value) noexcept {
   std::size_t length = 1;
   for (; value >= 0x80; value >>= 7) {
      ++length;
   }
   return length;
}

/// Throws if `tag` is not of wire type `type`.
TARN_PLATFORM_API void requireType(std::uint32_t tag, Type type);

/// Reads the content of the field whose tag was read. The 32-bit one keeps the lower half of a
/// longer varint, as protobuf does for its 32-bit fields.
TARN_PLATFORM_API std::uint32_t readVarint32(std::uint32_t tag, InputStream& stream);
TARN_PLATFORM_API std::uint64_t readVarint64(std::uint32_t tag, InputStream& stream);
TARN_PLATFORM_API std::uint64_t readFixed64(std::uint32_t tag, InputStream& stream);

/// Reads over the content of the field whose tag was read, whatever its type. Groups may be nested
/// as deep as the stream allows.
TARN_PLATFORM_API void skipField(std::uint32_t tag, InputStream& stream);

/// A message, or part of one, behind a varint that says how many bytes it has:
///
///    Wire::Section message(stream);
///    while (const std::uint32_t tag = message.nextTag()) { ... }
///
/// Reads the length when made, and throws if there is less. Nothing beyond it can be read while
/// the section exists.
class TARN_PLATFORM_API Section {
public:
   explicit Section(InputStream& stream);
   ~Section();
   Section(const Section&) = delete;
   Section& operator=(const Section&) = delete;

   /// The next field's tag, 0 at the end of the section. The field before it must have been read.
   std::uint32_t nextTag();

private:
   InputStream& _stream;
   int _outerLimit;
};

} // namespace Platform::Wire
