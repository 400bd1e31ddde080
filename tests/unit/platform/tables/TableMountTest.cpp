#include "platform/tables/TableMount.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <system_error>
#include <vector>

#include "tests/support/TempDir.h"

namespace {

using namespace Platform::Tables;

std::vector<std::uint8_t> bytes(std::uint32_t value) {
   std::vector<std::uint8_t> result(sizeof value);
   std::memcpy(result.data(), &value, sizeof value);
   return result;
}

TableShape shape() {
   TableShape result;
   result.keyType = "Key";
   result.recordType = "Record";
   result.keySize = 4;
   result.recordSize = 12;
   return result;
}

class TableMountTest : public testing::Test {
protected:
   TableMount::Options writer() const {
      return {.role = TableRole::writer, .shape = shape(), .create = true};
   }
   TableMount::Options reader() const { return {.role = TableRole::reader, .shape = shape()}; }

   static std::optional<std::vector<std::uint8_t>> get(const TableMount& mount, std::uint32_t key) {
      std::vector<std::uint64_t> record(mount.recordWords());
      const std::optional<std::size_t> size = mount.get(bytes(key), record);
      if (!size) {
         return std::nullopt;
      }
      const auto* const begin = reinterpret_cast<const std::uint8_t*>(record.data());
      return std::vector<std::uint8_t>(begin, begin + *size);
   }

   TestSupport::TempDir temp{"/dev/shm"};
   TableDirectory directory{temp.path("tables")};
};

TEST_F(TableMountTest, WhatOneMountPutsAnotherGets) {
   TableMount writing(directory, "table", writer());
   const TableMount reading(directory, "table", reader());
   EXPECT_EQ(get(reading, 7), std::nullopt);

   EXPECT_TRUE(writing.put(bytes(7), bytes(700)));
   EXPECT_EQ(get(reading, 7), bytes(700));
   EXPECT_FALSE(writing.put(bytes(7), bytes(701)));
   EXPECT_EQ(get(reading, 7), bytes(701));
   EXPECT_EQ(reading.count(), 1U);
}

TEST_F(TableMountTest, AgreesWithAMapThroughRandomOperations) {
   TableMount writing(directory, "table", writer());
   const TableMount reading(directory, "table", reader());
   std::map<std::uint32_t, std::vector<std::uint8_t>> model;
   std::mt19937 random(1);
   std::vector<std::uint64_t> record(writing.recordWords());
   for (int i = 0; i < 200000; ++i) {
      const std::uint32_t key = random() % 3000;
      if (random() % 3 != 0) {
         std::vector<std::uint8_t> value(random() % 13);
         for (std::uint8_t& byte : value) {
            byte = static_cast<std::uint8_t>(random());
         }
         EXPECT_EQ(writing.put(bytes(key), value), !model.contains(key));
         model[key] = value;
      } else {
         EXPECT_EQ(writing.del(bytes(key), record).has_value(), model.erase(key) == 1);
      }
   }
   EXPECT_EQ(reading.count(), model.size());
   for (std::uint32_t key = 0; key < 3000; ++key) {
      const auto found = model.find(key);
      EXPECT_EQ(get(reading, key), found == model.end()
                                      ? std::nullopt
                                      : std::optional<std::vector<std::uint8_t>>(found->second));
   }
   EXPECT_EQ(writing.audit().problems, std::vector<std::string>());
   EXPECT_EQ(writing.audit().records, model.size());
}

} // namespace
