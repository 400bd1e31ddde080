// A table's entity and its control: what is passed on, who holds whom, and what is left when
// nobody refers to one of them any more.

#include <gmock/gmock.h>

#include <stdexcept>

#include "platform/entity/WeakPtr.h"
#include "platform/tables/TableMount.h"
#include "tests/support/Failure.h"
#include "tests/unit/TarnRegFile/RegisterTables.h"

namespace {

using namespace RegisterTables;
using TestSupport::Failure;

template <typename T>
class TableEntityControl : public Fixture<T> {
protected:
   /// Mounts of the table in all processes.
   std::size_t mounts() const {
      const Platform::Tables::TableMount looking(
         Platform::Tables::TableDirectory(this->directory()), "table", {});
      return looking.mounts().size() - 1;
   }
};

template <typename T>
using Weak = Platform::WeakPtr<typename T::Entity>;

TYPED_TEST_SUITE(TableEntityControl, All, Names);

TYPED_TEST(TableEntityControl, SettingAControlAttachesTheTableAndPublishesOnce) {
   const auto entity = TypeParam::factory("table");
   const auto control = this->side.controlNew();
   const ChangeLog log(*entity);
   const auto references = control->refCount();
   call<TypeParam::controlIs>(*entity, control);
   EXPECT_EQ(call<TypeParam::controlOf>(*entity), control);
   EXPECT_EQ(control->refCount(), references + 1);
   EXPECT_EQ(control->table(), &call<TypeParam::table>(std::as_const(*entity)));
   EXPECT_EQ(log.changes, Changes{TypeParam::control});

   call<TypeParam::controlIs>(*entity, control);
   EXPECT_EQ(control->refCount(), references + 1);
   EXPECT_EQ(log.changes, Changes{TypeParam::control});
   EXPECT_FALSE(control->entity()); // not before nobody else refers to it
   EXPECT_EQ(control->mountStatus(), MountStatus::unmounted);
}

TYPED_TEST(TableEntityControl, AnotherControlTakesTheTableAndTheFirstIsLetGo) {
   Mounted<TypeParam> table(this->side, "table");
   const auto second = this->side.controlNew();
   const ChangeLog log(*table.entity);
   call<TypeParam::controlIs>(*table.entity, second);
   EXPECT_EQ(table.control->refCount(), 1U);
   EXPECT_EQ(table.control->table(), nullptr);
   EXPECT_EQ(table.control->mountStatus(), MountStatus::unmounted);
   EXPECT_EQ(table.control->tableName(), "");
   EXPECT_THROW(table.control->mount(), std::logic_error);
   table.control->unmount();
   EXPECT_EQ(second->mountStatus(), MountStatus::mounted); // the table is not touched
   EXPECT_EQ(log.changes, Changes{TypeParam::control});
   table.is(7, 70);
   EXPECT_TRUE(table.has(7, 70));
   second->unmount();
   EXPECT_EQ(this->mounts(), 0U);
}

TYPED_TEST(TableEntityControl, ReplacingTheOnlyReferenceToAControlDestroysItAndNotTheMount) {
   const auto entity = TypeParam::factory("table");
   call<TypeParam::controlIs>(*entity, this->side.controlNew());
   call<TypeParam::controlOf>(*entity)->mount();
   Platform::WeakPtr<CollectionControl> first(call<TypeParam::controlOf>(*entity));
   call<TypeParam::controlIs>(*entity, this->side.controlNew());
   EXPECT_FALSE(first.lock());
   EXPECT_EQ(call<TypeParam::controlOf>(*entity)->mountStatus(), MountStatus::mounted);
   EXPECT_EQ(this->mounts(), 1U);
}

TYPED_TEST(TableEntityControl, NoControlDetachesAndPublishesOnce) {
   Mounted<TypeParam> table(this->side, "table");
   const ChangeLog log(*table.entity);
   call<TypeParam::controlIs>(*table.entity, nullptr);
   call<TypeParam::controlIs>(*table.entity, nullptr);
   EXPECT_EQ(log.changes, Changes{TypeParam::control});
   EXPECT_FALSE(call<TypeParam::controlOf>(*table.entity));
   EXPECT_EQ(table.control->table(), nullptr);
   EXPECT_EQ(table.control->refCount(), 1U);
   table.is(7, 70); // the table stays mounted
   // With nobody to pass it on to:
   call<TypeParam::notifyQuiesced>(*table.entity, true);
   call<TypeParam::notifyMountStatus>(*table.entity);
   EXPECT_FALSE(table.control->quiesced());
   EXPECT_EQ(table.control->mountStatus(), MountStatus::unmounted);
}

TYPED_TEST(TableEntityControl, WhoIsToldOfTheFirstControlsDetachmentMaySetAThird) {
   Mounted<TypeParam> table(this->side, "table");
   const auto second = this->side.controlNew();
   const auto third = this->side.controlNew();
   const ChangeLog log(*table.entity);
   const ChangeLog first(*table.control, [&] { call<TypeParam::controlIs>(*table.entity, third); });
   call<TypeParam::controlIs>(*table.entity, second);
   EXPECT_EQ(call<TypeParam::controlOf>(*table.entity), third);
   EXPECT_EQ(third->table(), &table.table());
   EXPECT_EQ(third->mountStatus(), MountStatus::mounted);
   EXPECT_EQ(second->table(), nullptr);
   EXPECT_EQ(second->mountStatus(), MountStatus::unmounted);
   EXPECT_EQ(second->refCount(), 1U);
   EXPECT_EQ(log.changes, (Changes{TypeParam::control, TypeParam::control}));
}

TYPED_TEST(TableEntityControl, WhoIsToldOfTheFirstControlsDetachmentMayLetEverythingGo) {
   Mounted<TypeParam> table(this->side, "table");
   Weak<TypeParam> entity(table.entity);
   auto second = this->side.controlNew();
   const ChangeLog first(*table.control, [&] {
      table.entity = nullptr;
      table.control = nullptr;
      second = nullptr;
   });
   auto& dropped = *table.entity;
   call<TypeParam::controlIs>(dropped, second);
   EXPECT_FALSE(entity.lock());
   EXPECT_EQ(this->mounts(), 0U);
}

TYPED_TEST(TableEntityControl, AnExceptionOnTheWayLeavesTheNewControlInPlace) {
   Mounted<TypeParam> table(this->side, "table");
   const auto second = this->side.controlNew();
   const ChangeLog log(*table.entity);
   const ChangeLog first(*table.control, [] { throw std::out_of_range("told"); });
   EXPECT_EQ(Failure([&] { call<TypeParam::controlIs>(*table.entity, second); }),
             Failure::outOfRange("told"));
   EXPECT_EQ(call<TypeParam::controlOf>(*table.entity), second);
   EXPECT_EQ(second->table(), &table.table());
   EXPECT_EQ(second->mountStatus(), MountStatus::mounted);
   EXPECT_EQ(log.changes, Changes{TypeParam::control});
}

TYPED_TEST(TableEntityControl, AControlThatAnotherEntityTakesHearsOfThatOneOnly) {
   Mounted<TypeParam> table(this->side, "table");
   auto other = TypeParam::factory("other");
   call<TypeParam::controlIs>(*other, table.control);
   EXPECT_EQ(table.control->tableName(), "other");
   EXPECT_EQ(table.control->mountStatus(), MountStatus::unmounted);
   call<TypeParam::notifyMountStatus>(*table.entity);
   call<TypeParam::notifyQuiesced>(*table.entity, true);
   EXPECT_EQ(table.control->mountStatus(), MountStatus::unmounted);
   EXPECT_FALSE(table.control->quiesced());
   // Nor does it keep the first one.
   Weak<TypeParam> first(table.entity);
   table.entity = nullptr;
   EXPECT_FALSE(first.lock());
   EXPECT_EQ(table.control->tableName(), "other");
   EXPECT_EQ(this->mounts(), 0U);
}

TYPED_TEST(TableEntityControl, MountStatusIsPassedOnAsTheTableStands) {
   const auto entity = TypeParam::factory("table");
   const auto control = this->side.controlNew();
   call<TypeParam::controlIs>(*entity, control);
   const ChangeLog log(*entity);
   const ChangeLog told(*control);
   control->mount();
   EXPECT_EQ(control->mountStatus(), MountStatus::mounted);
   control->mountStatusIs(MountStatus::failed);
   call<TypeParam::notifyMountStatus>(*entity);
   EXPECT_EQ(control->mountStatus(), MountStatus::mounted);
   control->unmount();
   EXPECT_EQ(control->mountStatus(), MountStatus::unmounted);
   EXPECT_EQ(told.changes, (Changes{"mountStatus", "mountStatus", "mountStatus", "mountStatus"}));
   EXPECT_EQ(log.changes, Changes()); // nothing of the table itself
}

TYPED_TEST(TableEntityControl, QuiescenceIsPassedOn) {
   Mounted<TypeParam> table(this->side, "table");
   const ChangeLog log(*table.entity);
   const ChangeLog told(*table.control);
   table.control->quiesceIs(true);
   EXPECT_TRUE(table.control->quiesced());
   call<TypeParam::notifyQuiesced>(*table.entity, false);
   EXPECT_FALSE(table.control->quiesced());
   EXPECT_TRUE(table.table().quiesced()); // it is told to the control, not to the table
   call<TypeParam::notifyQuiesced>(*table.entity, true);
   EXPECT_TRUE(table.control->quiesced());
   EXPECT_EQ(told.changes, (Changes{"quiesced", "quiesced", "quiesced"}));
   EXPECT_EQ(log.changes, Changes());
}

TYPED_TEST(TableEntityControl, AnEntityThatNobodyRefersToIsLeftToItsControlAndStaysMounted) {
   Mounted<TypeParam> table(this->side, "table");
   table.is(7, 70);
   Weak<TypeParam> entity(table.entity);
   const auto references = table.control->refCount();
   table.entity = nullptr;
   ASSERT_TRUE(entity.lock());
   EXPECT_EQ(table.control->entity(), entity.lock());
   EXPECT_EQ(table.control->refCount(), references - 1); // the entity's own has gone
   EXPECT_FALSE(call<TypeParam::controlOf>(*entity.lock()));
   EXPECT_EQ(table.control->mountStatus(), MountStatus::mounted);

   // Others see the mount, and what they write arrives.
   Changes changes;
   const ChangeLog log(*entity.lock());
   EXPECT_TRUE(inAnotherProcess([&] {
      Side other(this->directory());
      Mounted<TypeParam> writing(other, "table");
      EXPECT_EQ(writing.table().tableMount()->mounts().size(), 2U);
      writing.is(7, 71);
   }));
   EXPECT_TRUE(this->side.until([&] { return !log.changes.empty(); }));
   EXPECT_EQ(log.changes, Changes{this->change(7)});
   EXPECT_EQ(entity.lock()->refCount(), 2U); // the control's, and this one

   table.control->unmount();
   EXPECT_FALSE(entity.lock());
   EXPECT_FALSE(table.control->entity());
   EXPECT_EQ(table.control->table(), nullptr);
   EXPECT_EQ(table.control->refCount(), 1U);
   EXPECT_EQ(table.control->mountStatus(), MountStatus::unmounted);
   EXPECT_EQ(this->mounts(), 0U);
   table.control->unmount();
}

TYPED_TEST(TableEntityControl, WhatAnEntityLeftToItsControlReportsStillReachesTheControl) {
   Mounted<TypeParam> table(this->side, "table");
   table.entity = nullptr;
   const ChangeLog told(*table.control);
   table.control->quiesceIs(true);
   EXPECT_TRUE(table.control->quiesced());
   table.control->unmount();
   EXPECT_EQ(told.changes, (Changes{"quiesced", "mountStatus", "quiesced"}));
}

TYPED_TEST(TableEntityControl, AnEntityLeftToAControlGoesWithIt) {
   Mounted<TypeParam> table(this->side, "table");
   Weak<TypeParam> entity(table.entity);
   table.entity = nullptr;
   EXPECT_TRUE(entity.lock());
   table.control = nullptr;
   EXPECT_FALSE(entity.lock());
   EXPECT_EQ(this->mounts(), 0U);
}

TYPED_TEST(TableEntityControl, WithoutAControlTheEntityGoesAtOnce) {
   auto entity = TypeParam::factory("table");
   Weak<TypeParam> weak(entity);
   entity = nullptr;
   EXPECT_FALSE(weak.lock());

   Mounted<TypeParam> table(this->side, "table");
   call<TypeParam::controlIs>(*table.entity, nullptr);
   Weak<TypeParam> mounted(table.entity);
   table.entity = nullptr;
   EXPECT_FALSE(mounted.lock());
   EXPECT_EQ(this->mounts(), 0U);
}

TYPED_TEST(TableEntityControl, AnEntityThatWasNeverMountedIsLeftToItsControlAsWell) {
   const auto control = this->side.controlNew();
   auto entity = TypeParam::factory("table");
   call<TypeParam::controlIs>(*entity, control);
   Weak<TypeParam> weak(entity);
   entity = nullptr;
   EXPECT_EQ(control->entity(), weak.lock());
   control->mount();
   EXPECT_EQ(this->mounts(), 1U);
   control->unmount();
   EXPECT_FALSE(weak.lock());
}

TYPED_TEST(TableEntityControl, AControlDroppedBeforeItsEntityGoesWithIt) {
   Mounted<TypeParam> table(this->side, "table");
   Weak<TypeParam> entity(table.entity);
   Platform::WeakPtr<CollectionControl> control(table.control);
   table.control = nullptr;
   EXPECT_TRUE(control.lock()); // the entity's
   EXPECT_EQ(this->mounts(), 1U);
   table.entity = nullptr;
   EXPECT_FALSE(entity.lock());
   EXPECT_FALSE(control.lock());
   EXPECT_EQ(this->mounts(), 0U);
}

TYPED_TEST(TableEntityControl, AnEntityTakenBackFromItsControlAndDroppedAgainStaysWithTheControl) {
   Mounted<TypeParam> table(this->side, "table");
   Weak<TypeParam> weak(table.entity);
   table.entity = nullptr;
   {
      const auto entity = Platform::ptrCast<typename TypeParam::Entity>(table.control->entity());
      ASSERT_TRUE(entity);
      call<TypeParam::is>(*entity, TypeParam::record(7, 70));
   }
   EXPECT_TRUE(weak.lock());
   EXPECT_EQ(this->mounts(), 1U);

   auto kept = weak.lock();
   table.control->unmount();
   EXPECT_TRUE(weak.lock()); // somebody refers to it
   EXPECT_EQ(table.control->table(), &call<TypeParam::table>(std::as_const(*kept)));
   kept = nullptr;
   EXPECT_FALSE(weak.lock());
   EXPECT_EQ(table.control->table(), nullptr);
}

TYPED_TEST(TableEntityControl, SettingItsControlAgainTakesTheEntityBackAndItCanBeLeftOnceMore) {
   Mounted<TypeParam> table(this->side, "table");
   Weak<TypeParam> weak(table.entity);
   table.entity = nullptr;
   auto entity = weak.lock();
   call<TypeParam::controlIs>(*entity, table.control);
   EXPECT_FALSE(table.control->entity());
   EXPECT_EQ(entity->refCount(), 1U); // else the two would hold each other for good
   EXPECT_EQ(table.control->mountStatus(), MountStatus::mounted);
   entity = nullptr;
   EXPECT_EQ(table.control->entity(), weak.lock());
   EXPECT_EQ(this->mounts(), 1U);
   table.control->unmount();
   EXPECT_FALSE(weak.lock());
}

TYPED_TEST(TableEntityControl, AnotherControlMayTakeOverAnEntityThatWasLeftToItsFirst) {
   Mounted<TypeParam> table(this->side, "table");
   Weak<TypeParam> weak(table.entity);
   table.entity = nullptr;
   const auto second = this->side.controlNew();
   call<TypeParam::controlIs>(*weak.lock(), second);
   EXPECT_FALSE(table.control->entity());
   EXPECT_EQ(second->entity(), weak.lock()); // left to this one at once, as nobody kept it
   table.control = nullptr;
   EXPECT_EQ(second->mountStatus(), MountStatus::mounted);
   second->unmount();
   EXPECT_FALSE(weak.lock());
}

TYPED_TEST(TableEntityControl, WhoIsToldOfTheUnmountingMayLetEntityAndControlGo) {
   Mounted<TypeParam> table(this->side, "table");
   Weak<TypeParam> entity(table.entity);
   const ChangeLog told(*table.control, [&] {
      table.entity = nullptr;
      table.control = nullptr;
   });
   auto& control = *table.control;
   control.unmount();
   EXPECT_EQ(told.changes, Changes{"mountStatus"});
   EXPECT_FALSE(entity.lock());
   EXPECT_EQ(this->mounts(), 0U);
}

TYPED_TEST(TableEntityControl, WhoIsToldOfTheUnmountingMayDetachTheTableOrUnmountAgain) {
   Mounted<TypeParam> table(this->side, "table");
   Weak<TypeParam> entity(table.entity);
   {
      const ChangeLog told(*table.control,
                           [&] { call<TypeParam::controlIs>(*table.entity, nullptr); });
      table.control->unmount();
      EXPECT_EQ(table.control->table(), nullptr);
   }
   call<TypeParam::controlIs>(*table.entity, table.control);
   table.control->mount();
   table.entity = nullptr;
   const ChangeLog told(*table.control, [&] { table.control->unmount(); });
   table.control->unmount();
   EXPECT_FALSE(entity.lock());
   EXPECT_EQ(told.changes, Changes{"mountStatus"});
}

TYPED_TEST(TableEntityControl, AnExceptionAtUnmountingLetsTheEntityGoAllTheSame) {
   Mounted<TypeParam> table(this->side, "table");
   Weak<TypeParam> entity(table.entity);
   table.entity = nullptr;
   const ChangeLog told(*table.control, [] { throw std::out_of_range("told"); });
   EXPECT_EQ(Failure([&] { table.control->unmount(); }), Failure::outOfRange("told"));
   EXPECT_FALSE(entity.lock());
   EXPECT_EQ(this->mounts(), 0U);
}

TYPED_TEST(TableEntityControl, AnExceptionOfWhoHearsThatTheEntityIsGoneEndsNothing) {
   Mounted<TypeParam> table(this->side, "table");
   Weak<TypeParam> entity(table.entity);
   // With a reference of its own the entity is destroyed by this test, not by the control.
   table.entity = nullptr;
   auto last = entity.lock();
   table.control->entityIs(nullptr);
   const ChangeLog told(*table.control, [] { throw std::out_of_range("told"); });
   last = nullptr;
   EXPECT_FALSE(entity.lock());
   EXPECT_EQ(told.changes, Changes{"mountStatus"});
   EXPECT_EQ(table.control->table(), nullptr);
   EXPECT_EQ(this->mounts(), 0U);
}

TYPED_TEST(TableEntityControl, AnEntityBeingDestroyedPublishesNothing) {
   auto entity = TypeParam::factory("table");
   const ChangeLog log(*entity);
   call<TypeParam::controlIs>(*entity, this->side.controlNew());
   call<TypeParam::controlOf>(*entity)->mount();
   const Changes before = log.changes;
   entity = nullptr;
   EXPECT_EQ(log.changes, before);
}

} // namespace
