#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <absl/container/flat_hash_map.h>

#include "platform/tables/TableMount.h"

namespace Platform::Tables {

/// The keys that a table had when its mount last knew, each with the stamp of its record: by which
/// a mount that has missed changes finds out what they were.
///
/// Every record that is put or told of passes here, so keys of up to eight bytes, which nearly all
/// tables have, are kept as numbers.
class KnownKeys {
public:
   using Bytes = std::span<const std::uint8_t>;
   using Stamp = TableMount::Stamp;

   /// One key, with bytes of its own.
   class Key {
   public:
      explicit Key(Bytes bytes) : _text(bytes.begin(), bytes.end()) {}
      Bytes bytes() const noexcept {
         return {reinterpret_cast<const std::uint8_t*>(_text.data()), _text.size()};
      }

   private:
      std::string _text; // which has room for short ones in itself
   };

   /// Keys that are taken out one after the other, in their order.
   class List {
   public:
      bool empty() const noexcept { return _taken == _bytes.size(); }

      Key next() {
         Key key(Bytes(_bytes).subspan(_taken, _keySize));
         _taken += _keySize;
         return key;
      }

   private:
      friend class KnownKeys;

      void _add(Bytes key) {
         _keySize = key.size();
         _bytes.insert(_bytes.end(), key.begin(), key.end());
      }

      std::vector<std::uint8_t> _bytes;
      std::size_t _keySize = 0;
      std::size_t _taken = 0;
   };

   explicit KnownKeys(std::size_t keySize) : _keySize(keySize) {}

   /// There is a record under `key`, of that stamp; an empty stamp is that of no record.
   void set(Bytes key, const Stamp& stamp) {
      if (_isShort()) {
         _short.insert_or_assign(_number(key), stamp);
      } else {
         _long.insert_or_assign(_text(key), stamp);
      }
   }

   /// There is a record under `key`: of no stamp, unless it is known already.
   void add(Bytes key) {
      if (_isShort()) {
         _short.try_emplace(_number(key));
      } else {
         _long.try_emplace(_text(key));
      }
   }

   void erase(Bytes key) {
      if (_isShort()) {
         _short.erase(_number(key));
      } else {
         _long.erase(_text(key));
      }
   }

   class Update;

private:
   bool _isShort() const noexcept { return _keySize <= sizeof(std::uint64_t); }

   static std::uint64_t _number(Bytes key) noexcept {
      std::uint64_t number = 0;
      std::memcpy(&number, key.data(), std::min(key.size(), sizeof number));
      return number;
   }

   static std::string _text(Bytes key) { return {key.begin(), key.end()}; }

   std::size_t _keySize;
   absl::flat_hash_map<std::uint64_t, Stamp> _short;
   absl::flat_hash_map<std::string, Stamp> _long;
};

/// A look through all of the table, which replaces what was known and tells what is not as it
/// was: each record is shown to found(), and changed() has those whose stamp is new or another
/// one, and the keys that are no longer there.
class KnownKeys::Update {
public:
   explicit Update(KnownKeys& known)
      : _known(known), _before(std::exchange(known, KnownKeys(known._keySize))) {}

   void found(Bytes key, const Stamp& stamp) {
      const bool isAsBefore = _known._isShort() ? _take(_before._short, _number(key), stamp)
                                                : _take(_before._long, _text(key), stamp);
      if (!isAsBefore) {
         _changed._add(key);
      }
      _known.set(key, stamp);
   }

   List changed() {
      for (const auto& [number, stamp] : _before._short) {
         std::array<std::uint8_t, sizeof number> bytes{};
         std::memcpy(bytes.data(), &number, sizeof number);
         _changed._add(Bytes(bytes).first(_before._keySize));
      }
      for (const auto& [text, stamp] : _before._long) {
         _changed._add({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
      }
      return std::move(_changed);
   }

private:
   template <typename Map, typename K>
   static bool _take(Map& map, const K& key, const Stamp& stamp) {
      const auto found = map.find(key);
      if (found == map.end()) {
         return false;
      }
      const bool isAsBefore = found->second == stamp;
      map.erase(found);
      return isAsBefore;
   }

   KnownKeys& _known;
   KnownKeys _before;
   List _changed;
};

} // namespace Platform::Tables
