#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <utility>

#include "platform/entity/Export.h"
#include "platform/entity/LittleEndian.h"
#include "platform/entity/TextRange.h"
#include "platform/entity/Types.h"
#include "platform/entity/WireMessage.h"

namespace Platform {

/// The identity of something that several processes speak of: 64 bits, of which 0 means none. A
/// plain value.
///
/// String form: a number, written as 0x and sixteen hexadecimal digits; read in any base.
///
/// Stored form: eight bytes, least significant first.
///
/// Protobuf form, as in
///
///    message UniqueId {
///      fixed64 value = 1;
///    }
///
/// Fixed, since ids are spread over all 64 bits, where a varint would take ten bytes. The field is
/// written for none as well. See WireMessage for the operations.
class TARN_PLATFORM_API UniqueId : public WireMessage<UniqueId> {
public:
   /// None.
   constexpr UniqueId() noexcept = default;
   constexpr explicit UniqueId(std::uint64_t value) noexcept : _value(value) {}

   /// Reads the string form off the front of `range`. Throws RangeError, `range` then unchanged.
   explicit UniqueId(TextRange& range);

   /// An id that this process has not had before, never none. Ids of one process follow each other
   /// from a place that is drawn at random, anew in a forked child, so that those of other
   /// processes meet them by a chance of the order of 2^-64 only. Any thread; does not wait.
   ///
   /// Throws ErrnoException if the system has no random number for the first one.
   static UniqueId fresh();

   constexpr std::uint64_t value() const noexcept { return _value; }

   /// True if this is an id, false for none.
   constexpr explicit operator bool() const noexcept { return _value != 0; }

   // NOLINTNEXTLINE(modernize-use-nullptr): there is none in it.
   friend constexpr auto operator<=>(const UniqueId&, const UniqueId&) = default;

   template <typename H>
   friend H AbslHashValue(H state, const UniqueId& id) {
      return H::combine(std::move(state), id._value);
   }

   static constexpr std::string_view valueTypeName() noexcept { return "Platform::UniqueId"; }
   String stringRep() const;

   static constexpr std::size_t serializedLen = 8;
   void serialize(std::uint8_t* buffer) const noexcept { LittleEndian::store64(buffer, _value); }
   static UniqueId deserialized(const std::uint8_t* buffer) noexcept {
      return UniqueId(LittleEndian::load64(buffer));
   }

   std::size_t messageLen() const noexcept;
   void writeFields(Wire::OutputStream& stream) const;
   void readMessageField(std::uint32_t tag, Wire::InputStream& stream);

private:
   std::uint64_t _value = 0;
};

} // namespace Platform

template <>
struct std::hash<Platform::UniqueId> {
   std::size_t operator()(const Platform::UniqueId& id) const noexcept {
      return std::hash<std::uint64_t>{}(id.value());
   }
};
