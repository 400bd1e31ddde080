#include "TarnRegFile/TableEntity.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <map>
#include <stdexcept>
#include <system_error>

#include "platform/metrics/Exposer.h"
#include "platform/metrics/Registry.h"
#include "platform/tables/TableMount.h"
#include "tests/support/Failure.h"
#include "tests/unit/platform/metrics/HttpGet.h"
#include "tests/unit/TarnRegFile/RegisterTables.h"

namespace {

using namespace RegisterTables;
using TestSupport::Failure;

/// The counters of a table as they are exposed: attempts, removals, published changes.
struct Counts {
   std::uint64_t is = 0;
   std::uint64_t del = 0;
   std::uint64_t notify = 0;

   friend bool operator==(const Counts&, const Counts&) = default;
   friend std::ostream& operator<<(std::ostream& out, const Counts& counts) {
      return out << counts.is << " written, " << counts.del << " removed, " << counts.notify
                 << " published";
   }
};

template <typename T>
class TableEntity : public Fixture<T> {
protected:
   using Fixture<T>::side;

   /// As whoever collects them sees them; throws if one is not there.
   static Counts counts(const std::string& name = "table") {
      const Platform::Metrics::Exposer exposer(Platform::Metrics::processRegistry(), ":0");
      const std::string page = Platform::Metrics::Test::exposition(exposer.port());
      const auto count = [&](const char* operation) -> std::uint64_t {
         const std::string collection = T::collection;
         const std::string line = "\n" + collection + operation + "{table=\"" + name +
                                  "\",type=\"" + T::className + "\"} ";
         const std::size_t at = page.find(line);
         if (at == std::string::npos) {
            throw std::runtime_error("not exposed: " + line + "\n" + page);
         }
         return std::stoull(page.substr(at + line.size()));
      };
      return {count("Is"), count("Del"), count("Notify")};
   }

