#include "platform/tables/TableMount.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <random>

#include "tests/unit/platform/tables/TableFixture.h"

namespace {

using namespace TablesTest;
using testing::HasSubstr;

class TableMountTest : public TableFixture {};

Bytes pattern(std::size_t size, unsigned seed) {
   Bytes result(size);
   for (std::size_t i = 0; i < size; ++i) {
      result[i] = static_cast<std::uint8_t>(i * 31 + seed);
   }
   return result;
}

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
   std::map<Bytes, Bytes> model;
   std::mt19937 random(1);
   for (int i = 0; i < 200000; ++i) {
      const std::uint32_t key = random() % 3000;
      if (random() % 3 != 0) {
         Bytes value(random() % 13);
         for (std::uint8_t& byte : value) {
            byte = static_cast<std::uint8_t>(random());
         }
         ASSERT_EQ(writing.put(bytes(key), value), !model.contains(bytes(key)));
         model[bytes(key)] = value;
      } else {
         ASSERT_EQ(del(writing, key).has_value(), model.erase(bytes(key)) == 1);
      }
   }
   EXPECT_EQ(reading.count(), model.size());
   EXPECT_EQ(contents(reading), model);
   for (std::uint32_t key = 0; key < 3000; ++key) {
      const auto found = model.find(bytes(key));
      ASSERT_EQ(get(reading, key),
                found == model.end() ? std::nullopt : std::optional<Bytes>(found->second));
   }
   EXPECT_EQ(writing.audit().problems, std::vector<std::string>());
   EXPECT_EQ(reading.audit().problems, std::vector<std::string>());
   EXPECT_EQ(writing.audit().records, model.size());
   EXPECT_EQ(writing.audit().recoveries, 0U);
}

TEST_F(TableMountTest, RecordsHaveAnySizeFromNothingToTheLargest) {
   for (const std::uint32_t recordSize : {1U, 7U, 8U, 9U, 63U, 64U, 65U, 240U, 4096U, 65535U}) {
      TableShape of = shape();
      of.recordSize = recordSize;
      const std::string name = "table" + std::to_string(recordSize);
      TableMount writing(directory, name, writer(of));
      const TableMount reading(directory, name, reader(of));
      const std::size_t step = recordSize > 300 ? 1021 : 1;
      for (std::size_t size = 0; size <= recordSize;
           size = size == recordSize ? size + 1 : std::min<std::size_t>(size + step, recordSize)) {
         const Bytes record = pattern(size, recordSize);
         writing.put(bytes(1), record);
         ASSERT_EQ(get(reading, 1), record);
         writing.put(bytes(2), Bytes(recordSize, 0xFF));
         writing.put(bytes(2), record); // over a longer one
         ASSERT_EQ(get(reading, 2), record);
      }
      EXPECT_EQ(writing.audit().problems, std::vector<std::string>());
   }
}

TEST_F(TableMountTest, KeysHaveAnySizeFrom1To256) {
   for (std::uint32_t keySize = 1; keySize <= 256; ++keySize) {
      TableShape of = shape();
      of.keySize = keySize;
      of.maxRecords = 64;
      const std::string name = "table" + std::to_string(keySize);
      TableMount writing(directory, name, writer(of));
      for (unsigned i = 0; i < 10; ++i) {
         // They differ in the last byte only.
         Bytes key(keySize, 7);
         key.back() = static_cast<std::uint8_t>(i);
         ASSERT_TRUE(writing.put(key, bytes(i)));
      }
      const TableMount reading(directory, name, reader(of));
      for (unsigned i = 0; i < 10; ++i) {
         Bytes key(keySize, 7);
         key.back() = static_cast<std::uint8_t>(i);
         ASSERT_EQ(get(reading, key), bytes(i)) << keySize;
      }
      ASSERT_EQ(contents(reading).size(), 10U);
   }
}

