#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/tables/TableMount.h"
#include "tests/support/TempDir.h"

namespace TablesTest {

using namespace Platform::Tables;

using Bytes = std::vector<std::uint8_t>;
using Words = std::vector<std::uint64_t>;

inline Bytes bytes(std::uint32_t value) {
   Bytes result(sizeof value);
   std::memcpy(result.data(), &value, sizeof value);
   return result;
}

inline std::uint32_t number(const Words& words) {
   return static_cast<std::uint32_t>(words.at(0));
}

inline TableShape shape() {
   TableShape result;
   result.keyType = "Key";
   result.recordType = "Record";
   result.keySize = 4;
   result.recordSize = 12;
   result.maxRecords = 1U << 16;
   return result;
}

/// What `function` throws, as "code category: text" without the code's own text; "" if it does not.
template <typename Function>
std::string errorOf(Function&& function) {
   try {
      function();
   } catch (const CorruptionException& error) {
      return std::string("corrupted: ") + error.what();
   } catch (const std::system_error& error) {
      std::string text = error.what();
      const std::string own = ": " + error.code().message();
      if (text.ends_with(own)) {
         text.resize(text.size() - own.size());
      }
      return std::to_string(error.code().value()) + " " + error.code().category().name() + ": " +
             text;
   } catch (const std::logic_error& error) {
      return std::string("logic: ") + error.what();
   }
   return "";
}

/// The code that `function` throws in the generic or system category; 0 if it does not.
template <typename Function>
int codeOf(Function&& function) {
   try {
      function();
   } catch (const std::system_error& error) {
      return error.code().value();
   }
   return 0;
}

inline std::optional<Bytes> get(const TableMount& mount, const Bytes& key) {
   Words record(mount.recordWords());
   const std::optional<std::size_t> size = mount.get(key, record);
   if (!size) {
      return std::nullopt;
   }
   const auto* const begin = reinterpret_cast<const std::uint8_t*>(record.data());
   return Bytes(begin, begin + *size);
}

inline std::optional<Bytes> get(const TableMount& mount, std::uint32_t key) {
   return get(mount, bytes(key));
}

inline std::optional<std::size_t> del(TableMount& mount, std::uint32_t key) {
   Words record(mount.recordWords());
   return mount.del(bytes(key), record);
}

/// All that next() finds.
inline std::map<Bytes, Bytes> contents(const TableMount& mount) {
   std::map<Bytes, Bytes> found;
   Words key(mount.keyWords());
   Words record(mount.recordWords());
   std::uint32_t position = 0;
   while (const std::optional<std::size_t> size = mount.next(position, key, record)) {
      const auto* const keyBytes = reinterpret_cast<const std::uint8_t*>(key.data());
      const auto* const recordBytes = reinterpret_cast<const std::uint8_t*>(record.data());
      found[Bytes(keyBytes, keyBytes + mount.shape().keySize)] =
         Bytes(recordBytes, recordBytes + *size);
   }
   return found;
}

/// The changes that nextChange() tells, for keys of 4 bytes: "7 8 missed".
inline std::string changes(TableMount& mount) {
   std::string told;
   Words key(mount.keyWords());
   for (;;) {
      const TableMount::Change change = mount.nextChange(key);
      if (change == TableMount::Change::none) {
         return told;
      }
      told += told.empty() ? "" : " ";
      told += change == TableMount::Change::missed ? "missed" : std::to_string(number(key));
   }
}

/// A directory for tables, in shared memory.
class TableFixture : public testing::Test {
protected:
   static TableMount::Options writer(const TableShape& of = shape()) {
      return {.role = TableRole::writer, .shape = of, .create = true};
   }
   static TableMount::Options reader(const TableShape& of = shape()) {
      return {.role = TableRole::reader, .shape = of};
   }

   std::string file(const std::string& name) const { return directory.path() + "/" + name; }
   std::string content(const std::string& name) const { return temp.read("tables/" + name); }

   TestSupport::TempDir temp{"/dev/shm"};
   TableDirectory directory{temp.path("tables")};
};

} // namespace TablesTest
