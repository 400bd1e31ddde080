#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/entity/Export.h"
#include "platform/entity/Types.h"
#include "platform/entity/WireFormat.h"

namespace Platform {

namespace Detail {

/// Appends what `write` puts on a stream: `length` bytes, behind a varint of that length if
/// `isPrefixed`.
TARN_PLATFORM_API void appendMessage(Bytes& out, std::size_t length, bool isPrefixed,
                                     const void* record,
                                     void (*write)(const void* record, Wire::OutputStream& stream));

TARN_PLATFORM_API void writeLength(std::size_t length, Wire::OutputStream& stream);

/// Has `read` read from a stream over `bytes`, and returns how many of them it took.
TARN_PLATFORM_API std::size_t readBytes(std::span<const std::uint8_t> bytes, void* record,
                                        void (*read)(void* record, Wire::InputStream& stream));

} // namespace Detail

/// Gives a record the operations of its protobuf form, on streams and on bytes. The record, which
/// derives from this, has three members itself:
///
///    std::size_t messageLen() const;                     // bytes of the message, without prefix
///    void writeFields(Wire::OutputStream& stream) const; // writes exactly those
///    void readMessageField(std::uint32_t tag, Wire::InputStream& stream);
///                                   // reads one field whose tag was read, into the record; skips
///                                   // one it does not know; throws before it changes anything
///
/// A stream's own failure to write is for its owner to see (HadError()).
template <typename Record>
class WireMessage {
public:
   /// Writes the message bare: for whoever knows by other means where it ends.
   void writeMessage(Wire::OutputStream& stream) const { _record().writeFields(stream); }

   /// Writes the message behind a varint of its length, the form that readMessage() takes.
   void writePbMessage(Wire::OutputStream& stream) const {
      Detail::writeLength(_record().messageLen(), stream);
      _record().writeFields(stream);
   }

   /// Likewise, behind what `out` holds already.
   void writeMessage(Bytes& out) const { _append(out, false); }
   void writePbMessage(Bytes& out) const { _append(out, true); }

   /// Reads a message behind its length. What it has replaces what the record had; what it has not
   /// stays. Throws MessageError, or what a value that is read does not allow (RangeError); the
   /// record is then what it was before.
   void readMessage(Wire::InputStream& stream) {
      Record read = _record();
      Wire::Section message(stream);
      while (const std::uint32_t tag = message.nextTag()) {
         read.readMessageField(tag, stream);
      }
      _record() = read;
   }

   /// Likewise from the front of `bytes`. Returns how many of them the message and its length are.
   std::size_t readMessage(std::span<const std::uint8_t> bytes) {
      return Detail::readBytes(bytes, &_record(), [](void* record, Wire::InputStream& stream) {
         static_cast<Record*>(record)->readMessage(stream);
      });
   }

   /// A new record, from a message behind its length. Throws as readMessage().
   static Record constructFromPbMessage(Wire::InputStream& stream) {
      Record record;
      record.readMessage(stream);
      return record;
   }

   /// Likewise from the front of `bytes`; what is behind the message is not looked at.
   static Record constructFromPbMessage(std::span<const std::uint8_t> bytes) {
      Record record;
      record.readMessage(bytes);
      return record;
   }

   friend constexpr auto operator<=>(const WireMessage&, const WireMessage&) = default;

protected:
   constexpr WireMessage() = default;

private:
   const Record& _record() const noexcept { return static_cast<const Record&>(*this); }
   Record& _record() noexcept { return static_cast<Record&>(*this); }

   void _append(Bytes& out, bool isPrefixed) const {
      Detail::appendMessage(out, _record().messageLen(), isPrefixed, &_record(),
                            [](const void* record, Wire::OutputStream& stream) {
                               static_cast<const Record*>(record)->writeFields(stream);
                            });
   }
};

} // namespace Platform
