#include "TarnRegFile/RegList.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

#include "platform/entity/TypeData.h"
#include "platform/entity/Value.h"
#include "tests/support/ChangeLog.h"
#include "tests/support/Reflected.h"

namespace {

using Platform::Value;
using TarnRegFile::HardwareRegister;
using TarnRegFile::Ptr;
using TarnRegFile::RegList;
using TarnRegFile::RegListElement;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::ChangeLog;

HardwareRegister reg(const std::string& name, std::uint32_t address, std::uint32_t width = 32) {
   HardwareRegister record;
   record.name = name;
   record.address = address;
   record.width = width;
   record.arraySize = 1;
   record.type = TarnRegFile::HardwareRegisterType::led;
   record.writable = true;
   return record;
}

Ptr<RegList> list(std::initializer_list<std::uint32_t> addresses) {
   auto made = Platform::make<RegList>();
   for (const std::uint32_t address : addresses) {
      made->regIs(address, reg("R" + std::to_string(address), address));
   }
   return made;
}

std::vector<std::uint32_t> addressesOf(const RegList& registers) {
   std::vector<std::uint32_t> addresses;
   for (const auto& [address, element] : registers) {
      addresses.push_back(address);
   }
   return addresses;
}

TEST(RegList, AnAbsentAddressIsTheEmptyRecord) {
   const auto registers = list({});
   EXPECT_EQ(registers->reg(100), HardwareRegister());
   EXPECT_EQ(registers->reg(100).accessWidth, 32u);
   EXPECT_EQ(registers->regGet(100), std::nullopt);
   EXPECT_EQ(registers->regDel(100), HardwareRegister());
   EXPECT_EQ(registers->size(), 0u) << "asking adds nothing";
}

TEST(RegList, GivesBackACopyOfAllFields) {
   const auto registers = list({});
   registers->regIs(8, reg("A", 8));
   EXPECT_EQ(registers->reg(8), reg("A", 8));
   EXPECT_EQ(registers->regGet(8), reg("A", 8));
   HardwareRegister copy = registers->reg(8);
   copy.name = "B";
   EXPECT_EQ(registers->reg(8).name, "A");
}

TEST(RegList, TheKeyNeedNotBeTheRecordsAddress) {
   const auto registers = list({});
   registers->regIs(1, reg("A", 8));
   EXPECT_EQ(registers->reg(1), reg("A", 8));
   EXPECT_EQ(registers->regGet(8), std::nullopt);
}

TEST(RegList, AStoredEmptyRecordIsPresent) {
   const auto registers = list({});
   registers->regIs(4, HardwareRegister());
   EXPECT_EQ(registers->regGet(4), HardwareRegister());
   EXPECT_EQ(registers->size(), 1u);
}

TEST(RegList, IteratesFromTheLowestAddressToTheHighest) {
   const auto registers = list({8, 0xffffffff, 0, 4, 0x80000000});
   EXPECT_THAT(addressesOf(*registers), ElementsAre(0u, 4u, 8u, 0x80000000u, 0xffffffffu));
   for (const auto& [address, element] : registers->reg()) {
      EXPECT_EQ(element->address(), address);
      EXPECT_EQ(element->record().name, "R" + std::to_string(address));
   }
}

TEST(RegList, SettingAnAddressTwiceOverwritesInPlace) {
   const auto registers = list({8});
   const Ptr<RegListElement> element = registers->begin()->second;
   registers->regIs(8, reg("OTHER", 12, 7));
   EXPECT_EQ(registers->size(), 1u);
   EXPECT_EQ(registers->begin()->second, element) << "the element stays";
   EXPECT_EQ(element->record(), reg("OTHER", 12, 7)) << "name and all fields";
}

TEST(RegList, DeletingReturnsTheRecord) {
   const auto registers = list({4, 8});
   EXPECT_EQ(registers->regDel(4), reg("R4", 4));
   EXPECT_THAT(addressesOf(*registers), ElementsAre(8u));
   EXPECT_EQ(registers->regDel(4), HardwareRegister());
   EXPECT_EQ(registers->size(), 1u);
}

TEST(RegList, DeletesTheElementAnIteratorPointsAt) {
   const auto registers = list({0, 4, 8});
   RegList::iterator next = registers->regDel(std::next(registers->begin()));
   EXPECT_EQ(next->first, 8u);
   EXPECT_THAT(addressesOf(*registers), ElementsAre(0u, 8u));
   EXPECT_EQ(registers->regDel(next), registers->end());
   EXPECT_THAT(addressesOf(*registers), ElementsAre(0u));
}

TEST(RegList, AWalkMayDeleteAsItGoes) {
   const auto registers = list({0, 1, 2, 3, 4, 5});
   for (auto it = registers->begin(); it != registers->end();) {
      it = it->first % 2 ? registers->regDel(it) : std::next(it);
   }
   EXPECT_THAT(addressesOf(*registers), ElementsAre(0u, 2u, 4u));
}

TEST(RegList, DeletesAll) {
   const auto registers = list({0, 4, 8});
   registers->regDelAll();
   EXPECT_EQ(registers->size(), 0u);
   registers->regDelAll();
   EXPECT_EQ(registers->begin(), registers->end());
}

TEST(RegList, PublishesAChangeWithItsAddressAndOnlyAChange) {
   const auto registers = list({0});
   ChangeLog log(*registers);
   registers->regIs(4, reg("A", 4));
   registers->regIs(4, reg("A", 4));
   registers->regIs(4, reg("B", 4));
   registers->regDel(4);
   registers->regDel(4);
   registers->regDel(registers->begin());
   registers->regDelAll();
   EXPECT_THAT(log.changes, ElementsAre("reg[4]", "reg[4]", "reg[4]", "reg[0]"));
}

TEST(RegList, DeletingAllPublishesEachAddress) {
   const auto registers = list({8, 0, 4});
   ChangeLog log(*registers);
   registers->regDelAll();
   EXPECT_THAT(log.changes, ElementsAre("reg[0]", "reg[4]", "reg[8]"));
}

TEST(RegList, AnElementPublishesItsRecord) {
   const auto registers = list({4});
   ChangeLog log(*registers->begin()->second);
   registers->regIs(4, reg("R4", 4));
   EXPECT_THAT(log.changes, IsEmpty());
   registers->regIs(4, reg("B", 4));
   EXPECT_THAT(log.changes, ElementsAre("record"));
}

TEST(RegList, ADeletedElementLivesAsLongAsSomebodyHoldsIt) {
   const auto registers = list({4});
   const Ptr<RegListElement> element = registers->begin()->second;
   registers->regDel(4);
   EXPECT_EQ(element->refCount(), 1u);
   EXPECT_EQ(element->record(), reg("R4", 4));
}

TEST(RegList, AnObserverMayEmptyTheListWhileItIsBeingChanged) {
   const auto registers = list({0, 4, 8});
   ChangeLog log(*registers, [&] { registers->regDelAll(); });
   EXPECT_EQ(registers->regDel(4), reg("R4", 4));
   EXPECT_EQ(registers->size(), 0u);
   registers->regIs(12, reg("A", 12));
   EXPECT_EQ(registers->size(), 0u);
}

TEST(RegList, AnObserverThatDeletesTheNextElementDoesNotUpsetADeletionByIterator) {
   const auto registers = list({0, 4, 8});
   ChangeLog log(*registers, [&] { registers->regDel(4); });
   EXPECT_EQ(registers->regDel(registers->begin())->first, 8u);
   EXPECT_THAT(addressesOf(*registers), ElementsAre(8u));
}

// Deleting all asked for the first element until there was none, and so went on as long as the
// observer did.
TEST(RegList, DeletingAllEndsEvenWhenAnObserverPutsElementsBack) {
   const auto registers = list({0, 4});
   int puts = 0;
   ChangeLog log(*registers, [&] {
      if (!registers->regGet(0) && ++puts < 1000) {
         registers->regIs(0, reg("BACK", 0));
      }
   });
   registers->regDelAll();
   EXPECT_LT(puts, 10);
   EXPECT_THAT(addressesOf(*registers), ElementsAre(0u));
}

TEST(RegList, AgreesWithAnOrderedMapOnRandomOperations) {
   std::mt19937 random(3);
   const auto registers = list({});
   std::map<std::uint32_t, HardwareRegister> expected;
   for (int i = 0; i < 20000; ++i) {
      const std::uint32_t address = random() % 64;
      switch (random() % 4) {
      case 0:
      case 1: {
         const auto record = reg("R" + std::to_string(random() % 5), address);
         registers->regIs(address, record);
         expected[address] = record;
         break;
      }
      case 2: {
         const auto found = expected.find(address);
         ASSERT_EQ(registers->regDel(address),
                   found == expected.end() ? HardwareRegister() : found->second);
         expected.erase(address);
         break;
      }
      default:
         ASSERT_EQ(registers->regGet(address).has_value(), expected.contains(address));
      }
      ASSERT_EQ(registers->size(), expected.size());
   }
   auto it = expected.begin();
   for (const auto& [address, element] : *registers) {
      EXPECT_EQ(address, it->first);
      EXPECT_EQ(element->record(), it->second);
      ++it;
   }
}

TEST(RegList, ReflectsTheCollectionAndItsOperations) {
   const Platform::TypeData& type = RegList::staticType();
   EXPECT_EQ(type.name(), "TarnRegFile::RegList");
   EXPECT_THAT(TestSupport::reflectedAttributes(type), ElementsAre("reg"));
   EXPECT_THAT(TestSupport::reflectedOperations(type),
               ElementsAre("regIs(address, record)", "regDel(address)", "regDelAll()"));
   EXPECT_THAT(TestSupport::reflectedAttributes(RegListElement::staticType()),
               ElementsAre("address", "record (rw)"));

   const auto registers = list({8, 4});
   const auto keys = type.keys(*registers, "reg");
   ASSERT_EQ(keys.size(), 2u);
   EXPECT_EQ(keys[0].as<std::uint32_t>(), 4u);
   EXPECT_EQ(type.getAt(*registers, "reg", Value::of(std::uint32_t{8})).as<HardwareRegister>(),
             reg("R8", 8));
   EXPECT_EQ(Platform::Reflect::invoke(*registers, "regDel", {Value::of(std::uint32_t{8})})
                .as<HardwareRegister>(),
             reg("R8", 8));
   EXPECT_EQ(registers->size(), 1u);
}

} // namespace
