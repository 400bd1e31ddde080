#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/entity/LittleEndian.h"
#include "platform/entity/TextRange.h"
#include "TarnRegFile/CoreRegisterKey.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile::Sable {

/// A register of a core and its value: the record of the shadow tables. A plain value.
///
/// String form: Value('TarnRegFile::Sable::CoreRegister', key=..., value=5).
///
/// Stored form: eight bytes, the key's four and the value's, least significant first.
class TARN_API CoreRegister {
public:
   constexpr CoreRegister() noexcept = default;
   constexpr explicit CoreRegister(CoreRegisterKey key, std::uint32_t value = 0) noexcept
      : _key(key), _value(value) {}

   /// Reads the string form off the front of `range`. Throws RangeError, `range` then unchanged.
   explicit CoreRegister(Platform::TextRange& range);

   constexpr CoreRegisterKey key() const noexcept { return _key; }
   constexpr std::uint32_t value() const noexcept { return _value; }
   constexpr void valueIs(std::uint32_t value) noexcept { _value = value; }

   friend constexpr bool operator==(const CoreRegister&, const CoreRegister&) = default;

   static constexpr std::string_view valueTypeName() noexcept {
      return "TarnRegFile::Sable::CoreRegister";
   }
   String stringRep() const;

   static constexpr std::size_t maxSerializedLen = CoreRegisterKey::serializedLen + 4;

   std::size_t serializeLen() const noexcept { return maxSerializedLen; }

   /// Writes serializeLen() bytes.
   void serialize(std::uint8_t* buffer) const noexcept {
      _key.serialize(buffer);
      Platform::LittleEndian::store32(buffer + CoreRegisterKey::serializedLen, _value);
   }

   /// Bytes of the record at the front of a buffer of `length` bytes, 0 if there is none.
   static std::size_t deserializeLen(const std::uint8_t*, std::size_t length) noexcept {
      return length >= maxSerializedLen ? maxSerializedLen : 0;
   }

   /// Reads what serialize() wrote. Throws Platform::RangeError, the record then unchanged, if
   /// `length` is too short.
   void deserialize(const std::uint8_t* buffer, std::size_t length) {
      if (length < maxSerializedLen) [[unlikely]] {
         _throwTooShort(length);
      }
      _key = CoreRegisterKey::deserialized(buffer);
      _value = Platform::LittleEndian::load32(buffer + CoreRegisterKey::serializedLen);
   }

private:
   [[noreturn]] static void _throwTooShort(std::size_t length);

   CoreRegisterKey _key;
   std::uint32_t _value = 0;
};

} // namespace TarnRegFile::Sable
