#include "platform/tables/CollectionControl.h"

#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <utility>

#include "platform/entity/EventLoop.h"
#include "platform/entity/TypeData.h"
#include "platform/tables/TableService.h"
#include "tests/support/ChangeLog.h"
#include "tests/unit/platform/tables/TestRecords.h"

namespace {

using namespace TablesTest;
using Platform::Node;
using Platform::Ptr;
using testing::ElementsAre;
using testing::HasSubstr;

/// An entity with a table, as they are: it reports to its control.
class Entity : public Node, private Table<NumberRecord>::Owner {
public:
   explicit Entity(const std::string& name) : table(name, *this) {}
   ~Entity() override {
      beingDestroyedIs();
      ++destroyed;
   }

   Ptr<CollectionControl> control;
   std::function<void()> onChange;
   Table<NumberRecord> table;
   static inline int destroyed = 0;

private:
   void tableChanged(const NumberKey&) override {
      if (onChange) {
         onChange();
      }
   }
   void tableMountStatusChanged() override {
      if (control) {
         control->mountStatusIs(table.mountStatus());
      }
   }
   void tableQuiescedChanged(bool quiesced) override {
      if (control) {
         control->quiescedIs(quiesced);
      }
   }
};

class Control : public TableFixture {
protected:
   Control() { Entity::destroyed = 0; }

   Ptr<CollectionControl> make(TableRole role = TableRole::writer) {
      return collectionControlFactory(service, {.role = role});
   }
   void attach(const Ptr<CollectionControl>& control) {
      entity->control = control;
      control->tableIs(&entity->table);
   }
   ~Control() override {
      if (entity) {
         entity->control = nullptr; // they hold each other
      }
   }

