#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>

#include "platform/entity/UniqueId.h"
#include "platform/entity/ValueTraits.h"
#include "platform/entity/WireMessage.h"
#include "TarnRegFile/CoreRegisterKey.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/OpIndex.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile::Sable {

using Platform::UniqueId;

/// A sequence of register writes that is to be made in its order: the record of the ordered
/// tables. Up to 128 registers and up to 128 values, which belong together by their index; nothing
/// here requires that there are as many of the one as of the other.
///
/// A plain value of about a kilobyte, without allocations; used by one thread at a time.
///
/// Its stored form is that of the shared tables, its protobuf form (see WireMessage) that of
/// everything else. docs/ordered-operations.md has both byte for byte. A new OrderedRegisterOp()
/// is the empty record.
class TARN_API OrderedRegisterOp : public Platform::WireMessage<OrderedRegisterOp> {
public:
   /// What regKeys() and regValues() have.
   using RegKeyIterator = std::span<const CoreRegisterKey>::iterator;
   using RegValueIterator = std::span<const std::uint32_t>::iterator;

   OrderedRegisterOp() noexcept = default;
   explicit OrderedRegisterOp(UniqueId key) noexcept : _key(key) {}

   /// There is no string form to make a record from: stops the process.
   explicit OrderedRegisterOp(const String& text);

   /// Identity of the operation, and key of the tables.
   UniqueId key() const noexcept { return _key; }

   /// Number of register writes, as whoever filled in the record says. Never derived from what is
   /// in the arrays, nor compared with it.
   std::uint8_t opSize() const noexcept { return _opSize; }
   void opSizeIs(std::uint8_t opSize) noexcept { _opSize = opSize; }

   /// The registers, in the order in which they are to be written. Iterators and the span stay good
   /// until registers are deleted or the record goes; the span does not grow.
   std::span<const CoreRegisterKey> regKeys() const noexcept { return _regKey.used(); }
   std::uint32_t regKeyCount() const noexcept { return _regKey.count; }

   /// Throws Platform::RangeError for an index at or beyond the count.
   CoreRegisterKey regKey(OpIndex index) const { return _regKey.at(index); }

   /// Sets one. At or beyond the count, that becomes `index` + 1; elements that are skipped over
   /// are what was last stored at their index, zero if nothing was.
   void regKeyIs(OpIndex index, CoreRegisterKey key) noexcept { _regKey.is(index, key); }

   /// Deletes one; those behind it move down. Returns whether there was one.
   bool regKeyDel(OpIndex index) noexcept { return _regKey.del(index); }

   /// Likewise, and returns where the one behind it is now. Throws Platform::RangeError for an
   /// iterator that is at none of this record's elements.
   RegKeyIterator regKeyDel(RegKeyIterator position) { return _regKey.del(position); }

   /// Sets the count to 0. What was stored stays in place, unseen.
   void regKeyDelAll() noexcept { _regKey.count = 0; }

   /// The values, in the same way.
   std::span<const std::uint32_t> regValues() const noexcept { return _regValue.used(); }
   std::uint32_t regValueCount() const noexcept { return _regValue.count; }
   std::uint32_t regValue(OpIndex index) const { return _regValue.at(index); }
   void regValueIs(OpIndex index, std::uint32_t value) noexcept { _regValue.is(index, value); }
   bool regValueDel(OpIndex index) noexcept { return _regValue.del(index); }
   RegValueIterator regValueDel(RegValueIterator position) { return _regValue.del(position); }
   void regValueDelAll() noexcept { _regValue.count = 0; }

   /// Compares keys, then opSize, then values, then registers. What is behind the counts does not
   /// matter.
   bool isEq(const OrderedRegisterOp& other) const noexcept;
   friend bool operator==(const OrderedRegisterOp& a, const OrderedRegisterOp& b) noexcept {
      return a.isEq(b);
   }

   /// False for what equals the empty record.
   explicit operator bool() const noexcept {
      return _key || _opSize != 0 || _regKey.count != 0 || _regValue.count != 0;
   }

   static constexpr std::string_view valueTypeName() noexcept {
      return "TarnRegFile::Sable::OrderedRegisterOp";
   }