   Failure failureOf(const std::function<void()>& body) { return Failure(body); }
};

TYPED_TEST_SUITE(TableEntity, All, Names);

TYPED_TEST(TableEntity, AWriteInsertsOrReplacesAndPublishesTheKey) {
   Mounted<TypeParam> table(this->side, "table");
   const ChangeLog log(*table.entity);
   table.is(7, 70);
   EXPECT_TRUE(table.has(7, 70));
   table.is(7, 71);
   table.is(8, 80);
   EXPECT_TRUE(table.has(7, 71));
   EXPECT_TRUE(table.has(8, 80));
   EXPECT_EQ(table.table().size(), 2U);
   EXPECT_EQ(log.changes, (Changes{this->change(7), this->change(7), this->change(8)}));
   EXPECT_EQ(this->counts(), (Counts{3, 0, 3}));
}

TYPED_TEST(TableEntity, AnEqualValueIsWrittenPublishedAndCountedAllTheSame) {
   Mounted<TypeParam> table(this->side, "table");
   table.is(7, 70);
   const std::uint64_t before = table.table().tableMount()->audit().changes;
   const ChangeLog log(*table.entity);
   table.is(7, 70);
   EXPECT_EQ(log.changes, Changes{this->change(7)});
   EXPECT_EQ(table.table().tableMount()->audit().changes, before + 1);
   EXPECT_EQ(this->counts(), (Counts{2, 0, 2}));
}

TYPED_TEST(TableEntity, WhoIsToldFindsTheValueWrittenAlreadyHereAndInOtherProcesses) {
   Mounted<TypeParam> table(this->side, "table");
   table.is(7, 70);
   int told = 0;
   const ChangeLog log(*table.entity, [&] {
      ++told;
      EXPECT_TRUE(table.has(7, 71));
      EXPECT_TRUE(inAnotherProcess([&] {
         Side other(this->directory());
         const Mounted<TypeParam> reading(other, "table", TableRole::reader);
         EXPECT_TRUE(reading.has(7, 71));
      }));
   });
   table.is(7, 71);
   EXPECT_EQ(told, 1);
}

TYPED_TEST(TableEntity, TheAttemptIsCountedBeforeAnybodyIsTold) {
   Mounted<TypeParam> table(this->side, "table");
   std::vector<Counts> seen;
   const ChangeLog log(*table.entity, [&] { seen.push_back(this->counts()); });
   table.is(7, 70);
   table.del(7);
   ASSERT_EQ(seen.size(), 2U);
   EXPECT_EQ(seen[0].is, 1U);
   EXPECT_EQ(seen[0].del, 0U);
   EXPECT_EQ(seen[1].del, 1U);
}

TYPED_TEST(TableEntity, ANotifieesExceptionReachesTheWriterWhoseRecordIsWrittenAndCounted) {
   Mounted<TypeParam> table(this->side, "table");
   const ChangeLog log(*table.entity, [] { throw std::out_of_range("told"); });
   EXPECT_EQ(Failure([&] { table.is(7, 70); }), Failure::outOfRange("told"));
   EXPECT_TRUE(table.has(7, 70));
   EXPECT_EQ(this->counts(), (Counts{1, 0, 1}));
}

TYPED_TEST(TableEntity, ADirectWriteIsSeenByNobodyUntilItIsCommitted) {
   Mounted<TypeParam> table(this->side, "table");
   const ChangeLog log(*table.entity);
   auto* const record = call<TypeParam::directWrite>(*table.entity);
   ASSERT_TRUE(record);
   *record = TypeParam::record(7, 70);
   EXPECT_EQ(table.table().size(), 0U);
   EXPECT_EQ(log.changes, Changes());
   EXPECT_EQ(this->counts(), (Counts{0, 0, 0}));
   call<TypeParam::commit>(*table.entity, record);
   EXPECT_TRUE(table.has(7, 70));
   EXPECT_EQ(log.changes, Changes{this->change(7)});
   EXPECT_EQ(this->counts(), (Counts{1, 0, 1}));
}

TYPED_TEST(TableEntity, ASecondDirectWriteIsRefusedUntilTheFirstIsCommittedOrAbandoned) {
   Mounted<TypeParam> table(this->side, "table");
   auto* const record = call<TypeParam::directWrite>(*table.entity);
   *record = TypeParam::record(7, 70);
   EXPECT_THROW(call<TypeParam::directWrite>(*table.entity), std::logic_error);
   EXPECT_EQ(*record, TypeParam::record(7, 70)); // nothing became of the first one
   call<TypeParam::commit>(*table.entity, record);
   EXPECT_TRUE(table.has(7, 70));

   auto* const second = call<TypeParam::directWrite>(*table.entity);
   EXPECT_EQ(*second, typename TypeParam::Record()); // fresh
   call<TypeParam::abandon>(*table.entity, second);
   EXPECT_TRUE(call<TypeParam::directWrite>(*table.entity));
}

TYPED_TEST(TableEntity, OnlyWhatTheDirectWriteGaveCanBeCommittedAndOnlyOnce) {
   Mounted<TypeParam> table(this->side, "table");
   const ChangeLog log(*table.entity);
   const auto foreign = TypeParam::record(9, 90);
   EXPECT_THROW(call<TypeParam::commit>(*table.entity, &foreign), std::logic_error);
   EXPECT_THROW(call<TypeParam::commit>(*table.entity, nullptr), std::logic_error);

   auto* const record = call<TypeParam::directWrite>(*table.entity);
   *record = TypeParam::record(7, 70);
   EXPECT_THROW(call<TypeParam::commit>(*table.entity, &foreign), std::logic_error);
   EXPECT_THROW(call<TypeParam::abandon>(*table.entity, &foreign), std::logic_error);
   EXPECT_EQ(table.table().size(), 0U);
   EXPECT_EQ(log.changes, Changes());
   EXPECT_EQ(this->counts(), (Counts{3, 0, 0})); // attempts

   call<TypeParam::commit>(*table.entity, record);
   EXPECT_THROW(call<TypeParam::commit>(*table.entity, record), std::logic_error);
   EXPECT_THROW(call<TypeParam::abandon>(*table.entity, record), std::logic_error);
   EXPECT_EQ(table.table().size(), 1U);
   EXPECT_EQ(log.changes, Changes{this->change(7)});
   EXPECT_EQ(this->counts(), (Counts{5, 0, 1}));
}

TYPED_TEST(TableEntity, AnAbandonedDirectWriteLeavesNothing) {
   Mounted<TypeParam> table(this->side, "table");
   const ChangeLog log(*table.entity);
   auto* const record = call<TypeParam::directWrite>(*table.entity);
   *record = TypeParam::record(7, 70);
   call<TypeParam::abandon>(*table.entity, record);
   EXPECT_THROW(call<TypeParam::commit>(*table.entity, record), std::logic_error);
   EXPECT_EQ(table.table().size(), 0U);
   EXPECT_EQ(log.changes, Changes());
   EXPECT_EQ(this->counts(), (Counts{1, 0, 0}));
}

TYPED_TEST(TableEntity, WhoIsToldOfACommitMayBeginTheNextDirectWrite) {
   Mounted<TypeParam> table(this->side, "table");
   int left = 2;
   const ChangeLog log(*table.entity, [&] {
      if (left-- > 0) {
         auto* const next = call<TypeParam::directWrite>(*table.entity);
         *next = TypeParam::record(10 + left, 1);
         call<TypeParam::commit>(*table.entity, next);
      }
   });
   auto* const record = call<TypeParam::directWrite>(*table.entity);
   *record = TypeParam::record(7, 70);
   call<TypeParam::commit>(*table.entity, record);
   EXPECT_EQ(log.changes, (Changes{this->change(7), this->change(11), this->change(10)}));
   EXPECT_EQ(table.table().size(), 3U);
}

TYPED_TEST(TableEntity, ARemovalReturnsTheRecordAndPublishesTheKey) {
   Mounted<TypeParam> table(this->side, "table");
   table.is(7, 70);
   table.is(8, 80);
   bool wasGone = false;
   const ChangeLog log(*table.entity, [&] { wasGone = !table.table().has(TypeParam::key(7)); });
   EXPECT_EQ(table.del(7), TypeParam::record(7, 70));
   EXPECT_TRUE(wasGone);
   EXPECT_TRUE(table.has(8, 80));
   EXPECT_EQ(table.table().size(), 1U);
   EXPECT_EQ(log.changes, Changes{this->change(7)});
   EXPECT_EQ(this->counts(), (Counts{2, 1, 3}));
}

TYPED_TEST(TableEntity, RemovingAnAbsentKeyReturnsTheEmptyRecordAndIsCountedOnly) {
   Mounted<TypeParam> table(this->side, "table");
   table.is(8, 80);
   const std::uint64_t before = table.table().tableMount()->audit().changes;
   const ChangeLog log(*table.entity);
   EXPECT_EQ(table.del(7), typename TypeParam::Record());
   EXPECT_EQ(log.changes, Changes());
   EXPECT_EQ(table.table().tableMount()->audit().changes, before);
   EXPECT_TRUE(table.has(8, 80));
   EXPECT_EQ(this->counts(), (Counts{1, 1, 1}));
}

TYPED_TEST(TableEntity, RemovingAllPublishesEachKeyOnce) {
   Mounted<TypeParam> table(this->side, "table");
   for (std::uint32_t number = 1; number <= 5; ++number) {
      table.is(number, number);
   }
   std::vector<std::size_t> sizes;
   const ChangeLog log(*table.entity, [&] { sizes.push_back(table.table().size()); });
   call<TypeParam::delAll>(*table.entity);
   EXPECT_THAT(log.changes,
               testing::UnorderedElementsAre(this->change(1), this->change(2), this->change(3),
                                             this->change(4), this->change(5)));
   EXPECT_EQ(sizes, (std::vector<std::size_t>{4, 3, 2, 1, 0})); // one at a time
   EXPECT_EQ(this->counts(), (Counts{5, 5, 10}));
}

TYPED_TEST(TableEntity, RemovingAllOfNothingDoesNothing) {
   Mounted<TypeParam> table(this->side, "table");
   const ChangeLog log(*table.entity);
   call<TypeParam::delAll>(*table.entity);
   EXPECT_EQ(log.changes, Changes());
   EXPECT_EQ(this->counts(), (Counts{0, 0, 0}));
}

TYPED_TEST(TableEntity, WhoIsToldOfARemovalMayRemoveOthersWhichArePublishedOnceOnly) {
   Mounted<TypeParam> table(this->side, "table");
   for (std::uint32_t number = 1; number <= 4; ++number) {
      table.is(number, number);
   }
   bool first = true;
   const ChangeLog log(*table.entity, [&] {
      if (std::exchange(first, false)) {
         for (std::uint32_t number = 1; number <= 4; ++number) {
            table.del(number);
         }
      }
   });
   call<TypeParam::delAll>(*table.entity);
   EXPECT_THAT(log.changes, testing::UnorderedElementsAre(this->change(1), this->change(2),
                                                          this->change(3), this->change(4)));
   EXPECT_EQ(table.table().size(), 0U);
   EXPECT_EQ(this->counts(), (Counts{4, 8, 8})); // every attempt, four of them in vain
}

TYPED_TEST(TableEntity, WhoIsToldWhileAllAreRemovedMayLetTheEntityGo) {
   {
      Mounted<TypeParam> table(this->side, "table");
      for (std::uint32_t number = 1; number <= 3; ++number) {
         table.is(number, number);
      }
      // Neither the control nor anybody else keeps it.
      call<TypeParam::controlIs>(*table.entity, nullptr);
      Platform::WeakPtr<typename TypeParam::Entity> entity(table.entity);
      const ChangeLog log(*table.entity, [&] { table.entity = nullptr; });
      call<TypeParam::delAll>(*table.entity);
      EXPECT_EQ(log.changes.size(), 3U);
      EXPECT_FALSE(entity.lock());
   }
   const Mounted<TypeParam> again(this->side, "table");
   EXPECT_EQ(again.table().size(), 0U);
}

TYPED_TEST(TableEntity, WhoIsToldOfAWriteOrARemovalMayLetTheEntityGo) {
   for (const bool removal : {false, true}) {
      Mounted<TypeParam> table(this->side, "table");
      table.is(7, 70);
      call<TypeParam::controlIs>(*table.entity, nullptr);
      auto& entity = *table.entity;
      const ChangeLog log(entity, [&] { table.entity = nullptr; });
      if (removal) {
         EXPECT_EQ(call<TypeParam::del>(entity, TypeParam::key(7)), TypeParam::record(7, 70));
      } else {
         call<TypeParam::is>(entity, TypeParam::record(7, 71));
      }
      EXPECT_EQ(log.changes, Changes{this->change(7)});
   }
}

TYPED_TEST(TableEntity, AnExceptionWhileAllAreRemovedLeavesTheRest) {
   Mounted<TypeParam> table(this->side, "table");
   for (std::uint32_t number = 1; number <= 3; ++number) {
      table.is(number, number);
   }
   const ChangeLog log(*table.entity, [] { throw std::out_of_range("told"); });
   EXPECT_EQ(Failure([&] { call<TypeParam::delAll>(*table.entity); }), Failure::outOfRange("told"));
   EXPECT_EQ(log.changes.size(), 1U);
   EXPECT_EQ(table.table().size(), 2U);
}

TYPED_TEST(TableEntity, ANotificationPublishesAndCountsWithoutWriting) {
   Mounted<TypeParam> table(this->side, "table");
   table.is(7, 70);
   const std::uint64_t before = table.table().tableMount()->audit().changes;
   const ChangeLog log(*table.entity);
   call<TypeParam::notify>(*table.entity, TypeParam::key(7));
   call<TypeParam::notify>(*table.entity, TypeParam::key(8)); // whether it is there or not
   EXPECT_EQ(log.changes, (Changes{this->change(7), this->change(8)}));
   EXPECT_EQ(table.table().tableMount()->audit().changes, before);
   EXPECT_EQ(table.table().size(), 1U);
   EXPECT_EQ(this->counts(), (Counts{1, 0, 3}));
}

TYPED_TEST(TableEntity, ANotificationNeedsNoMount) {
   const auto entity = TypeParam::factory("table");
   const ChangeLog log(*entity);
   call<TypeParam::notify>(*entity, TypeParam::key(7));
   EXPECT_EQ(log.changes, Changes{this->change(7)});
   EXPECT_EQ(this->counts(), (Counts{0, 0, 1}));
   EXPECT_FALSE(this->temp.has("tables"));
}

TYPED_TEST(TableEntity, AReadersWritesAreRefusedByTheServiceWithNothingWrittenOrPublished) {
   Mounted<TypeParam> writing(this->side, "table");
   writing.is(7, 70);
   const std::uint64_t before = writing.table().tableMount()->audit().changes;
   const Failure refusal = Failure::generic(EACCES, "shared table 'table' is mounted as a reader");
   EXPECT_TRUE(inAnotherProcess([&] {
      Side other(this->directory());
      Mounted<TypeParam> reading(other, "table", TableRole::reader);
      const ChangeLog log(*reading.entity);
      EXPECT_EQ(Failure([&] { reading.is(7, 71); }), refusal);
      EXPECT_EQ(Failure([&] { reading.is(8, 80); }), refusal);
      EXPECT_EQ(Failure([&] { reading.del(7); }), refusal);
      EXPECT_EQ(Failure([&] { reading.del(9); }), refusal); // an absent one as well
      EXPECT_EQ(Failure([&] { call<TypeParam::delAll>(*reading.entity); }), refusal);
      auto* const record = call<TypeParam::directWrite>(*reading.entity);
      *record = TypeParam::record(9, 90);
      EXPECT_EQ(Failure([&] { call<TypeParam::commit>(*reading.entity, record); }), refusal);
      EXPECT_TRUE(call<TypeParam::directWrite>(*reading.entity)); // it was given back
      EXPECT_EQ(log.changes, Changes());
      EXPECT_TRUE(reading.has(7, 70));
      EXPECT_EQ(reading.control->mountStatus(), MountStatus::mounted);
   }));
   EXPECT_EQ(writing.table().tableMount()->audit().changes, before);
   EXPECT_EQ(writing.table().size(), 1U);
}

TYPED_TEST(TableEntity, AReadersAttemptsAreCounted) {
   { const Mounted<TypeParam> made(this->side, "table"); }
   Mounted<TypeParam> reading(this->side, "table", TableRole::reader);
   EXPECT_THROW(reading.is(7, 70), std::system_error);
   EXPECT_THROW(reading.del(7), std::system_error);
   auto* const record = call<TypeParam::directWrite>(*reading.entity);
   EXPECT_THROW(call<TypeParam::commit>(*reading.entity, record), std::system_error);
   EXPECT_EQ(this->counts(), (Counts{2, 1, 0}));
}

TYPED_TEST(TableEntity, WithoutAMountAttemptsAreCountedAndRefused) {
   const auto entity = TypeParam::factory("table");
   const ChangeLog log(*entity);
   const Failure refusal = Failure::generic(ENOTCONN, "shared table 'table' is not mounted");
   EXPECT_EQ(Failure([&] { call<TypeParam::is>(*entity, TypeParam::record(7, 70)); }), refusal);
   EXPECT_EQ(Failure([&] { call<TypeParam::del>(*entity, TypeParam::key(7)); }), refusal);
   EXPECT_EQ(Failure([&] { call<TypeParam::delAll>(*entity); }), refusal);
   EXPECT_EQ(Failure([&] { call<TypeParam::directWrite>(*entity); }), refusal);
   EXPECT_EQ(Failure([&] { call<TypeParam::table>(std::as_const(*entity)).size(); }), refusal);
   EXPECT_EQ(log.changes, Changes());
   EXPECT_EQ(this->counts(), (Counts{1, 1, 0}));
   EXPECT_FALSE(this->temp.has("tables"));
}

TYPED_TEST(TableEntity, AQuiescedTablesWritesAreRefusedWithNothingWrittenOrPublished) {
   Mounted<TypeParam> table(this->side, "table");
   table.is(7, 70);
   table.control->quiesceIs(true);
   const ChangeLog log(*table.entity);
   const Failure refusal = Failure::generic(EBUSY, "shared table 'table' is quiesced");
   EXPECT_EQ(Failure([&] { table.is(7, 71); }), refusal);
   EXPECT_EQ(Failure([&] { table.del(7); }), refusal);
   EXPECT_TRUE(table.has(7, 70));
   EXPECT_EQ(log.changes, Changes());
   EXPECT_EQ(this->counts(), (Counts{2, 1, 1}));
   table.control->quiesceIs(false);
   table.is(7, 71);
   EXPECT_TRUE(table.has(7, 71));
}

TYPED_TEST(TableEntity, AfterUnmountingWritesAreRefusedAndWhatWasWrittenStays) {
   Mounted<TypeParam> table(this->side, "table");
   table.is(7, 70);
   table.control->unmount();
   EXPECT_EQ(Failure([&] { table.is(7, 71); }),
             Failure::generic(ENOTCONN, "shared table 'table' is not mounted"));
   table.control->mount();
   EXPECT_TRUE(table.has(7, 70));
}

TYPED_TEST(TableEntity, TheTableOffersLookUpIterationAndMemberCount) {
   Mounted<TypeParam> table(this->side, "table");
   for (std::uint32_t number = 1; number <= 3; ++number) {
      table.is(number, 10 * number);
   }
   EXPECT_EQ(table.table().size(), 3U);
   EXPECT_TRUE(table.table().has(TypeParam::key(2)));
   EXPECT_FALSE(table.table().has(TypeParam::key(4)));
   EXPECT_FALSE(table.table().get(TypeParam::key(4)));
   EXPECT_THAT(table.table().keys(), testing::UnorderedElementsAre(
                                        TypeParam::key(1), TypeParam::key(2), TypeParam::key(3)));
   std::vector<typename TypeParam::Record> records;
   table.table().forEach([&](const auto& record) { records.push_back(record); });
   EXPECT_THAT(records,
               testing::UnorderedElementsAre(TypeParam::record(1, 10), TypeParam::record(2, 20),
                                             TypeParam::record(3, 30)));
}

TYPED_TEST(TableEntity, ChangesByAnotherProcessArePublishedWithTheKeyAndCountedAsSuchOnly) {
   Mounted<TypeParam> table(this->side, "table", TableRole::writer);
   table.is(7, 70);
   std::vector<bool> found;
   const ChangeLog log(*table.entity,
                       [&] { found.push_back(table.table().has(TypeParam::key(8))); });
   EXPECT_TRUE(inAnotherProcess([&] {
      Side other(this->directory());
      Mounted<TypeParam> writing(other, "table");
      writing.is(8, 80);
      EXPECT_EQ(writing.del(7), TypeParam::record(7, 70));
   }));
   EXPECT_EQ(log.changes, Changes()); // by the event loop only
   EXPECT_TRUE(this->side.until([&] { return log.changes.size() >= 2; }));
   EXPECT_EQ(log.changes, (Changes{this->change(8), this->change(7)}));
   EXPECT_EQ(found, (std::vector<bool>{true, true}));
   EXPECT_TRUE(table.has(8, 80));
   EXPECT_FALSE(table.table().has(TypeParam::key(7)));
   EXPECT_EQ(this->counts(), (Counts{1, 0, 3}));
}

TYPED_TEST(TableEntity, ChangesByASecondMountInThisProcessArePublishedToo) {
   Mounted<TypeParam> table(this->side, "table", TableRole::reader);
   Mounted<TypeParam> writing(this->side, "table");
   const ChangeLog log(*table.entity);
   const ChangeLog own(*writing.entity);
   writing.is(7, 70);
   writing.del(7);
   EXPECT_EQ(log.changes, Changes());
   EXPECT_TRUE(this->side.until([&] { return log.changes.size() >= 2; }));
   EXPECT_EQ(log.changes, (Changes{this->change(7), this->change(7)}));
   EXPECT_EQ(own.changes, (Changes{this->change(7), this->change(7)})); // its own not twice
   EXPECT_EQ(this->counts(), (Counts{0, 0, 2})); // the first of the name is shown
}

TYPED_TEST(TableEntity, WhoIsToldOfAnothersChangeMayUnmountOrLetTheEntityGo) {
   for (const bool unmounting : {true, false}) {
      Mounted<TypeParam> writing(this->side, "table");
      Mounted<TypeParam> table(this->side, "table", TableRole::reader);
      if (!unmounting) {
         call<TypeParam::controlIs>(*table.entity, nullptr);
      }
      int told = 0;
      const ChangeLog log(*table.entity, [&] {
         ++told;
         if (unmounting) {
            table.control->unmount();
         } else {
            table.entity = nullptr;
         }
      });
      writing.is(7, 70);
      writing.is(8, 80);
      EXPECT_TRUE(this->side.until([&] { return told > 0; }));
      this->side.loop.poll();
      EXPECT_EQ(told, 1);
   }
}

TYPED_TEST(TableEntity, TablesOfDifferentNamesHaveNothingInCommon) {
   Mounted<TypeParam> one(this->side, "one");
   Mounted<TypeParam> other(this->side, "other");
   const ChangeLog log(*other.entity);
   one.is(7, 70);
   this->side.loop.poll();
   EXPECT_EQ(other.table().size(), 0U);
   EXPECT_EQ(log.changes, Changes());
   EXPECT_EQ(this->counts("one"), (Counts{1, 0, 1}));
   EXPECT_EQ(this->counts("other"), (Counts{0, 0, 0}));
}

TYPED_TEST(TableEntity, ItsCountersGoWithIt) {
   {
      const auto entity = TypeParam::factory("table");
      EXPECT_EQ(this->counts(), (Counts{0, 0, 0})); // there as soon as it is built
   }
   EXPECT_THROW(this->counts(), std::runtime_error);
}

TYPED_TEST(TableEntity, FactoriesMakeANewEntityEachTime) {
   const auto one = TypeParam::factory("table");
   const auto two = TypeParam::inPlace("table");
   EXPECT_NE(one, two);
   EXPECT_EQ(one->name(), "table");
   EXPECT_EQ(two->name(), "table");
   EXPECT_EQ(call<TypeParam::table>(std::as_const(*two)).name(), "table");
   EXPECT_EQ(one->refCount(), 1U);
   EXPECT_FALSE(call<TypeParam::controlOf>(*one));
}

TYPED_TEST(TableEntity, ItsParentIsHandedToTheTablesBindingAndNotKeptAlive) {
   const auto entity = TypeParam::factory("table");
   const auto& table = call<TypeParam::table>(std::as_const(*entity));
   EXPECT_FALSE(table.parent());
   Ptr<Platform::Node> parent = TypeParam::factory("parent");
   entity->handleParent(parent);
   EXPECT_EQ(table.parent(), parent);
   parent = nullptr;
   EXPECT_FALSE(table.parent());
}

TEST(TableEntityKinds, ATableOfRegistersIsNoneOfOrderedOperations) {
   const TestSupport::TempDir temp{"/dev/shm"};
   Side side(temp.path("tables"));
   Mounted<ShadowConfig> registers(side, "table");
   registers.is(7, 70);
   const auto control = side.controlNew();
   const auto operations = orderedRegisterConfigFactory("table");
   operations->opControlIs(control);
   EXPECT_EQ(Failure([&] { control->mount(); }).code, EINVAL);
   EXPECT_EQ(control->mountStatus(), MountStatus::failed);
   EXPECT_EQ(Failure([&] { operations->opIs(OrderedConfig::record(7, 70)); }).code, ENOTCONN);
   EXPECT_TRUE(registers.has(7, 70));
}

} // namespace
