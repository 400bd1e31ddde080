#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/tables/Table.h"
#include "tests/unit/platform/tables/TableFixture.h"

namespace TablesTest {

struct NumberKey {
   std::uint32_t value = 0;

   static constexpr std::size_t serializedLen = 4;
   static const char* valueTypeName() { return "Test::NumberKey"; }
   void serialize(std::uint8_t* to) const { std::memcpy(to, &value, sizeof value); }
   static NumberKey deserialized(const std::uint8_t* from) {
      NumberKey key;
      std::memcpy(&key.value, from, sizeof key.value);
      return key;
   }
   bool operator==(const NumberKey&) const = default;
};

/// Of fixed length.
struct NumberRecord {
   NumberKey itsKey;
   std::uint64_t value = 0;

   static constexpr std::size_t maxSerializedLen = 12;
   static const char* valueTypeName() { return "Test::NumberRecord"; }
   const NumberKey& key() const { return itsKey; }
   std::size_t serializeLen() const { return 12; }
   void serialize(std::uint8_t* to) const {
      itsKey.serialize(to);
      std::memcpy(to + 4, &value, sizeof value);
   }
   static std::size_t deserializeLen(const std::uint8_t*, std::size_t size) {
      return size == 12 ? 12 : 0;
   }
   void deserialize(const std::uint8_t* from, std::size_t) {
      itsKey = NumberKey::deserialized(from);
      std::memcpy(&value, from + 4, sizeof value);
   }
   bool operator==(const NumberRecord&) const = default;
};

/// Of varying length; not every form is one.
struct TextRecord {
   NumberKey itsKey;
   std::string text;

   static constexpr std::size_t maxText = 50;
   static constexpr std::size_t maxSerializedLen = 5 + maxText;
   static const char* valueTypeName() { return "Test::TextRecord"; }
   NumberKey key() const { return itsKey; }
   std::size_t serializeLen() const { return 5 + text.size(); }
   void serialize(std::uint8_t* to) const {
      itsKey.serialize(to);
      to[4] = static_cast<std::uint8_t>(text.size());
      std::memcpy(to + 5, text.data(), text.size());
   }
   static std::size_t deserializeLen(const std::uint8_t* from, std::size_t size) {
      return size >= 5 && from[4] <= maxText && size == 5U + from[4] ? size : 0;
   }
   void deserialize(const std::uint8_t* from, std::size_t) {
      itsKey = NumberKey::deserialized(from);
      text.assign(reinterpret_cast<const char*>(from + 5), from[4]);
   }
   bool operator==(const TextRecord&) const = default;
};

/// Owns a table and keeps account of what it is told; does what the test wants meanwhile.
template <typename R>
class TableOwner final : private Table<R>::Owner {
public:
   explicit TableOwner(const std::string& name)
      : table(std::make_unique<Table<R>>(name, static_cast<typename Table<R>::Owner&>(*this))) {}

   std::vector<std::uint32_t> told;
   std::vector<std::string> statuses;
   std::vector<bool> quiesced;
   std::function<void(std::uint32_t key)> onChange;
   std::function<void()> onStatus;
   std::unique_ptr<Table<R>> table;

   bool wasTold(std::uint32_t key) const {
      return std::find(told.begin(), told.end(), key) != told.end();
   }

private:
   void tableChanged(const NumberKey& key) override {
      told.push_back(key.value);
      if (onChange) {
         onChange(key.value);
      }
   }
   void tableMountStatusChanged() override {
      static const char* const names[] = {"unmounted", "mounted", "failed", "corrupted"};
      statuses.push_back(names[static_cast<int>(table->mountStatus())]);
      if (onStatus) {
         onStatus();
      }
   }
   void tableQuiescedChanged(bool is) override { quiesced.push_back(is); }
};

using NumberOwner = TableOwner<NumberRecord>;
using TextOwner = TableOwner<TextRecord>;

} // namespace TablesTest