   /// For people and logs; it is not read back.
   String stringRep() const;

   /// Stored form. 1044 bytes at most, least significant first: key (8), opSize (1), three bytes
   /// that are carried as they stand (0 in a new record), the count of registers (4), the registers
   /// (4 each), the count of values (4), the values (4 each).
   static constexpr std::size_t maxSerializedLen = 1044;

   std::size_t serializeLen() const noexcept {
      return maxSerializedLen - std::size_t{4} * (_capacity - _regValue.count) -
             std::size_t{4} * (_capacity - _regKey.count);
   }

   /// Writes serializeLen() bytes. Throws Platform::RangeError, with nothing written, if a count is
   /// above 128; only memory that was overwritten has one.
   void serialize(std::uint8_t* buffer) const;

   /// 1044 if both counts in `buffer` are at most 128, and 0 otherwise.
   ///
   /// BEWARE: `length` is not looked at. The buffer must have 1044 bytes that can be read, whatever
   /// is in use of them, as a slot of a table has. For anything else use storedLen().
   static std::size_t deserializeLen(const std::uint8_t* buffer, std::size_t length) noexcept;

   /// Bytes of the stored record at the front of `stored`, 0 if there is none: a count is above
   /// 128, or there are less bytes than the counts claim. Reads nothing outside of `stored`.
   static std::size_t storedLen(std::span<const std::uint8_t> stored) noexcept;

   /// Reads what serialize() wrote; elements behind the counts stay as they are. Throws
   /// Platform::RangeError, the record then unchanged, where storedLen() would be 0. Reads nothing
   /// beyond `length`.
   void deserialize(const std::uint8_t* buffer, std::size_t length);

   std::size_t messageLen() const noexcept;
   void writeFields(Platform::Wire::OutputStream& stream) const;
   void readMessageField(std::uint32_t tag, Platform::Wire::InputStream& stream);

private:
   static constexpr std::uint32_t _capacity = OpIndex::max + 1;

   [[noreturn]] static void _throwNoElement(OpIndex index, std::uint32_t count);
   [[noreturn]] static void _throwNoPosition();

   /// One of the arrays.
   template <typename Element>
   struct Column {
      using Iterator = typename std::span<const Element>::iterator;

      std::span<const Element> used() const noexcept { return {elements.data(), count}; }

      Element at(OpIndex index) const {
         if (index.value() >= count) [[unlikely]] {
            _throwNoElement(index, count);
         }
         return elements[index.value()];
      }

      void is(OpIndex index, Element element) noexcept {
         elements[index.value()] = element;
         count = std::max(count, index.value() + 1U);
      }

      bool del(OpIndex index) noexcept {
         if (index.value() >= count) {
            return false;
         }
         const auto deleted = elements.begin() + index.value();
         std::copy(deleted + 1, elements.begin() + count, deleted);
         --count;
         return true;
      }

      Iterator del(Iterator position) {
         const std::span<const Element> all = used();
         const Iterator first = all.begin();
         for (std::uint32_t index = 0; index < count; ++index) {
            // Looked for, since a foreign iterator has no distance to ours.
            if (first + index == position) {
               del(OpIndex(index));
               return position;
            }
         }
         _throwNoPosition();
      }

      std::uint32_t count = 0;
      std::array<Element, _capacity> elements{};
   };

   // In the order of the stored form.
   UniqueId _key;
   std::uint8_t _opSize = 0;
   std::array<std::uint8_t, 3> _besideOpSize{};
   Column<CoreRegisterKey> _regKey;
   Column<std::uint32_t> _regValue;
};

static_assert(std::is_trivially_copyable_v<OrderedRegisterOp>);

} // namespace TarnRegFile::Sable

/// Written for people; reading one is a RangeError, since what is typed or sent in must not stop
/// the process as the record's own constructor does.
template <>
struct TARN_API Platform::ValueTraits<TarnRegFile::Sable::OrderedRegisterOp> {
   static String name();
   static String write(const TarnRegFile::Sable::OrderedRegisterOp& op) { return op.stringRep(); }
   static TarnRegFile::Sable::OrderedRegisterOp read(TextRange& range);
};
