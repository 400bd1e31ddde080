#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <utility>

#include "platform/entity/LittleEndian.h"
#include "platform/entity/TextRange.h"
#include "platform/entity/WireMessage.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile::Sable {

/// Which register of a core: its address. A plain value; keys are in the order of the addresses.
///
/// String form: Value('TarnRegFile::Sable::CoreRegisterKey', address=16); the bare number of an
/// address is read as well.
///
/// Stored form: four bytes, least significant first.
///
/// Protobuf form, the field written for address 0 as well, as in
///
///    message CoreRegisterKey {
///      uint32 address = 599;
///    }
class TARN_API CoreRegisterKey : public Platform::WireMessage<CoreRegisterKey> {
public:
   constexpr CoreRegisterKey() noexcept = default;
   constexpr explicit CoreRegisterKey(std::uint32_t address) noexcept : _address(address) {}

   /// Reads a string form off the front of `range`. Throws RangeError, `range` then unchanged.
   explicit CoreRegisterKey(Platform::TextRange& range);

   constexpr std::uint32_t address() const noexcept { return _address; }

   // NOLINTNEXTLINE(modernize-use-nullptr): there is none in it.
   friend constexpr auto operator<=>(const CoreRegisterKey&, const CoreRegisterKey&) = default;

   template <typename H>
   friend H AbslHashValue(H state, const CoreRegisterKey& key) {
      return H::combine(std::move(state), key._address);
   }

   static constexpr std::string_view valueTypeName() noexcept {
      return "TarnRegFile::Sable::CoreRegisterKey";
   }
   String stringRep() const;

   static constexpr std::size_t serializedLen = 4;
   void serialize(std::uint8_t* buffer) const noexcept {
      Platform::LittleEndian::store32(buffer, _address);
   }
   static CoreRegisterKey deserialized(const std::uint8_t* buffer) noexcept {
      return CoreRegisterKey(Platform::LittleEndian::load32(buffer));
   }

   std::size_t messageLen() const noexcept;
   void writeFields(Platform::Wire::OutputStream& stream) const;
   void readMessageField(std::uint32_t tag, Platform::Wire::InputStream& stream);

private:
   std::uint32_t _address = 0;
};

} // namespace TarnRegFile::Sable

template <>
struct std::hash<TarnRegFile::Sable::CoreRegisterKey> {
   std::size_t operator()(const TarnRegFile::Sable::CoreRegisterKey& key) const noexcept {
      return std::hash<std::uint32_t>{}(key.address());
   }
};
