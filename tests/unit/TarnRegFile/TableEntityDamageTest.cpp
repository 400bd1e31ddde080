// What a damaged table does to its entity: a change of it stops the process, once the corruption
// handler has heard; a look at it throws.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "tests/unit/TarnRegFile/RegisterTables.h"

namespace {

using namespace RegisterTables;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

template <typename T>
class TableEntityDamage : public Fixture<T> {
protected:
   // Forked off, so that this process still has the directory when the other one was stopped.
   TableEntityDamage() { GTEST_FLAG_SET(death_test_style, "fast"); }

   /// A table with two records, a corruption handler and notifiees that say what they hear on
   /// standard error.
   struct Talking {
      explicit Talking(Side& side) : table(side, "table") {
         side.service.corruptionHandlerIs([](const std::string& name, const std::string& message) {
            std::fprintf(stderr, "handler: %s: %s\n", name.c_str(), message.c_str());
         });
         table.is(7, 70);
         table.is(8, 80);
         ofEntity.emplace(*table.entity, [] { std::fprintf(stderr, "published\n"); });
         ofControl.emplace(*table.control, [this] {
            std::ostringstream status;
            status << table.control->mountStatus();
            std::fprintf(stderr, "control: %s: %s\n", status.str().c_str(),
                         table.control->statusText().c_str());
         });
      }

      Mounted<T> table;
      std::optional<ChangeLog> ofEntity;
      std::optional<ChangeLog> ofControl;
   };

   /// Overwrites what the table's file holds from `offset` on, but for the holes in it.
   void damage(off_t offset) const {
      const std::string path = this->directory() + "/table.tbl";
      const int fd = ::open(path.c_str(), O_RDWR);
      const std::string rubbish(4096, '\x5a');
      for (off_t at = offset; (at = ::lseek(fd, at, SEEK_DATA)) >= 0;) {
         ASSERT_EQ(::pwrite(fd, rubbish.data(), rubbish.size(), at), 4096);
         at += 4096;
      }
      ::close(fd);
   }

   /// All but the page that says what the table is and the one with its lock and counters.
   void damageRecords() const { damage(8192); }

   /// What a process prints that is stopped in `function`.
   static auto stopsIn(const std::string& function) {
      return AllOf(HasSubstr("control: corrupted: shared table 'table' is corrupted: "),
                   HasSubstr("handler: table: shared table 'table' is corrupted: "),
                   HasSubstr(std::string("TarnRegFile/") + T::className + ": " + T::collection +
                             function + ": assertion failed: in no man's land"),
                   Not(HasSubstr("published")), Not(HasSubstr("still here")));
   }

