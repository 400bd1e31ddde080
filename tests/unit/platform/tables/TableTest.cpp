#include "platform/tables/Table.h"

#include <gmock/gmock.h>

#include <algorithm>

#include "platform/entity/EventLoop.h"
#include "platform/tables/TableService.h"
#include "tests/unit/platform/tables/TestRecords.h"

namespace {

using namespace TablesTest;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

class TypedTable : public TableFixture {
protected:
   static TableBase::MountOptions writes() { return {.role = TableRole::writer}; }

   Platform::EventLoop loop;
   TableService service{loop, directory};
   NumberOwner owner{"numbers"};
   TextOwner texts{"texts"};
};

NumberRecord record(std::uint32_t key, std::uint64_t value) {
   return {.itsKey = {key}, .value = value};
}

TEST_F(TypedTable, KeepsRecordsUnderTheirKeys) {
   Table<NumberRecord>& table = *owner.table;
   table.mount(service, writes());
   EXPECT_EQ(table.get({1}), std::nullopt);
   EXPECT_FALSE(table.has({1}));
   table.put(record(1, 100));
   table.put(record(2, 200));
   EXPECT_EQ(table.get({1}), record(1, 100));
   EXPECT_TRUE(table.has({2}));
   EXPECT_EQ(table.size(), 2U);
   table.put(record(1, 101));
   EXPECT_EQ(table.get({1}), record(1, 101));
   EXPECT_THAT(table.keys(), UnorderedElementsAre(NumberKey{1}, NumberKey{2}));
   EXPECT_EQ(table.del({1}), record(1, 101));
   EXPECT_EQ(table.del({1}), std::nullopt);
   EXPECT_EQ(table.size(), 1U);
   EXPECT_TRUE(owner.told.empty());
}

TEST_F(TypedTable, KeepsRecordsOfVaryingLength) {
   Table<TextRecord>& table = *texts.table;
   table.mount(service, writes());
   for (std::size_t size = 0; size <= TextRecord::maxText; ++size) {
      const TextRecord text{.itsKey = {7}, .text = std::string(size, 'x')};
      table.put(text);
      ASSERT_EQ(table.get({7}), text);
   }
   table.put({.itsKey = {7}, .text = ""});
   EXPECT_EQ(table.get({7})->text, "");
   EXPECT_EQ(table.size(), 1U);
}

TEST_F(TypedTable, RefusesARecordThatIsLongerThanItsTypeSays) {
   texts.table->mount(service, writes());
   EXPECT_EQ(errorOf([&] { texts.table->put({.itsKey = {1}, .text = std::string(200, 'x')}); }),
             "22 generic: a record of shared table 'texts' has up to 55 bytes, not 205");
   EXPECT_EQ(texts.table->size(), 0U);
}

TEST_F(TypedTable, IsForItsTypesOnly) {
   owner.table->mount(service, writes());
   TextOwner other("numbers");
   EXPECT_EQ(errorOf([&] { other.table->mount(service, writes()); }),
             "22 generic: shared table 'numbers' is for Test::NumberRecord under Test::NumberKey "
             "(12 bytes under 4), not for Test::TextRecord under Test::NumberKey (55 under 4)");
   EXPECT_EQ(other.table->mountStatus(), MountStatus::failed);
   EXPECT_THAT(other.table->statusText(), testing::StartsWith("shared table 'numbers' is for"));
}

TEST_F(TypedTable, BytesThatAreNoRecordAreDamage) {
   texts.table->mount(service, writes());
   texts.table->put({.itsKey = {1}, .text = "good"});
   TableMount raw(directory, "texts", {.role = TableRole::writer});
   raw.put(bytes(2), Bytes{2, 0, 0, 0, 200});
   const std::string isNone =
      "corrupted: shared table 'texts' is corrupted: a record is no Test::TextRecord";
   EXPECT_EQ(errorOf([&] { (void)texts.table->get({2}); }), isNone);
   EXPECT_EQ(errorOf([&] { texts.table->forEach([](const TextRecord&) {}); }), isNone);
   EXPECT_EQ(texts.table->get({1})->text, "good");
   EXPECT_EQ(texts.table->keys().size(), 2U);
   EXPECT_EQ(errorOf([&] { (void)texts.table->del({2}); }), isNone);
   EXPECT_EQ(texts.table->mountStatus(), MountStatus::mounted); // until somebody minds
}

TEST_F(TypedTable, CanBeUsedOnlyWhileItIsMounted) {
   Table<NumberRecord>& table = *owner.table;
   const auto check = [&] {
      const std::string none = "107 generic: shared table 'numbers' is not mounted";
      EXPECT_EQ(errorOf([&] { (void)table.get({1}); }), none);
      EXPECT_EQ(errorOf([&] { (void)table.has({1}); }), none);
      EXPECT_EQ(errorOf([&] { table.put(record(1, 1)); }), none);
      EXPECT_EQ(errorOf([&] { (void)table.del({1}); }), none);
      EXPECT_EQ(errorOf([&] { (void)table.size(); }), none);
      EXPECT_EQ(errorOf([&] { (void)table.keys(); }), none);
      EXPECT_EQ(errorOf([&] { table.forEach([](const NumberRecord&) {}); }), none);
      EXPECT_EQ(errorOf([&] { (void)table.directWrite(); }), none);
      EXPECT_EQ(table.tableMount(), nullptr);
      EXPECT_EQ(table.role(), TableRole::reader);
   };
   check();
   table.unmount();
   EXPECT_TRUE(owner.statuses.empty());
   table.mount(service, writes());
   table.mount(service, {}); // does nothing
   EXPECT_EQ(table.role(), TableRole::writer);
   table.put(record(1, 1));
   EXPECT_NE(table.tableMount(), nullptr);
   table.unmount();
   table.unmount();
   check();
   table.mount(service, writes());
   EXPECT_EQ(table.get({1}), record(1, 1));
   EXPECT_THAT(owner.statuses, ElementsAre("mounted", "unmounted", "mounted"));
}

TEST_F(TypedTable, AReadersWritesAreRefused) {
   { NumberOwner("numbers").table->mount(service, writes()); }
   owner.table->mount(service, {});
   EXPECT_EQ(codeOf([&] { owner.table->put(record(1, 1)); }), EACCES);
   EXPECT_EQ(codeOf([&] { (void)owner.table->del({1}); }), EACCES);
   EXPECT_EQ(owner.table->size(), 0U);
}

TEST_F(TypedTable, WithoutLeaveToMakeItATableThatIsNotThereIsNotMounted) {
   EXPECT_EQ(codeOf([&] { owner.table->mount(service, {.create = false}); }), ENOENT);
   EXPECT_THAT(owner.statuses, ElementsAre("failed"));
   EXPECT_FALSE(temp.has("tables"));
   owner.table->mount(service, {});
   EXPECT_THAT(owner.statuses, ElementsAre("failed", "mounted"));
   EXPECT_EQ(owner.table->statusText(), "");
}

TEST_F(TypedTable, ADirectWriteIsSeenOnceItIsCommitted) {
   Table<NumberRecord>& table = *owner.table;
   table.mount(service, writes());
   NumberRecord* const direct = table.directWrite();
   EXPECT_EQ(*direct, NumberRecord());
   *direct = record(1, 100);
   EXPECT_EQ(table.get({1}), std::nullopt);
   table.put(record(1, 5)); // nobody waits for it
   table.commit(direct);
   EXPECT_EQ(table.get({1}), record(1, 100));
   EXPECT_EQ(*table.directWrite(), NumberRecord());
}

TEST_F(TypedTable, ADirectWriteIsCommittedOrAbandonedOnce) {
   Table<NumberRecord>& table = *owner.table;
   table.mount(service, writes());
   const NumberRecord foreign = record(1, 1);
   const std::string unpaired =
      "logic: shared table 'numbers': a commit without the direct write that belongs to it";
   EXPECT_EQ(errorOf([&] { table.commit(&foreign); }), unpaired);
   EXPECT_EQ(errorOf([&] { table.commit(nullptr); }), unpaired);
   NumberRecord* const direct = table.directWrite();
   *direct = record(2, 2);
   EXPECT_EQ(errorOf([&] { (void)table.directWrite(); }),
             "logic: shared table 'numbers': a direct write is under way; commit or abandon it "
             "first");
   EXPECT_EQ(errorOf([&] { table.commit(&foreign); }), unpaired);
   EXPECT_EQ(errorOf([&] { table.abandon(&foreign); }), unpaired);
   table.abandon(direct);
   EXPECT_EQ(errorOf([&] { table.commit(direct); }), unpaired);
   EXPECT_EQ(errorOf([&] { table.abandon(direct); }), unpaired);
   EXPECT_EQ(table.size(), 0U);
   table.commit(table.directWrite());
   EXPECT_EQ(table.size(), 1U);
}

TEST_F(TypedTable, ADirectWriteThatCannotBeCommittedIsGivenBack) {
   Table<NumberRecord>& table = *owner.table;
   table.mount(service, writes());
   NumberRecord* direct = table.directWrite();
   table.quiescedIs(true);
   EXPECT_EQ(codeOf([&] { table.commit(direct); }), EBUSY);
   table.quiescedIs(false);
   direct = table.directWrite();
   table.unmount();
   EXPECT_EQ(codeOf([&] { table.commit(direct); }), ENOTCONN);
   table.mount(service, writes());
   table.commit(table.directWrite());
   EXPECT_EQ(table.size(), 1U);
}

TEST_F(TypedTable, CanBeWrittenWhileItIsVisited) {
   Table<NumberRecord>& table = *owner.table;
   table.mount(service, writes());
   for (std::uint32_t key = 0; key < 100; ++key) {
      table.put(record(key, key));
   }
   std::size_t visited = 0;
   table.forEach([&](const NumberRecord& each) {
      ++visited;
      EXPECT_EQ(each.value, each.itsKey.value);
      EXPECT_EQ(table.del(each.key()), each);
      if (each.itsKey.value == 0) {
         table.put(record(1000, 1000)); // may be seen or not
      }
   });
   EXPECT_GE(visited, 100U);
   EXPECT_LE(table.size(), 1U);
}

TEST_F(TypedTable, UnmountedByTheOneWhoVisitsItEndsTheVisit) {
   Table<NumberRecord>& table = *owner.table;
   table.mount(service, writes());
   table.put(record(1, 1));
   table.put(record(2, 2));
   unsigned visited = 0;
   EXPECT_EQ(codeOf([&] {
                table.forEach([&](const NumberRecord&) {
                   ++visited;
                   table.unmount();
                });
             }),
             ENOTCONN);
   EXPECT_EQ(visited, 1U);
   table.mount(service, writes());
   EXPECT_EQ(table.size(), 2U);
}

TEST_F(TypedTable, ThatIsQuiescedIsSoAtItsNextMountAsWell) {
   Table<NumberRecord>& table = *owner.table;
   table.quiescedIs(true);
   table.quiescedIs(true);
   EXPECT_EQ(owner.quiesced, std::vector<bool>{true});
   table.mount(service, writes());
   EXPECT_EQ(codeOf([&] { table.put(record(1, 1)); }), EBUSY);
   EXPECT_TRUE(table.tableMount()->mounts().at(0).quiesced);
   table.quiescedIs(false);
   table.put(record(1, 1));
   EXPECT_FALSE(table.tableMount()->mounts().at(0).quiesced);
   EXPECT_EQ(owner.quiesced, (std::vector<bool>{true, false}));
}

TEST_F(TypedTable, KnowsItsParentWithoutKeepingIt) {
   EXPECT_FALSE(owner.table->parent());
   Platform::Ptr<Platform::Node> parent = Platform::make<Platform::Node>();
   owner.table->parentIs(parent);
   EXPECT_EQ(owner.table->parent(), parent);
   parent = nullptr;
   EXPECT_FALSE(owner.table->parent());
}

} // namespace