   Platform::EventLoop loop;
   TableService service{loop, directory};
   Ptr<Entity> entity = Platform::make<Entity>("numbers");
};

TEST_F(Control, WithoutATableHasNothingToMount) {
   const Ptr<CollectionControl> control = make();
   EXPECT_EQ(errorOf([&] { control->mount(); }),
             "logic: a collection control has no table to mount: no entity was given it");
   EXPECT_EQ(errorOf([&] { control->quiesceIs(true); }),
             "logic: a collection control has no table to quiesce: no entity was given it");
   control->unmount();
   EXPECT_EQ(control->tableName(), "");
   EXPECT_EQ(control->statusText(), "");
   EXPECT_EQ(control->mountStatus(), MountStatus::unmounted);
   EXPECT_FALSE(control->quiesced());
   EXPECT_EQ(control->role(), TableRole::writer);
}

TEST_F(Control, MountsTheTableInItsRoleAndPublishesTheStatus) {
   const Ptr<CollectionControl> control = make();
   attach(control);
   EXPECT_EQ(control->tableName(), "numbers");
   const TestSupport::ChangeLog log(*control);
   control->mount();
   EXPECT_EQ(control->mountStatus(), MountStatus::mounted);
   EXPECT_EQ(entity->table.role(), TableRole::writer);
   entity->table.put({.itsKey = {1}, .value = 2});
   control->mount(); // does nothing
   control->unmount();
   control->unmount();
   EXPECT_EQ(control->mountStatus(), MountStatus::unmounted);
   EXPECT_THAT(log.changes, ElementsAre("mountStatus", "mountStatus"));
}

TEST_F(Control, SaysWhyAMountFailed) {
   {
      TableShape other = shape();
      const TableMount mount(directory, "numbers", writer(other));
   }
   const Ptr<CollectionControl> control = make(TableRole::reader);
   attach(control);
   const TestSupport::ChangeLog log(*control);
   EXPECT_EQ(codeOf([&] { control->mount(); }), EINVAL);
   EXPECT_EQ(control->mountStatus(), MountStatus::failed);
   EXPECT_THAT(control->statusText(), HasSubstr("is for Record under Key"));
   EXPECT_THAT(log.changes, ElementsAre("mountStatus"));
   directory.tableDel("numbers");
   control->mount();
   EXPECT_EQ(control->mountStatus(), MountStatus::mounted);
   EXPECT_EQ(control->statusText(), "");
   EXPECT_THAT(log.changes, ElementsAre("mountStatus", "mountStatus"));
}

TEST_F(Control, QuiescesAndPublishesIt) {
   const Ptr<CollectionControl> control = make();
   attach(control);
   control->mount();
   const TestSupport::ChangeLog log(*control);
   control->quiesceIs(true);
   control->quiesceIs(true);
   EXPECT_TRUE(control->quiesced());
   EXPECT_EQ(codeOf([&] { entity->table.put({.itsKey = {1}}); }), EBUSY);
   control->quiesceIs(false);
   EXPECT_FALSE(control->quiesced());
   entity->table.put({.itsKey = {1}});
   EXPECT_THAT(log.changes, ElementsAre("quiesced", "quiesced"));
}

TEST_F(Control, KeepsTheEntityThatIsLeftToItUntilItUnmounts) {
   const Ptr<CollectionControl> control = make();
   attach(control);
   control->mount();
   control->entityIs(entity);
   entity->control = nullptr;
   entity = nullptr;
   EXPECT_EQ(Entity::destroyed, 0);
   EXPECT_EQ(TableMount(directory, "numbers", {}).mounts().size(), 2U);
   control->unmount();
   EXPECT_EQ(Entity::destroyed, 1);
   EXPECT_EQ(control->table(), nullptr);
   EXPECT_EQ(control->tableName(), "");
   EXPECT_EQ(TableMount(directory, "numbers", {}).mounts().size(), 1U);
   EXPECT_EQ(control->mountStatus(), MountStatus::unmounted);
}

TEST_F(Control, ThatGoesUnmountsAndDetaches) {
   Ptr<CollectionControl> control = make();
   control->tableIs(&entity->table);
   control->mount();
   EXPECT_NE(entity->table.tableMount(), nullptr);
   control = nullptr;
   EXPECT_EQ(entity->table.tableMount(), nullptr);
   EXPECT_EQ(entity->table.mountStatus(), MountStatus::unmounted);
   entity = nullptr; // it knows of no control any more
   EXPECT_EQ(Entity::destroyed, 1);
}

TEST_F(Control, ThatGoesTakesTheEntityAlongThatWasLeftToIt) {
   Ptr<CollectionControl> control = make();
   control->tableIs(&entity->table);
   control->mount();
   control->entityIs(entity);
   entity = nullptr;
   EXPECT_EQ(Entity::destroyed, 0);
   control = nullptr;
   EXPECT_EQ(Entity::destroyed, 1);
}

TEST_F(Control, IsDetachedFromATableThatGoes) {
   const Ptr<CollectionControl> control = make();
   control->tableIs(&entity->table);
   control->mount();
   control->mountStatusIs(MountStatus::mounted);
   entity = nullptr;
   EXPECT_EQ(control->table(), nullptr);
   EXPECT_EQ(control->mountStatus(), MountStatus::unmounted);
   control->unmount();
}

TEST_F(Control, TakesATableOverFromAnotherWithWhatItIs) {
   const Ptr<CollectionControl> first = make();
   const Ptr<CollectionControl> second = make();
   attach(first);
   first->mount();
   first->quiesceIs(true);
   attach(second);
   EXPECT_EQ(first->table(), nullptr);
   EXPECT_EQ(first->mountStatus(), MountStatus::unmounted);
   EXPECT_FALSE(first->quiesced());
   EXPECT_EQ(second->mountStatus(), MountStatus::mounted);
   EXPECT_TRUE(second->quiesced());
   second->tableIs(nullptr);
   EXPECT_EQ(second->mountStatus(), MountStatus::unmounted);
   EXPECT_FALSE(second->quiesced());
   EXPECT_NE(entity->table.tableMount(), nullptr); // stays mounted
   second->tableIs(&entity->table);
   second->tableIs(&entity->table);
   EXPECT_EQ(second->table(), &entity->table);
}

TEST_F(Control, MayBeLetGoByWhoHearsOfItsStatus) {
   Ptr<CollectionControl> control = make();
   attach(control);
   const TestSupport::ChangeLog log(*control, [&] {
      entity->control = nullptr;
      control = nullptr;
   });
   const Ptr<CollectionControl> held = control;
   held->mount();
   EXPECT_FALSE(control);
   EXPECT_EQ(entity->table.mountStatus(), MountStatus::mounted);
}

// It went on with itself after it had gone.
TEST_F(Control, MayBeLetGoByWhoHearsThatItUnmounts) {
   Ptr<CollectionControl> control = make();
   attach(control);
   control->mount();
   const TestSupport::ChangeLog log(*control, [&] {
      entity->control = nullptr;
      control = nullptr;
   });
   control->unmount();
   EXPECT_FALSE(control);
   EXPECT_EQ(entity->table.tableMount(), nullptr);
}

TEST_F(Control, MayUnmountOrGoWhenItsTableChanges) {
   TableMount other(
      directory, "numbers",
      {.role = TableRole::writer, .shape = Table<NumberRecord>::tableShape(), .create = true});
   Ptr<CollectionControl> control = make();
   attach(control);
   control->mount();
   loop.poll();
   other.put(bytes(1), Bytes(12));
   entity->onChange = [&] { control->unmount(); };
   EXPECT_TRUE(loop.runUntil([&] { return !entity->table.tableMount(); }, std::chrono::minutes(1)));

   // And the entity with it.
   control->mount();
   loop.poll();
   other.put(bytes(1), Bytes(12));
   entity->onChange = [&] {
      const auto held = std::move(entity->onChange); // what runs here outlives its owner
      entity->control = nullptr;
      control->entityIs(entity);
      entity = nullptr;
      control = nullptr;
   };
   EXPECT_TRUE(loop.runUntil([&] { return !entity; }, std::chrono::minutes(1)));
   EXPECT_EQ(Entity::destroyed, 1);
   EXPECT_EQ(other.mounts().size(), 1U);
   loop.run();
}

TEST_F(Control, CanBeUsedByName) {
   const Ptr<CollectionControl> control = make();
   attach(control);
   const Platform::TypeData& type = control->typeData();
   EXPECT_EQ(type.name(), "Platform::Tables::CollectionControl");
   std::vector<std::string> names;
   for (const auto& attribute : type.attributes()) {
      names.emplace_back(attribute.name);
   }
   for (const auto& operation : type.operations()) {
      names.emplace_back(operation.name);
   }
   EXPECT_THAT(names, testing::IsSupersetOf({"role", "tableName", "mountStatus", "statusText",
                                             "quiesced", "mount", "unmount", "quiesceIs"}));
   EXPECT_EQ(type.get(*control, "tableName").toString(), "'numbers'");
   type.invoke(*control, "mount", {});
   EXPECT_EQ(control->mountStatus(), MountStatus::mounted);
}

} // namespace