TEST_F(TableMountTest, KeysAndRecordsOfWrongSizesAreRefusedAndChangeNothing) {
   TableMount writing(directory, "table", writer());
   writing.put(bytes(1), bytes(2));
   const std::string before = content("table.tbl");
   Words record(writing.recordWords());
   Words small(writing.recordWords() - 1);
   Words key(writing.keyWords());
   Words none;
   std::uint32_t position = 0;
   EXPECT_EQ(errorOf([&] { writing.put(Bytes(3), bytes(1)); }),
             "22 generic: a key of shared table 'table' has 3 bytes, not 4");
   EXPECT_EQ(codeOf([&] { writing.put(Bytes(5), bytes(1)); }), EINVAL);
   EXPECT_EQ(codeOf([&] { writing.put(Bytes(), bytes(1)); }), EINVAL);
   EXPECT_EQ(codeOf([&] { writing.get(Bytes(3), record); }), EINVAL);
   EXPECT_EQ(codeOf([&] { writing.del(Bytes(8), record); }), EINVAL);
   EXPECT_EQ(errorOf([&] { writing.put(bytes(1), Bytes(13)); }),
             "22 generic: a record of shared table 'table' has up to 12 bytes, not 13");
   EXPECT_EQ(errorOf([&] { writing.get(bytes(1), small); }),
             "22 generic: the copy of a record of shared table 'table' needs 2 words");
   EXPECT_EQ(codeOf([&] { writing.del(bytes(1), small); }), EINVAL);
   EXPECT_EQ(codeOf([&] { writing.next(position, none, record); }), EINVAL);
   EXPECT_EQ(codeOf([&] { writing.next(position, key, small); }), EINVAL);
   EXPECT_EQ(codeOf([&] { writing.nextChange(none); }), EINVAL);
   EXPECT_EQ(codeOf([&] { (void)writing.preparedChange(none); }), EINVAL);
   EXPECT_EQ(position, 0U);
   EXPECT_EQ(content("table.tbl"), before);
   EXPECT_EQ(get(writing, 1), bytes(2));
}

TEST_F(TableMountTest, RemovingReturnsWhatWasThere) {
   TableMount writing(directory, "table", writer());
   writing.put(bytes(1), bytes(77));
   Words record(writing.recordWords());
   EXPECT_EQ(writing.del(bytes(1), record), 4U);
   EXPECT_EQ(static_cast<std::uint32_t>(record[0]), 77U);
   EXPECT_EQ(writing.del(bytes(1), record), std::nullopt);
   EXPECT_EQ(get(writing, 1), std::nullopt);
   EXPECT_EQ(writing.count(), 0U);
   EXPECT_TRUE(writing.put(bytes(1), bytes(78)));
   EXPECT_EQ(get(writing, 1), bytes(78));
}

TEST_F(TableMountTest, AFullTableRefusesAnotherKeyAndChangesNothing) {
   TableShape of = shape();
   of.maxRecords = 100;
   TableMount writing(directory, "table", writer(of));
   for (std::uint32_t key = 0; key < 100; ++key) {
      writing.put(bytes(key), bytes(key));
   }
   const std::map<Bytes, Bytes> before = contents(writing);
   const std::uint64_t changesBefore = writing.audit().changes;
   EXPECT_EQ(errorOf([&] { writing.put(bytes(100), bytes(1)); }),
             "105 generic: shared table 'table' is full: it was made for 100 records");
   EXPECT_EQ(contents(writing), before);
   EXPECT_EQ(writing.count(), 100U);
   EXPECT_EQ(writing.audit().changes, changesBefore);
   EXPECT_EQ(writing.audit().problems, std::vector<std::string>());
   // What is there can be replaced, and what is removed makes room.
   EXPECT_FALSE(writing.put(bytes(50), bytes(51)));
   EXPECT_TRUE(del(writing, 50));
   EXPECT_TRUE(writing.put(bytes(100), bytes(1)));
   EXPECT_EQ(codeOf([&] { writing.put(bytes(50), bytes(1)); }), ENOBUFS);
}

TEST_F(TableMountTest, ATableForASingleRecordWorks) {
   TableShape of = shape();
   of.maxRecords = 1;
   TableMount writing(directory, "table", writer(of));
   for (std::uint32_t key = 0; key < 5000; ++key) {
      ASSERT_TRUE(writing.put(bytes(key), bytes(key)));
      ASSERT_EQ(codeOf([&] { writing.put(bytes(key + 1), bytes(1)); }), ENOBUFS);
      ASSERT_EQ(get(writing, key), bytes(key));
      ASSERT_TRUE(del(writing, key));
   }
   EXPECT_EQ(writing.audit().problems, std::vector<std::string>());
   EXPECT_EQ(writing.audit().slots, 1U);
}

