#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/entity/Errors.h"
#include "platform/tables/TableBase.h"

namespace Platform::Tables {

/// What a table may have as a key: a value with a serialised form of fixed length.
template <typename K>
concept TableKey = std::equality_comparable<K> && requires(const K& key, std::uint8_t* bytes) {
   { K::serializedLen } -> std::convertible_to<std::size_t>;
   key.serialize(bytes);
   { K::deserialized(static_cast<const std::uint8_t*>(bytes)) } -> std::same_as<K>;
   K::valueTypeName();
};

/// What a table may have as a record: a value that knows its key and has a serialised form of some
/// maximum length. deserializeLen() says how long the form at an address is, 0 if there is none; it
/// is always given maxSerializedLen bytes, which are zero behind what the table holds.
template <typename R>
concept TableRecord = TableKey<std::remove_cvref_t<decltype(std::declval<const R&>().key())>> &&
   std::default_initializable<R> &&
   requires(R record, const R& constRecord, std::uint8_t* bytes, const std::uint8_t* from) {
   { R::maxSerializedLen } -> std::convertible_to<std::size_t>;
   { constRecord.serializeLen() } -> std::convertible_to<std::size_t>;
   constRecord.serialize(bytes);
   { R::deserializeLen(from, std::size_t{}) } -> std::convertible_to<std::size_t>;
   record.deserialize(from, std::size_t{});
   R::valueTypeName();
};

/// A shared table of records of one type, as the member of an entity that publishes its changes.
///
/// Writing tells nobody in this process: that is the entity's business, which does it in the way
/// that its own interface promises. The changes that other mounts make, in this process or in
/// others, come to the entity through changed(), with the key only; whoever wants the value looks.
///
/// Functions throw what TableMount's do, and std::system_error ENOTCONN (generic category) when the
/// table is not mounted.
template <TableRecord R>
class Table : public TableBase {
public:
   using Record = R;
   using Key = std::remove_cvref_t<decltype(std::declval<const R&>().key())>;

   /// The entity.
   class Owner : public TableBase::Owner {
   public:
      /// Another mount has written or removed the record of `key`, or may have.
      virtual void tableChanged(const Key& key) = 0;

   protected:
      ~Owner() = default;
   };

   Table(String name, Owner& owner)
      : TableBase(std::move(name), tableShape(), owner), _owner(owner) {}

   /// What a table of these records is made for.
   static TableShape tableShape() {
      TableShape shape;
      shape.keyType = Key::valueTypeName();
      shape.recordType = R::valueTypeName();
      shape.keySize = static_cast<std::uint32_t>(Key::serializedLen);
      shape.recordSize = static_cast<std::uint32_t>(R::maxSerializedLen);
      return shape;
   }

   /// The record under `key`; none if there is none. Throws CorruptionException also for bytes that
   /// are no record.
   std::optional<R> get(const Key& key) const {
      const KeyBytes bytes = _bytesOf(key);
      RecordWords words;
      const std::optional<std::size_t> size = _get(bytes, words);
      if (!size) {
         return std::nullopt;
      }
      return _record(words, *size);
   }

   bool has(const Key& key) const { return get(key).has_value(); }

   /// As TableMount::checkWrite(): throws if a write under `key` would meet damage.
   void checkWrite(const Key& key) const { _mounted().checkWrite(_bytesOf(key)); }

   /// Inserts or replaces a record.
   void put(const R& record) {
      RecordWords words;
      auto* const bytes = reinterpret_cast<std::uint8_t*>(words.data());
      const std::size_t size = record.serializeLen();
      if (size <= R::maxSerializedLen) {
         record.serialize(bytes);
      } // else there is no room for it, and it is refused unread
      _put(_bytesOf(record.key()), {bytes, size});
   }

   /// Removes a record and returns it.
   std::optional<R> del(const Key& key) {
      RecordWords words;
      const std::optional<std::size_t> size = _del(_bytesOf(key), words);
      if (!size) {
         return std::nullopt;
      }
      return _record(words, *size);
   }

   /// The first half of a write whose record is filled in place: a fresh record that the caller
   /// fills and then passes to commit(), or gives back with abandon(). It is private to the process
   /// until then, so nobody waits for it and nothing is left of it if the process dies. Throws
   /// std::logic_error while another one is out.
   R* directWrite() {
      if (_direct) {
         throw std::logic_error("shared table '" + name() +
                                "': a direct write is under way; commit or abandon it first");
      }
      _mounted();
      return &_direct.emplace();
   }

   /// The second half. Throws std::logic_error if `record` is not what directWrite() returned, and
   /// writes nothing then. When writing fails the record is given back as well. Returns what was
   /// written.
   R commit(const R* record) {
      _checkDirect(record);
      const R filled = std::move(*_direct);
      _direct.reset();
      put(filled);
      return filled;
   }

   /// Gives a direct write up. As commit().
   void abandon(const R* record) {
      _checkDirect(record);
      _direct.reset();
   }

   /// The keys at this moment, in the order in which the table holds them.
   std::vector<Key> keys() const {
      std::vector<Key> keys;
      for (const std::vector<std::uint8_t>& bytes : _keys()) {
         keys.push_back(Key::deserialized(bytes.data()));
      }
      return keys;
   }

   /// Calls `visit(record)` for each record. In the order of keys(); what is written meanwhile, by
   /// `visit` too, may be seen or not.
   template <typename Visit>
   void forEach(Visit&& visit) const {
      std::array<std::uint64_t, (Key::serializedLen + 7) / 8> key;
      RecordWords words;
      for (std::uint32_t position = 0;;) {
         // Asked anew each time: `visit` may unmount.
         const std::optional<std::size_t> size = _next(position, key, words);
         if (!size) {
            return;
         }
         visit(_record(words, *size));
      }
   }

private:
   using KeyBytes = std::array<std::uint8_t, Key::serializedLen>;
   using RecordWords = std::array<std::uint64_t, (R::maxSerializedLen + 7) / 8>;

   static KeyBytes _bytesOf(const Key& key) {
      KeyBytes bytes;
      key.serialize(bytes.data());
      return bytes;
   }

   R _record(RecordWords& words, std::size_t size) const {
      auto* const bytes = reinterpret_cast<std::uint8_t*>(words.data());
      std::fill(bytes + size, bytes + sizeof words, std::uint8_t{0});
      R record;
      try {
         if (R::deserializeLen(bytes, size) != 0) {
            record.deserialize(bytes, size);
            return record;
         }
      } catch (const RangeError&) {
         // Its lengths are possible, but not within these bytes.
      }
      throw CorruptionException("shared table '" + name() + "' is corrupted: a record is no " +
                                String(R::valueTypeName()));
   }

   void _checkDirect(const R* record) const {
      if (!_direct || record != &*_direct) {
         throw std::logic_error("shared table '" + name() +
                                "': a commit without the direct write that belongs to it");
      }
   }

   void changed(std::span<const std::uint8_t> key) override {
      _owner.tableChanged(Key::deserialized(key.data()));
   }

   Owner& _owner;
   std::optional<R> _direct;
};

} // namespace Platform::Tables
