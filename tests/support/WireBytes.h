#pragma once

#include <cstdint>
#include <string>

#include "platform/entity/Types.h"
#include "platform/entity/WireFormat.h"

namespace TestSupport {

/// Bytes of protobuf's wire format, put together field by field, well formed or not.
class WireBytes {
public:
   WireBytes& rawVarint(std::uint64_t value) {
      for (; value >= 0x80; value >>= 7) {
         _bytes.push_back(static_cast<std::uint8_t>(value | 0x80));
      }
      _bytes.push_back(static_cast<std::uint8_t>(value));
      return *this;
   }

   WireBytes& raw(const Platform::Bytes& bytes) {
      _bytes.insert(_bytes.end(), bytes.begin(), bytes.end());
      return *this;
   }
   WireBytes& raw(const std::string& bytes) {
      _bytes.insert(_bytes.end(), bytes.begin(), bytes.end());
      return *this;
   }
   WireBytes& raw(const WireBytes& other) { return raw(other._bytes); }

   WireBytes& tag(std::uint64_t field, unsigned type) { return rawVarint(field << 3 | type); }

   WireBytes& varint(std::uint64_t field, std::uint64_t value) {
      return tag(field, 0).rawVarint(value);
   }
   WireBytes& fixed64(std::uint64_t field, std::uint64_t value) {
      return tag(field, 1)._little(value, 8);
   }
   WireBytes& fixed32(std::uint64_t field, std::uint32_t value) {
      return tag(field, 5)._little(value, 4);
   }

   /// A string, bytes or message.
   WireBytes& section(std::uint64_t field, const WireBytes& content) {
      return tag(field, 2).rawVarint(content._bytes.size()).raw(content);
   }
   WireBytes& group(std::uint64_t field, const WireBytes& content) {
      return tag(field, 3).raw(content).tag(field, 4);
   }

   /// All of it behind its length.
   Platform::Bytes prefixed() const {
      return WireBytes().rawVarint(_bytes.size()).raw(*this)._bytes;
   }

   const Platform::Bytes& bytes() const { return _bytes; }

private:
   WireBytes& _little(std::uint64_t value, int count) {
      for (; count > 0; --count, value >>= 8) {
         _bytes.push_back(static_cast<std::uint8_t>(value));
      }
      return *this;
   }

   Platform::Bytes _bytes;
};

} // namespace TestSupport