TEST_F(TableMountTest, AReaderFindsEverythingWhileTheIndexGrowsThroughAllItsSizes) {
   TableMount writing(directory, "table", writer());
   const TableMount reading(directory, "table", reader());
   std::size_t indexSize = writing.audit().indexEntries;
   unsigned growths = 0;
   for (std::uint32_t key = 0; key < 20000; ++key) {
      ASSERT_TRUE(writing.put(bytes(key), bytes(key + 1)));
      ASSERT_EQ(get(reading, key), bytes(key + 1));
      ASSERT_EQ(get(reading, key / 2), bytes(key / 2 + 1));
      ASSERT_EQ(get(reading, key + 1), std::nullopt);
      if (key % 256 == 0) {
         const TableMount::Audit audit = writing.audit();
         ASSERT_EQ(audit.problems, std::vector<std::string>());
         growths += audit.indexEntries != indexSize ? 1 : 0;
         indexSize = audit.indexEntries;
      }
   }
   EXPECT_GE(growths, 5U);
   EXPECT_EQ(contents(reading).size(), 20000U);
}

TEST_F(TableMountTest, KeysThatComeAndGoDoNotMakeTheIndexGrow) {
   TableMount writing(directory, "table", writer());
   const TableMount reading(directory, "table", reader());
   for (std::uint32_t key = 0; key < 100; ++key) {
      writing.put(bytes(key), bytes(key));
   }
   const TableMount::Audit before = writing.audit();
   for (std::uint32_t key = 100; key < 50000; ++key) {
      writing.put(bytes(key), bytes(key));
      ASSERT_TRUE(del(writing, key - 100));
      ASSERT_EQ(get(reading, key), bytes(key));
      ASSERT_EQ(get(reading, key - 100), std::nullopt);
      ASSERT_EQ(get(reading, key - 99), bytes(key - 99));
   }
   const TableMount::Audit after = writing.audit();
   EXPECT_EQ(after.problems, std::vector<std::string>());
   EXPECT_EQ(after.indexEntries, before.indexEntries);
   EXPECT_LE(after.slots, 102U);
   EXPECT_EQ(after.bytes, before.bytes);
}

TEST_F(TableMountTest, NextStepsThroughAllRecordsAlsoWhileTheyAreRemoved) {
   TableMount writing(directory, "table", writer());
   const TableMount reading(directory, "table", reader());
   for (std::uint32_t key = 0; key < 1000; ++key) {
      writing.put(bytes(key), bytes(key));
   }
   Words key(reading.keyWords());
   Words record(reading.recordWords());
   std::size_t seen = 0;
   for (std::uint32_t position = 0; reading.next(position, key, record); ++seen) {
      ASSERT_EQ(static_cast<std::uint32_t>(record[0]), number(key));
      ASSERT_TRUE(del(writing, number(key)));
   }
   EXPECT_EQ(seen, 1000U);
   std::uint32_t position = 0;
   EXPECT_EQ(reading.next(position, key, record), std::nullopt);
   EXPECT_EQ(reading.next(position, key, record), std::nullopt);
   position = 0xFFFFFFFF;
   EXPECT_EQ(reading.next(position, key, record), std::nullopt);
}

TEST_F(TableMountTest, AReaderMayNotWriteAndWritesNothing) {
   TableMount writing(directory, "table", writer());
   writing.put(bytes(1), bytes(2));
   TableMount reading(directory, "table", reader());
   const std::string before = content("table.tbl");
   Words record(reading.recordWords());
   EXPECT_EQ(errorOf([&] { reading.put(bytes(1), bytes(3)); }),
             "13 generic: shared table 'table' is mounted as a reader");
   EXPECT_EQ(codeOf([&] { reading.put(bytes(5), bytes(3)); }), EACCES);
   EXPECT_EQ(codeOf([&] { reading.del(bytes(1), record); }), EACCES);
   (void)reading.arm();
   (void)reading.audit();
   EXPECT_EQ(content("table.tbl"), before);
   EXPECT_EQ(get(reading, 1), bytes(2));
}