   /// Runs `change` on a table whose records are damaged.
   template <typename Change>
   void changeDamaged(Change change) {
      Side own(this->directory());
      Talking talking(own);
      damageRecords();
      change(talking.table);
      std::fprintf(stderr, "still here\n");
   }
};

TYPED_TEST_SUITE(TableEntityDamage, All, Names);

TYPED_TEST(TableEntityDamage, AWriteTellsTheHandlerAndStopsTheProcess) {
   EXPECT_DEATH(this->changeDamaged([](auto& table) { table.is(7, 71); }), this->stopsIn("Is"));
}

TYPED_TEST(TableEntityDamage, ACommitTellsTheHandlerAndStopsTheProcess) {
   EXPECT_DEATH(this->changeDamaged([](auto& table) {
      auto* const record = call<TypeParam::directWrite>(*table.entity);
      *record = TypeParam::record(7, 71);
      call<TypeParam::commit>(*table.entity, record);
   }),
                this->stopsIn("Commit"));
}

TYPED_TEST(TableEntityDamage, ARemovalTellsTheHandlerAndStopsTheProcess) {
   EXPECT_DEATH(this->changeDamaged([](auto& table) { table.del(7); }), this->stopsIn("Del"));
}

TYPED_TEST(TableEntityDamage, RemovingAllTellsTheHandlerAndStopsTheProcess) {
   EXPECT_DEATH(this->changeDamaged([](auto& table) { call<TypeParam::delAll>(*table.entity); }),
                this->stopsIn("DelAll"));
}

TYPED_TEST(TableEntityDamage, AHandlerThatThrowsChangesNothing) {
   EXPECT_DEATH(
      {
         Side own(this->directory());
         typename TestFixture::Talking talking(own);
         own.service.corruptionHandlerIs([](const std::string& name, const std::string& message) {
            std::fprintf(stderr, "handler: %s: %s\n", name.c_str(), message.c_str());
            throw std::runtime_error("handler");
         });
         this->damageRecords();
         try {
            talking.table.is(7, 71);
         } catch (...) {
         }
         std::fprintf(stderr, "still here\n");
      },
      this->stopsIn("Is"));
}

TYPED_TEST(TableEntityDamage, TheHandlerHearsOfItEvenIfWhoHearsOfTheStatusThrows) {
   EXPECT_DEATH(
      {
         Side own(this->directory());
         typename TestFixture::Talking talking(own);
         const ChangeLog throwing(*talking.table.control, [] { throw std::runtime_error("told"); });
         this->damageRecords();
         try {
            talking.table.is(7, 71);
         } catch (...) {
         }
         std::fprintf(stderr, "still here\n");
      },
      this->stopsIn("Is"));
}

TYPED_TEST(TableEntityDamage, AHandlerThatLetsTheEntityGoChangesNothing) {
   EXPECT_DEATH(
      {
         Side own(this->directory());
         typename TestFixture::Talking talking(own);
         talking.ofEntity.reset();
         own.service.corruptionHandlerIs([&](const std::string& name, const std::string& message) {
            std::fprintf(stderr, "handler: %s: %s\n", name.c_str(), message.c_str());
            talking.table.entity = nullptr;
            talking.table.control->unmount();
         });
         this->damageRecords();
         talking.table.is(7, 71);
         std::fprintf(stderr, "still here\n");
      },
      this->stopsIn("Is"));
}

TYPED_TEST(TableEntityDamage, AHandlerThatWritesStopsTheProcessAtOnce) {
   EXPECT_DEATH(
      {
         Side own(this->directory());
         typename TestFixture::Talking talking(own);
         own.service.corruptionHandlerIs([&](const std::string& name, const std::string& message) {
            std::fprintf(stderr, "handler: %s: %s\n", name.c_str(), message.c_str());
            talking.table.is(9, 90);
            std::fprintf(stderr, "still here\n");
         });
         this->damageRecords();
         talking.table.del(7);
      },
      this->stopsIn("Is"));
}

TYPED_TEST(TableEntityDamage, ReadingThrowsAndNothingIsStoppedOrReported) {
   Mounted<TypeParam> table(this->side, "table");
   table.is(7, 70);
   bool reported = false;
   this->side.service.corruptionHandlerIs([&](const auto&, const auto&) { reported = true; });
   const ChangeLog log(*table.entity);
   const ChangeLog told(*table.control);
   this->damageRecords();
   EXPECT_THROW(table.table().get(TypeParam::key(7)), CorruptionException);
   EXPECT_THROW(table.table().has(TypeParam::key(7)), CorruptionException);
   EXPECT_THROW(table.table().keys(), CorruptionException);
   EXPECT_THROW(table.table().forEach([](const auto&) {}), CorruptionException);
   EXPECT_THROW(table.entity->typeData().getAt(*table.entity, TypeParam::collection,
                                               Platform::Value::of(TypeParam::key(7))),
                CorruptionException);
   EXPECT_FALSE(reported);
   EXPECT_EQ(log.changes, Changes());
   EXPECT_EQ(told.changes, Changes());
   EXPECT_EQ(table.control->mountStatus(), MountStatus::mounted);
   this->damage(4096);
   EXPECT_THROW(table.table().size(), CorruptionException);
}

TYPED_TEST(TableEntityDamage, WhoMetTheDamageWhileReadingCanReportIt) {
   Mounted<TypeParam> table(this->side, "table");
   std::vector<std::string> reported;
   this->side.service.corruptionHandlerIs([&](const std::string& name, const std::string& text) {
      reported.push_back(name + ": " + text);
   });
   const ChangeLog log(*table.entity);
   const ChangeLog told(*table.control);
   call<TypeParam::handleCorruption>(*table.entity, "found so");
   EXPECT_EQ(reported, std::vector<std::string>{"table: found so"});
   EXPECT_EQ(table.control->mountStatus(), MountStatus::corrupted);
   EXPECT_EQ(table.control->statusText(), "found so");
   EXPECT_EQ(told.changes, Changes{"mountStatus"});
   EXPECT_EQ(log.changes, Changes());
}

TYPED_TEST(TableEntityDamage, ATableOnceFoundDamagedIsNeverWrittenAgain) {
   EXPECT_DEATH(
      {
         Side own(this->directory());
         typename TestFixture::Talking talking(own);
         call<TypeParam::handleCorruption>(*talking.table.entity,
                                           "shared table 'table' is corrupted: found so");
         talking.table.is(7, 71);
         std::fprintf(stderr, "still here\n");
      },
      this->stopsIn("Is"));
   // It is intact, and shows that nothing was written.
   const Mounted<TypeParam> table(this->side, "table");
   EXPECT_TRUE(table.has(7, 70));
}

TYPED_TEST(TableEntityDamage, WhoFollowsDamagedChangesHearsOfItOnceAndTheLoopGoesOn) {
   Mounted<TypeParam> writing(this->side, "table");
   Mounted<TypeParam> reading(this->side, "table", TableRole::reader);
   Mounted<TypeParam> intact(this->side, "intact");
   Mounted<TypeParam> intactReading(this->side, "intact", TableRole::reader);
   this->side.loop.poll();
   const ChangeLog log(*reading.entity);
   const ChangeLog ofIntact(*intactReading.entity);
   std::vector<std::string> reported;
   this->side.service.corruptionHandlerIs(
      [&](const std::string& name, const auto&) { reported.push_back(name); });
   writing.is(7, 70);
   this->damageRecords();
   const auto isCorrupted = [](const auto& table) {
      return table.control->mountStatus() == MountStatus::corrupted;
   };
   EXPECT_TRUE(this->side.until([&] { return isCorrupted(reading); }));
   EXPECT_FALSE(isCorrupted(writing)); // which does not read of its own changes
   EXPECT_EQ(reported, std::vector<std::string>{"table"});
   EXPECT_THROW(reading.is(7, 71), std::system_error); // a reader's, as always
   EXPECT_THROW(call<TypeParam::delAll>(*reading.entity), CorruptionException);
   EXPECT_EQ(log.changes, Changes());

   intact.is(8, 80);
   EXPECT_TRUE(this->side.until([&] { return !ofIntact.changes.empty(); }));
   EXPECT_EQ(reported.size(), 1U);
   EXPECT_EQ(intactReading.control->mountStatus(), MountStatus::mounted);
   reading.control->unmount();
   EXPECT_EQ(reading.control->mountStatus(), MountStatus::unmounted);
}

TYPED_TEST(TableEntityDamage, ADamagedTableIsNotMountedByAWriterWhoseWritesAreThenRefused) {
   { Mounted<TypeParam>(this->side, "table").is(7, 70); }
   this->damageRecords();
   int reported = 0;
   this->side.service.corruptionHandlerIs([&](const auto&, const auto&) { ++reported; });
   const auto control = this->side.controlNew();
   const auto entity = TypeParam::factory("table");
   call<TypeParam::controlIs>(*entity, control);
   EXPECT_THROW(control->mount(), CorruptionException);
   EXPECT_EQ(reported, 1);
   EXPECT_EQ(control->mountStatus(), MountStatus::corrupted);
   EXPECT_THROW(call<TypeParam::is>(*entity, TypeParam::record(7, 71)), std::system_error);
   EXPECT_EQ(reported, 1);
}

} // namespace
