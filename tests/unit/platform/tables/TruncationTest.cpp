// Files that are cut off while they are mounted: every access behind the end is a bus error.

#include <gmock/gmock.h>
#include <unistd.h>

#include "platform/tables/private/Geometry.h"
#include "tests/unit/platform/tables/TableFixture.h"

namespace {

using namespace TablesTest;

class CutOff : public TableFixture {
protected:
   CutOff() {
      for (std::uint32_t key = 0; key < 1000; ++key) {
         writing->put(bytes(key), bytes(key));
         other.put(bytes(key), bytes(key));
      }
   }
   void cut(const std::string& name, std::size_t size) {
      ASSERT_EQ(::truncate(file(name).c_str(), static_cast<off_t>(size)), 0);
   }
   /// The others of the process know nothing of it.
   ~CutOff() override {
      for (std::uint32_t key = 0; key < 1000; ++key) {
         EXPECT_EQ(get(other, key), bytes(key));
      }
      other.put(bytes(1), bytes(2));
      EXPECT_EQ(other.audit().problems, std::vector<std::string>());
   }

   static constexpr const char* isGone =
      "corrupted: shared table 'table' is corrupted: its memory is gone (the file was cut off, or "
      "there is none left)";

   std::unique_ptr<TableMount> writing = std::make_unique<TableMount>(directory, "table", writer());
   std::unique_ptr<TableMount> reading = std::make_unique<TableMount>(directory, "table", reader());
   TableMount other{directory, "other", writer()};
};

TEST_F(CutOff, TablesAreFoundCorruptedByEveryFunction) {
   using Function = std::function<void(TableMount&)>;
   Words key(reading->keyWords());
   Words record(reading->recordWords());
   const std::vector<Function> functions = {
      [&](TableMount& mount) { (void)mount.get(bytes(1), record); },
      [&](TableMount& mount) { (void)mount.count(); },
      [&](TableMount& mount) {
         std::uint32_t position = 0;
         (void)mount.next(position, key, record);
      },
      [&](TableMount& mount) { (void)mount.nextChange(key); },
      [&](TableMount& mount) { (void)mount.preparedChange(key); },
      [&](TableMount& mount) { (void)mount.arm(); },
      [&](TableMount& mount) { (void)mount.audit(); },
   };
   writing.reset();
   reading.reset();
   directory.tableDel("table");
   for (const Function& function : functions) {
      for (const bool writes : {false, true}) {
         const std::string name = "table";
         TableMount mount(directory, name, writer());
         mount.put(bytes(1), bytes(1));
         TableMount reads(directory, name, reader());
         cut("table.tbl", 0);
         EXPECT_EQ(errorOf([&] { function(writes ? mount : reads); }), isGone);
         EXPECT_EQ(errorOf([&] { function(writes ? mount : reads); }), isGone);
         directory.tableDel(name, true);
      }
   }
}

TEST_F(CutOff, TablesAreFoundCorruptedByWriters) {
   cut("table.tbl", 0);
   EXPECT_EQ(errorOf([&] { writing->put(bytes(1), bytes(2)); }), isGone);
   EXPECT_EQ(errorOf([&] { del(*writing, 1); }), isGone);
   EXPECT_EQ(errorOf([&] { reading->put(bytes(1), bytes(2)); }),
             "13 generic: shared table 'table' is mounted as a reader");
}

TEST_F(CutOff, TablesGiveWhatIsLeftOrSayThatTheyAreCorruptedWhereverTheyAreCut) {
   const std::size_t size = content("table.tbl").size();
   writing.reset();
   reading.reset();
   directory.tableDel("table");
   const Geometry geometry(shape());
   for (const std::size_t at :
        {std::size_t{0}, std::size_t{1}, std::size_t{4096}, std::size_t{8192}, std::size_t{12288},
         geometry.indexOffset[0], geometry.indexOffset[0] + 4096, geometry.indexOffset[1],
         geometry.indexOffset[1] + 4096, geometry.slotsOffset, geometry.slotsOffset + 4096,
         geometry.slotsOffset + 500 * geometry.slotStride, size - 4096}) {
      TableMount writes(directory, "table", writer());
      for (std::uint32_t key = 0; key < 1000; ++key) {
         writes.put(bytes(key), bytes(key));
      }
      TableMount reads(directory, "table", reader());
      cut("table.tbl", at);
      const auto check = [&](TableMount& mount, std::uint32_t written) {
         for (std::uint32_t key = 0; key < 1000; ++key) {
            (void)errorOf([&] {
               const std::optional<Bytes> found = get(mount, key);
               ASSERT_EQ(found, key < written ? bytes(key + 1) : bytes(key)) << at;
            });
         }
         (void)errorOf([&] { ASSERT_EQ(contents(mount).size(), 1000U); });
         (void)errorOf([&] { ASSERT_EQ(mount.count(), 1000U); });
      };
      check(reads, 0);
      std::uint32_t written = 0;
      while (written < 1000 &&
             errorOf([&] { writes.put(bytes(written), bytes(written + 1)); }).empty()) {
         ++written;
      }
      EXPECT_EQ(written == 1000, at == size - 4096) << at;
      TableMount::Options any = {};
      EXPECT_NE(errorOf([&] { const TableMount mount(directory, "table", any); }), "");
      // Too late: what was there is lost.
      cut("table.tbl", size);
      if (at < geometry.slotsOffset + 1000 * geometry.slotStride) {
         EXPECT_NE(errorOf([&] { const TableMount mount(directory, "table", writer()); }), "")
            << at;
         EXPECT_NE(errorOf([&] { writes.put(bytes(1), bytes(1)); }), "") << at;
      }
      directory.tableDel("table", true);
   }
}

TEST_F(CutOff, WakeWordsAreFoundCorruptedByWhoeverNeedsThem) {
   EXPECT_TRUE(writing->arm());
   cut("table.ctl", 0);
   EXPECT_EQ(get(*reading, 7), bytes(7)); // does not need them
   EXPECT_EQ(errorOf([&] { writing->put(bytes(1), bytes(2)); }), isGone);
   EXPECT_EQ(errorOf([&] { (void)reading->arm(); }), isGone);
   EXPECT_EQ(errorOf([&] { const TableMount mount(directory, "table", writer()); }), isGone);
}

TEST_F(CutOff, BellsRingAllTheSame) {
   cut("table.bell", 0);
   EXPECT_NE(changes(*reading), "");
   EXPECT_TRUE(reading->arm());
   writing->put(bytes(1), bytes(2));
   EXPECT_EQ(changes(*reading), "1");
   EXPECT_EQ(content("table.bell").size(), 1U);
}

} // namespace