TEST_F(TableMountTest, AQuiescedWriterMayNotWriteUntilItIsAllowedAgain) {
   TableMount writing(directory, "table", writer());
   TableMount other(directory, "table", writer());
   writing.put(bytes(1), bytes(2));
   EXPECT_FALSE(writing.quiesced());
   writing.quiescedIs(true);
   EXPECT_TRUE(writing.quiesced());
   const std::string before = content("table.tbl");
   EXPECT_EQ(errorOf([&] { writing.put(bytes(1), bytes(3)); }),
             "16 generic: shared table 'table' is quiesced");
   EXPECT_EQ(codeOf([&] { del(writing, 1); }), EBUSY);
   EXPECT_EQ(content("table.tbl"), before);
   EXPECT_EQ(get(writing, 1), bytes(2));
   EXPECT_EQ(writing.audit().problems, std::vector<std::string>());
   other.put(bytes(1), bytes(4)); // only the mount that was asked
   writing.quiescedIs(false);
   EXPECT_FALSE(writing.put(bytes(1), bytes(5)));
}

TEST_F(TableMountTest, ATableOfAnotherShapeIsRefusedWithBothShapes) {
   { const TableMount mount(directory, "table", writer()); }
   const auto refused = [&](auto change) {
      TableShape other = shape();
      change(other);
      return errorOf([&] { const TableMount mount(directory, "table", reader(other)); });
   };
   EXPECT_EQ(refused([](TableShape& other) { other.keyType = "Other"; }),
             "22 generic: shared table 'table' is for Record under Key (12 bytes under 4), not for "
             "Record under Other (12 under 4)");
   EXPECT_EQ(refused([](TableShape& other) { other.recordType = "Other"; }),
             "22 generic: shared table 'table' is for Record under Key (12 bytes under 4), not for "
             "Other under Key (12 under 4)");
   EXPECT_THAT(refused([](TableShape& other) { other.keySize = 8; }), HasSubstr("(12 under 8)"));
   EXPECT_THAT(refused([](TableShape& other) { other.recordSize = 8; }), HasSubstr("(8 under 4)"));
   // How much it holds is the business of who made it.
   EXPECT_EQ(refused([](TableShape& other) { other.maxRecords = 5; }), "");
   EXPECT_EQ(refused([](TableShape& other) { other.journalEntries = 16; }), "");
   // Nothing of the refused ones is left.
   const TableMount mount(directory, "table", reader());
   EXPECT_EQ(mount.mounts().size(), 1U);
   EXPECT_EQ(mount.shape(), shape());
}

TEST_F(TableMountTest, WithoutAShapeAnyTableIsTaken) {
   { const TableMount mount(directory, "table", writer()); }
   const TableMount mount(directory, "table", {});
   EXPECT_EQ(mount.shape(), shape());
   EXPECT_EQ(mount.role(), TableRole::reader);
   EXPECT_EQ(mount.name(), "table");
   EXPECT_EQ(errorOf([&] { const TableMount other(directory, "other", {.create = true}); }),
             "22 generic: a table cannot be made without saying for what");
}

TEST_F(TableMountTest, ShapesOutOfRangeAreRefusedWithWhatIsWrong) {
   const auto refused = [&](auto change) {
      TableShape other = shape();
      change(other);
      return errorOf([&] { const TableMount mount(directory, "table", writer(other)); });
   };
   EXPECT_EQ(refused([](TableShape& of) { of.keySize = 0; }),
             "22 generic: a table's key size must be 1 to 256, not 0");
   EXPECT_EQ(refused([](TableShape& of) { of.keySize = 257; }),
             "22 generic: a table's key size must be 1 to 256, not 257");
   EXPECT_EQ(refused([](TableShape& of) { of.recordSize = 0; }),
             "22 generic: a table's record size must be 1 to 65535, not 0");
   EXPECT_EQ(refused([](TableShape& of) { of.recordSize = 65536; }),
             "22 generic: a table's record size must be 1 to 65535, not 65536");
   EXPECT_EQ(refused([](TableShape& of) { of.maxRecords = 0; }),
             "22 generic: a table's number of records must be 1 to 67108864, not 0");
   EXPECT_EQ(refused([](TableShape& of) { of.journalEntries = 8; }),
             "22 generic: a table's number of journal entries must be 16 to 1048576, not 8");
   EXPECT_EQ(refused([](TableShape& of) { of.journalEntries = 17; }),
             "22 generic: a table's number of journal entries must be a power of two, not 17");
   EXPECT_EQ(refused([](TableShape& of) { of.keyType = std::string(48, 'k'); }),
             "22 generic: the name of a table's key type must be up to 47 bytes, none of them "
             "zero");
   EXPECT_THAT(refused([](TableShape& of) { of.recordType = std::string("a\0b", 3); }),
               HasSubstr("record type"));
   EXPECT_FALSE(temp.has("tables"));
   EXPECT_EQ(refused([](TableShape& of) { of.keyType = std::string(47, 'k'); }), "");
}

