// What the four tables look like by name: to the command line, and to other languages.

#include <gmock/gmock.h>

#include "platform/entity/Value.h"
#include "tests/support/Reflected.h"
#include "tests/unit/TarnRegFile/RegisterTables.h"

namespace {

using namespace RegisterTables;
using Platform::Value;

template <typename T>
class RegisterTableReflection : public Fixture<T> {};

TYPED_TEST_SUITE(RegisterTableReflection, All, Names);

TYPED_TEST(RegisterTableReflection, DescribesItselfUnderItsOwnNames) {
   const auto entity = TypeParam::factory("table");
   const Platform::TypeData& type = entity->typeData();
   const std::string c = TypeParam::collection;
   EXPECT_EQ(type.name(), std::string("TarnRegFile::Sable::") + TypeParam::className);
   ASSERT_TRUE(type.base());
   EXPECT_EQ(TestSupport::reflectedAttributes(*type.base()),
             (Changes{"name", c, c + "Control (rw)"}));
   EXPECT_EQ(TestSupport::reflectedOperations(*type.base()),
             (Changes{c + "Is(record)", c + "Del(key)", c + "DelAll()", c + "Notify(key)",
                      c + "NotifyQuiesced(quiesced)", c + "NotifyMountStatus()"}));
   EXPECT_THAT(type.describe(), testing::HasSubstr(c + "Control"));
   EXPECT_EQ(TypeParam::Entity::staticType().findAttribute(c)->keyType,
             &Platform::valueType<typename TypeParam::Key>());
}

TYPED_TEST(RegisterTableReflection, IsReadByName) {
   Mounted<TypeParam> table(this->side, "table");
   table.is(7, 70);
   const Platform::TypeData& type = table.entity->typeData();
   const std::string c = TypeParam::collection;
   using Key = typename TypeParam::Key;
   using Record = typename TypeParam::Record;
   EXPECT_EQ(Platform::Reflect::get(*table.entity, "name").template as<Platform::String>(),
             "table");
   EXPECT_EQ(
      Platform::Reflect::get(*table.entity, c + "Control").template as<Ptr<CollectionControl>>(),
      table.control);
   const std::vector<Value> keys = type.keys(*table.entity, c);
   ASSERT_EQ(keys.size(), 1U);
   EXPECT_EQ(keys[0].as<Key>(), TypeParam::key(7));
   EXPECT_EQ(type.getAt(*table.entity, c, keys[0]).template as<Record>(), TypeParam::record(7, 70));
   EXPECT_EQ(type.getAt(*table.entity, c, Value::of(TypeParam::key(8))).template as<Record>(),
             Record());
}

TYPED_TEST(RegisterTableReflection, IsCalledByName) {
   Mounted<TypeParam> table(this->side, "table");
   const ChangeLog log(*table.entity);
   const ChangeLog control(*table.control);
   const std::string c = TypeParam::collection;
   const auto invoke = [&](const std::string& operation, std::initializer_list<Value> arguments) {
      return Platform::Reflect::invoke(*table.entity, c + operation, arguments);
   };
   invoke("Is", {Value::of(TypeParam::record(7, 70))});
   EXPECT_TRUE(table.has(7, 70));
   EXPECT_EQ(
      invoke("Del", {Value::of(TypeParam::key(7))}).template as<typename TypeParam::Record>(),
      TypeParam::record(7, 70));
   table.is(8, 80);
   invoke("DelAll", {});
   EXPECT_EQ(table.table().size(), 0U);
   invoke("Notify", {Value::of(TypeParam::key(9))});
   EXPECT_EQ(log.changes, (Changes{this->change(7), this->change(7), this->change(8),
                                   this->change(8), this->change(9)}));
   invoke("NotifyQuiesced", {Value::of(true)});
   EXPECT_TRUE(table.control->quiesced());
   table.control->mountStatusIs(MountStatus::failed);
   invoke("NotifyMountStatus", {});
   EXPECT_EQ(table.control->mountStatus(), MountStatus::mounted);
   EXPECT_EQ(control.changes, (Changes{"quiesced", "mountStatus", "mountStatus"}));
}

TYPED_TEST(RegisterTableReflection, ItsControlIsSetByName) {
   const auto entity = TypeParam::factory("table");
   const auto control = this->side.controlNew();
   const ChangeLog log(*entity);
   Platform::Reflect::set(*entity, TypeParam::control, Value::of(control));
   EXPECT_EQ(call<TypeParam::controlOf>(*entity), control);
   EXPECT_EQ(control->tableName(), "table");
   EXPECT_EQ(log.changes, Changes{TypeParam::control});
}

} // namespace
