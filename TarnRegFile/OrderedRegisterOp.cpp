#include "TarnRegFile/OrderedRegisterOp.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>
#include <google/protobuf/io/coded_stream.h>

#include "platform/entity/Errors.h"
#include "platform/entity/Fatal.h"
#include "platform/entity/LittleEndian.h"

namespace TarnRegFile::Sable {

namespace LittleEndian = Platform::LittleEndian;
namespace Wire = Platform::Wire;
using Platform::RangeError;

namespace {

constexpr const char* noString =
   "\"No String constructor for OrderedRegisterOp - has collection\" == nullptr";
constexpr const char* noStringHere = "No String constructor for OrderedRegisterOp - has collection";
constexpr const char* noElement = "OrderedRegisterOp has no element {} where it has {}";
constexpr const char* noPosition = "iterator is at no element of the OrderedRegisterOp";
constexpr const char* badCount = "OrderedRegisterOp has {} elements of {}, more than {}";
constexpr const char* tooShort = "stored OrderedRegisterOp takes {} bytes or more, there are {}";
constexpr const char* opSizeOutOfRange =
   "TarnRegFile::Sable::OrderedRegisterOp::opSize > 255 not allowed";

// Where things are in the stored form. The count of values is behind the registers.
constexpr std::size_t opSizeAt = 8;
constexpr std::size_t keyCountAt = 12;
constexpr std::size_t keysAt = 16;
constexpr std::size_t countLen = 4;
constexpr std::size_t elementLen = 4;

constexpr std::uint32_t keyTag = Wire::tagOf(15702, Wire::Type::lengthDelimited);
constexpr std::uint32_t opSizeTag = Wire::tagOf(11891, Wire::Type::varint);
constexpr std::uint32_t regKeyTag = Wire::tagOf(30958, Wire::Type::lengthDelimited);
constexpr std::uint32_t regValueTag = Wire::tagOf(15906, Wire::Type::lengthDelimited);

// Of the elements.
constexpr std::uint32_t indexTag = Wire::tagOf(1, Wire::Type::varint);
constexpr std::uint32_t keyElementTag = Wire::tagOf(2, Wire::Type::lengthDelimited);
constexpr std::uint32_t valueElementTag = Wire::tagOf(2, Wire::Type::varint);

std::uint32_t checkedCount(std::uint32_t count, const char* what, std::uint32_t most) {
   if (count > most) {
      throw RangeError(fmt::format(badCount, count, what, most));
   }
   return count;
}

void requireLength(std::size_t length, std::size_t needed) {
   if (length < needed) {
      throw RangeError(fmt::format(tooShort, needed, length));
   }
}

template <typename Len>
std::size_t withPrefix(Len length) noexcept {
   return Wire::varintLen(length) + length;
}

/// Bytes inside of one element.
std::size_t elementMessageLen(std::size_t index, CoreRegisterKey key) noexcept {
   return Wire::varintLen(indexTag) + Wire::varintLen(index) + Wire::varintLen(keyElementTag) +
          withPrefix(key.messageLen());
}
std::size_t elementMessageLen(std::size_t index, std::uint32_t value) noexcept {
   return Wire::varintLen(indexTag) + Wire::varintLen(index) + Wire::varintLen(valueElementTag) +
          Wire::varintLen(value);
}

void writeElementContent(CoreRegisterKey key, Wire::OutputStream& stream) {
   stream.WriteTag(keyElementTag);
   key.writePbMessage(stream);
}
void writeElementContent(std::uint32_t value, Wire::OutputStream& stream) {
   stream.WriteTag(valueElementTag);
   stream.WriteVarint32(value);
}

void readElementContent(CoreRegisterKey& key, std::uint32_t tag, Wire::InputStream& stream) {
   Wire::requireType(tag, Wire::typeOf(keyElementTag));
   key.readMessage(stream);
}
void readElementContent(std::uint32_t& value, std::uint32_t tag, Wire::InputStream& stream) {
   value = Wire::readVarint32(tag, stream);
}

template <typename Element>
std::size_t elementsLen(std::uint32_t tag, std::span<const Element> elements) noexcept {
   std::size_t length = elements.size() * Wire::varintLen(tag);
   for (std::size_t index = 0; index < elements.size(); ++index) {
      length += withPrefix(elementMessageLen(index, elements[index]));
   }
   return length;
}

template <typename Element>
void writeElements(std::uint32_t tag, std::span<const Element> elements,
                   Wire::OutputStream& stream) {
   for (std::size_t index = 0; index < elements.size(); ++index) {
      stream.WriteTag(tag);
      stream.WriteVarint64(elementMessageLen(index, elements[index]));
      stream.WriteTag(indexTag);
      stream.WriteVarint64(index);
      writeElementContent(elements[index], stream);
   }
}

template <typename Element>
struct Indexed {
   OpIndex index;
   Element element{};
};

template <typename Element>
Indexed<Element> readElement(std::uint32_t tag, Wire::InputStream& stream) {
   Wire::requireType(tag, Wire::Type::lengthDelimited);
   Indexed<Element> read;
   Wire::Section section(stream);
   while (const std::uint32_t inner = section.nextTag()) {
      switch (Wire::fieldOf(inner)) {
      case Wire::fieldOf(indexTag):
         read.index = OpIndex(Wire::readVarint64(inner, stream));
         break;
      case Wire::fieldOf(keyElementTag): // which is that of a value, too
         readElementContent(read.element, inner, stream);
         break;
      default:
         Wire::skipField(inner, stream);
      }
   }
   return read;
}

} // namespace

OrderedRegisterOp::OrderedRegisterOp(const String&) {
   Platform::fatalAssertion("TarnRegFile/OrderedRegisterOp", "OrderedRegisterOp", noString);
}

bool OrderedRegisterOp::isEq(const OrderedRegisterOp& other) const noexcept {
   return this == &other || (_key == other._key && _opSize == other._opSize &&
                             std::ranges::equal(regValues(), other.regValues()) &&
                             std::ranges::equal(regKeys(), other.regKeys()));
}

String OrderedRegisterOp::stringRep() const {
   String keys;
   for (const CoreRegisterKey key : regKeys()) {
      keys += fmt::format("{}{}", keys.empty() ? "" : ", ", key.address());
   }
   return fmt::format("Value({}, key={}, opSize={}, regKey=[{}], regValue=[{}])",
                      Platform::quote(valueTypeName()), _key.stringRep(), _opSize, keys,
                      fmt::join(regValues(), ", "));
}

void OrderedRegisterOp::serialize(std::uint8_t* buffer) const {
   checkedCount(_regKey.count, "regKey", _capacity);
   checkedCount(_regValue.count, "regValue", _capacity);
   _key.serialize(buffer);
   buffer[opSizeAt] = _opSize;
   std::ranges::copy(_besideOpSize, buffer + opSizeAt + 1);
   LittleEndian::store32(buffer + keyCountAt, _regKey.count);
   std::uint8_t* to = buffer + keysAt;
   for (const CoreRegisterKey key : regKeys()) {
      key.serialize(to);
      to += elementLen;
   }
   LittleEndian::store32(to, _regValue.count);
   to += countLen;
   for (const std::uint32_t value : regValues()) {
      LittleEndian::store32(to, value);
      to += elementLen;
   }
}

std::size_t OrderedRegisterOp::deserializeLen(const std::uint8_t* buffer, std::size_t) noexcept {
   return storedLen({buffer, maxSerializedLen}) != 0 ? maxSerializedLen : 0;
}

std::size_t OrderedRegisterOp::storedLen(std::span<const std::uint8_t> stored) noexcept {
   if (stored.size() < keysAt) {
      return 0;
   }
   const std::uint32_t keyCount = LittleEndian::load32(stored.data() + keyCountAt);
   const std::size_t valueCountAt = keysAt + elementLen * std::size_t{keyCount};
   if (keyCount > _capacity || stored.size() < valueCountAt + countLen) {
      return 0;
   }
   const std::uint32_t valueCount = LittleEndian::load32(stored.data() + valueCountAt);
   const std::size_t length = valueCountAt + countLen + elementLen * std::size_t{valueCount};
   return valueCount > _capacity || stored.size() < length ? 0 : length;
}

void OrderedRegisterOp::deserialize(const std::uint8_t* buffer, std::size_t length) {
   requireLength(length, keysAt + countLen);
   const std::uint32_t keyCount =
      checkedCount(LittleEndian::load32(buffer + keyCountAt), "regKey", _capacity);
   const std::uint8_t* keys = buffer + keysAt;
   requireLength(length, keysAt + elementLen * keyCount + countLen);
   const std::uint8_t* values = keys + elementLen * keyCount + countLen;
   const std::uint32_t valueCount =
      checkedCount(LittleEndian::load32(values - countLen), "regValue", _capacity);
   requireLength(length, keysAt + countLen + elementLen * (keyCount + valueCount));

   _key = UniqueId::deserialized(buffer);
   _opSize = buffer[opSizeAt];
   std::copy_n(buffer + opSizeAt + 1, _besideOpSize.size(), _besideOpSize.begin());
   _regKey.count = keyCount;
   for (std::uint32_t i = 0; i < keyCount; ++i) {
      _regKey.elements[i] = CoreRegisterKey::deserialized(keys + elementLen * i);
   }
   _regValue.count = valueCount;
   for (std::uint32_t i = 0; i < valueCount; ++i) {
      _regValue.elements[i] = LittleEndian::load32(values + elementLen * i);
   }
}

std::size_t OrderedRegisterOp::messageLen() const noexcept {
   return Wire::varintLen(keyTag) + withPrefix(_key.messageLen()) + Wire::varintLen(opSizeTag) +
          Wire::varintLen(_opSize) + elementsLen(regKeyTag, regKeys()) +
          elementsLen(regValueTag, regValues());
}

void OrderedRegisterOp::writeFields(Wire::OutputStream& stream) const {
   stream.WriteTag(keyTag);
   _key.writePbMessage(stream);
   stream.WriteTag(opSizeTag);
   stream.WriteVarint32(_opSize);
   writeElements(regKeyTag, regKeys(), stream);
   writeElements(regValueTag, regValues(), stream);
}

void OrderedRegisterOp::readMessageField(std::uint32_t tag, Wire::InputStream& stream) {
   switch (Wire::fieldOf(tag)) {
   case Wire::fieldOf(keyTag):
      Wire::requireType(tag, Wire::typeOf(keyTag));
      _key.readMessage(stream);
      break;
   case Wire::fieldOf(opSizeTag): {
      const std::uint64_t opSize = Wire::readVarint64(tag, stream);
      if (opSize > 0xff) {
         throw RangeError(opSizeOutOfRange);
      }
      _opSize = static_cast<std::uint8_t>(opSize);
      break;
   }
   case Wire::fieldOf(regKeyTag): {
      const auto read = readElement<CoreRegisterKey>(tag, stream);
      _regKey.is(read.index, read.element);
      break;
   }
   case Wire::fieldOf(regValueTag): {
      const auto read = readElement<std::uint32_t>(tag, stream);
      _regValue.is(read.index, read.element);
      break;
   }
   default:
      Wire::skipField(tag, stream);
   }
}

void OrderedRegisterOp::_throwNoElement(OpIndex index, std::uint32_t count) {
   throw RangeError(fmt::format(noElement, index.value(), count));
}

void OrderedRegisterOp::_throwNoPosition() {
   throw RangeError(noPosition);
}

} // namespace TarnRegFile::Sable

namespace Platform {

using TarnRegFile::Sable::OrderedRegisterOp;

String ValueTraits<OrderedRegisterOp>::name() {
   return String(OrderedRegisterOp::valueTypeName());
}

OrderedRegisterOp ValueTraits<OrderedRegisterOp>::read(TextRange&) {
   throw RangeError(TarnRegFile::Sable::noStringHere);
}

} // namespace Platform