TEST_F(TableMountTest, TheLargestTableThatCanBeMadeTakesMemoryOnlyForWhatItHolds) {
   TableShape of = shape();
   of.keySize = 256;
   of.recordSize = 65535;
#ifdef __SANITIZE_THREAD__
   of.maxRecords = 1U << 16; // it has addresses for no more
#else
   of.maxRecords = 1U << 26;
#endif
   of.journalEntries = 16;
   TableMount writing(directory, "table", writer(of));
   writing.put(Bytes(256, 1), Bytes(65535, 2));
   EXPECT_EQ(get(writing, Bytes(256, 1)), Bytes(65535, 2));
   EXPECT_LT(writing.audit().bytes, 32U << 20);
}

TEST_F(TableMountTest, AuditTellsTheFigures) {
   TableMount writing(directory, "table", writer());
   for (std::uint32_t key = 0; key < 10; ++key) {
      writing.put(bytes(key), bytes(key));
   }
   del(writing, 3);
   const TableMount::Audit audit = writing.audit();
   EXPECT_EQ(audit.records, 9U);
   EXPECT_EQ(audit.slots, 10U);
   EXPECT_EQ(audit.freeSlots, 1U);
   EXPECT_EQ(audit.indexEntries, 512U);
   EXPECT_EQ(audit.changes, 11U);
   EXPECT_EQ(audit.recoveries, 0U);
   EXPECT_GT(audit.bytes, 4096U);
   EXPECT_EQ(audit.problems, std::vector<std::string>());
}

TEST_F(TableMountTest, AStampIsOfOneWriteOfOneRecord) {
   TableMount writing(directory, "table", writer());
   const TableMount reading(directory, "table", reader());
   Words record(reading.recordWords());
   const auto stampOf = [&](std::uint32_t key) {
      TableMount::Stamp stamp;
      reading.get(bytes(key), record, stamp);
      return stamp;
   };
   EXPECT_EQ(stampOf(7), TableMount::Stamp()) << "there is none";
   std::vector<TableMount::Stamp> seen;
   const auto isNew = [&](const TableMount::Stamp& stamp) {
      const bool is = std::find(seen.begin(), seen.end(), stamp) == seen.end();
      seen.push_back(stamp);
      return is && stamp != TableMount::Stamp();
   };
   for (int i = 0; i < 3; ++i) {
      for (const std::uint32_t key : {7U, 8U}) {
         writing.put(bytes(key), bytes(1));
         EXPECT_TRUE(isNew(stampOf(key)));
         writing.put(bytes(key), bytes(1));
         EXPECT_TRUE(isNew(stampOf(key))) << "the same record, written again";
         EXPECT_EQ(stampOf(key), seen.back()) << "until the next write";
      }
      // Their slots are used again.
      del(writing, 7);
      del(writing, 8);
   }
   writing.put(bytes(7), bytes(1));
   Words key(reading.keyWords());
   std::uint32_t position = 0;
   TableMount::Stamp stamp;
   ASSERT_TRUE(reading.next(position, key, record, stamp));
   EXPECT_EQ(stamp, stampOf(7));
   EXPECT_FALSE(reading.next(position, key, record, stamp));
   EXPECT_EQ(stamp, stampOf(7)) << "nothing found, nothing changed";
}

} // namespace
