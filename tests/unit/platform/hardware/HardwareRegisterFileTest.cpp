#include "platform/hardware/HardwareRegisterFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <utility>

#include "platform/entity/TypeData.h"
#include "platform/entity/Value.h"
#include "tests/support/ChangeLog.h"
#include "tests/support/Failure.h"
#include "tests/support/Reflected.h"

namespace {

using Hardware::HardwareRegister;
using Hardware::HardwareRegisterFile;
using Hardware::hardwareRegisterFileFactory;
using Hardware::Ptr;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::ChangeLog;
using TestSupport::Failure;

HardwareRegister reg(const std::string& name, std::uint32_t address) {
   HardwareRegister record;
   record.name = name;
   record.address = address;
   record.width = 32;
   record.arraySize = 1;
   return record;
}

void add(HardwareRegisterFile& model, const std::string& name, std::uint32_t address) {
   model.nameToRegMapIs(name, reg(name, address));
   model.addrToNameMapIs(address, name);
}

TEST(HardwareRegisterFile, ANewOneIsEmptyWithBlocksOfOne) {
   const auto model = hardwareRegisterFileFactory("board/cpld.csv");
   EXPECT_EQ(model->name(), "board/cpld.csv");
   EXPECT_EQ(model->addrBlockSize(), 1);
   EXPECT_EQ(model->size(), 0u);
   EXPECT_THAT(model->names(), IsEmpty());
   EXPECT_THAT(model->addresses(), IsEmpty());
   EXPECT_EQ(model->findRegister(""), nullptr);
   EXPECT_EQ(model->findName(0), nullptr);
}

TEST(HardwareRegisterFile, FindsWhatWasSet) {
   const auto model = hardwareRegisterFileFactory("m");
   add(*model, "A", 8);
   add(*model, "B", 4);
   ASSERT_NE(model->findRegister("A"), nullptr);
   EXPECT_EQ(*model->findRegister("A"), reg("A", 8));
   EXPECT_EQ(*model->findName(4), "B");
   EXPECT_EQ(model->findRegister("C"), nullptr);
   EXPECT_EQ(model->findRegister("a"), nullptr);
   EXPECT_EQ(model->findName(5), nullptr);
   EXPECT_EQ(model->size(), 2u);
}

TEST(HardwareRegisterFile, NamesAreBytes) {
   using namespace std::string_literals;
   const auto model = hardwareRegisterFileFactory("m");
   for (const auto& name : {"A"s, "A\0"s, "A\0B"s, "\xff"s, ""s}) {
      EXPECT_EQ(model->findRegister(name), nullptr);
      model->nameToRegMapIs(name, reg(name, 1));
      ASSERT_NE(model->findRegister(name), nullptr);
      EXPECT_EQ(model->findRegister(name)->name, name);
   }
   EXPECT_EQ(model->size(), 5u);
}

TEST(HardwareRegisterFile, SettersOverwrite) {
   const auto model = hardwareRegisterFileFactory("m");
   add(*model, "A", 8);
   model->nameToRegMapIs("A", reg("A", 12));
   model->addrToNameMapIs(8, "Z");
   EXPECT_EQ(model->findRegister("A")->address, 12u);
   EXPECT_EQ(*model->findName(8), "Z");
   EXPECT_EQ(model->findName(12), nullptr) << "the maps are filled separately";
   EXPECT_EQ(model->size(), 1u);
}

TEST(HardwareRegisterFile, ListsNamesAndAddressesSorted) {
   const auto model = hardwareRegisterFileFactory("m");
   add(*model, "C", 0xffffffff);
   add(*model, "A", 8);
   add(*model, "B", 0);
   EXPECT_THAT(model->names(), ElementsAre("A", "B", "C"));
   EXPECT_THAT(model->addresses(), ElementsAre(0u, 8u, 0xffffffffu));
}

TEST(HardwareRegisterFile, VisitsEveryRegisterOnce) {
   const auto model = hardwareRegisterFileFactory("m");
   std::map<std::string, std::uint32_t> expected;
   for (std::uint32_t i = 0; i < 500; ++i) {
      const std::string name = "R" + std::to_string(i);
      add(*model, name, i * 4);
      expected[name] = i * 4;
   }
   std::map<std::string, std::uint32_t> visited;
   model->forEachRegister([&](const std::string& name, const HardwareRegister& record) {
      EXPECT_TRUE(visited.emplace(name, record.address).second) << name;
      EXPECT_EQ(record.name, name);
   });
   EXPECT_EQ(visited, expected);
}

TEST(HardwareRegisterFile, PublishesAChangeWithItsKeyAndOnlyAChange) {
   const auto model = hardwareRegisterFileFactory("m");
   ChangeLog log(*model);
   model->nameToRegMapIs("A", reg("A", 8));
   model->nameToRegMapIs("A", reg("A", 8));
   model->addrToNameMapIs(8, "A");
   model->addrToNameMapIs(8, "A");
   model->nameToRegMapIs("A", reg("A", 9));
   model->addrToNameMapIs(8, "B");
   model->addrBlockSizeIs(1);
   model->addrBlockSizeIs(4);
   model->addrBlockSizeIs(4);
   model->reserve(100);
   EXPECT_THAT(log.changes, ElementsAre("nameToRegMap['A']", "addrToNameMap[8]",
                                        "nameToRegMap['A']", "addrToNameMap[8]", "addrBlockSize"));
}

TEST(HardwareRegisterFile, AnObserverFindsWhatWasStored) {
   const auto model = hardwareRegisterFileFactory("m");
   bool found = false;
   ChangeLog log(*model, [&] { found = model->findRegister("A") != nullptr; });
   model->nameToRegMapIs("A", reg("A", 8));
   EXPECT_TRUE(found);
}

TEST(HardwareRegisterFile, AnObserverMayAddMoreWithoutDisturbingTheSetter) {
   const auto model = hardwareRegisterFileFactory("m");
   ChangeLog log(*model, [&] {
      for (std::uint32_t i = 0; i < 1000; ++i) {
         model->nameToRegMapIs("X" + std::to_string(i), reg("X", i));
      }
   });
   model->nameToRegMapIs("A", reg("A", 8));
   EXPECT_EQ(model->findRegister("A")->address, 8u);
   EXPECT_EQ(model->size(), 1001u);
}

TEST(HardwareRegisterFile, ReservingKeepsWhatIsThere) {
   const auto model = hardwareRegisterFileFactory("m");
   add(*model, "A", 8);
   model->reserve(10000);
   EXPECT_EQ(model->size(), 1u);
   EXPECT_EQ(model->findRegister("A")->address, 8u);
}

TEST(HardwareRegisterFile, ConvertingMultipliesTheRegisterNumbers) {
   const auto model = hardwareRegisterFileFactory("m");
   model->addrBlockSizeIs(4);
   add(*model, "A", 0);
   add(*model, "B", 4);
   add(*model, "C", 0xfffffffc);
   const auto ones = model->convertAddrBlockSize(1);
   EXPECT_EQ(ones->name(), "m");
   EXPECT_EQ(ones->addrBlockSize(), 1);
   EXPECT_THAT(ones->names(), ElementsAre("A", "B", "C"));
   EXPECT_THAT(ones->addresses(), ElementsAre(0u, 1u, 0x3fffffffu));
   EXPECT_EQ(ones->findRegister("C")->address, 0x3fffffffu);
   EXPECT_EQ(*ones->findName(1), "B");
}

TEST(HardwareRegisterFile, ConvertingKeepsEveryOtherFieldAndTheOriginal) {
   const auto model = hardwareRegisterFileFactory("m");
   HardwareRegister record = reg("A", 10);
   record.width = 7;
   record.arraySize = 3;
   record.accessWidth = 16;
   record.type = Hardware::HardwareRegisterType::led;
   record.writable = true;
   model->nameToRegMapIs("A", record);
   model->addrToNameMapIs(10, "A");
   const auto doubled = model->convertAddrBlockSize(2);
   HardwareRegister expected = record;
   expected.address = 20;
   EXPECT_EQ(*doubled->findRegister("A"), expected);
   EXPECT_EQ(*model->findRegister("A"), record);
   EXPECT_EQ(model->addrBlockSize(), 1);
   EXPECT_THAT(model->addresses(), ElementsAre(10u));
   EXPECT_NE(doubled, model);
}

TEST(HardwareRegisterFile, ConvertingThereAndBackIsExact) {
   const auto model = hardwareRegisterFileFactory("m");
   for (std::uint32_t i = 0; i < 200; ++i) {
      add(*model, "R" + std::to_string(i), i * 5077);
   }
   for (const std::uint8_t size : {1, 2, 3, 4, 7, 8, 255}) {
      const auto back = model->convertAddrBlockSize(size)->convertAddrBlockSize(1);
      EXPECT_EQ(back->addresses(), model->addresses());
      model->forEachRegister([&](const std::string& name, const HardwareRegister& record) {
         EXPECT_EQ(*back->findRegister(name), record);
      });
   }
}

TEST(HardwareRegisterFile, ConvertingKeepsNamesThatShareAnAddress) {
   const auto model = hardwareRegisterFileFactory("m");
   add(*model, "OLD", 8);
   add(*model, "NEW", 8);
   const auto converted = model->convertAddrBlockSize(4);
   EXPECT_THAT(converted->names(), ElementsAre("NEW", "OLD"));
   EXPECT_EQ(*converted->findName(32), "NEW");
}

TEST(HardwareRegisterFile, ConvertingAnEmptyModelIsAlwaysPossible) {
   const auto model = hardwareRegisterFileFactory("m");
   model->addrBlockSizeIs(0);
   EXPECT_EQ(model->convertAddrBlockSize(7)->addrBlockSize(), 7);
}

TEST(HardwareRegisterFile, AnAddressThatIsNoWholeNumberOfBlocksIsNotConverted) {
   const auto model = hardwareRegisterFileFactory("m");
   model->addrBlockSizeIs(4);
   add(*model, "ODD", 6);
   EXPECT_EQ(Failure([&] { model->convertAddrBlockSize(1); }),
             Failure::generic(EINVAL,
                              "Register 'ODD' at address 0x6 is no whole number of 4-unit blocks"));
}

TEST(HardwareRegisterFile, NothingIsAWholeNumberOfEmptyBlocks) {
   const auto model = hardwareRegisterFileFactory("m");
   model->addrBlockSizeIs(0);
   add(*model, "A", 0);
   EXPECT_EQ(
      Failure([&] { model->convertAddrBlockSize(1); }),
      Failure::generic(EINVAL, "Register 'A' at address 0x0 is no whole number of 0-unit blocks"));
}

TEST(HardwareRegisterFile, AnAddressThatWouldNotFitIsNotConverted) {
   const auto model = hardwareRegisterFileFactory("m");
   add(*model, "EDGE", 0x3fffffff);
   EXPECT_THAT(model->convertAddrBlockSize(4)->addresses(), ElementsAre(0xfffffffcu));
   add(*model, "HIGH", 0x40000000);
   EXPECT_EQ(
      Failure([&] { model->convertAddrBlockSize(4); }),
      Failure::generic(
         EOVERFLOW,
         "Register 'HIGH' at address 0x40000000 does not fit in 32 bits with 4-unit blocks"));
   EXPECT_THAT(model->addresses(), ElementsAre(0x3fffffffu, 0x40000000u)) << "unchanged";
}

TEST(HardwareRegisterFile, BlocksOfSizeZeroPutEveryRegisterAtAddressZero) {
   const auto model = hardwareRegisterFileFactory("m");
   add(*model, "A", 3);
   add(*model, "B", 5);
   const auto converted = model->convertAddrBlockSize(0);
   EXPECT_EQ(converted->findRegister("A")->address, 0u);
   EXPECT_EQ(converted->findRegister("B")->address, 0u);
   EXPECT_THAT(converted->addresses(), ElementsAre(0u));
}

TEST(HardwareRegisterFile, ReflectsItsAttributesAndOperations) {
   EXPECT_EQ(HardwareRegisterFile::staticType().name(), "Hardware::HardwareRegisterFile");
   EXPECT_THAT(TestSupport::reflectedAttributes(HardwareRegisterFile::staticType()),
               ElementsAre("name", "addrBlockSize (rw)", "nameToRegMap", "addrToNameMap"));
   EXPECT_THAT(TestSupport::reflectedOperations(HardwareRegisterFile::staticType()),
               ElementsAre("nameToRegMapIs(name, record)", "addrToNameMapIs(address, name)",
                           "convertAddrBlockSize(addrBlockSize)"));
}

TEST(HardwareRegisterFile, AnswersThroughReflection) {
   using Platform::Value;
   const auto model = hardwareRegisterFileFactory("m");
   const Platform::TypeData& type = model->typeData();
   Platform::Reflect::invoke(*model, "nameToRegMapIs", {Value::of("A"), Value::of(reg("A", 8))});
   Platform::Reflect::invoke(*model, "addrToNameMapIs",
                             {Value::of(std::uint32_t{8}), Value::of("A")});
   EXPECT_EQ(type.getAt(*model, "nameToRegMap", Value::of("A")).as<HardwareRegister>(),
             reg("A", 8));
   EXPECT_EQ(type.getAt(*model, "nameToRegMap", Value::of("B")).as<HardwareRegister>(),
             HardwareRegister());
   EXPECT_EQ(
      type.getAt(*model, "addrToNameMap", Value::of(std::uint32_t{8})).as<Platform::String>(), "A");
   EXPECT_EQ(type.keys(*model, "nameToRegMap").size(), 1u);
   Platform::Reflect::set(*model, "addrBlockSize", Value::of(std::uint8_t{4}));
   EXPECT_EQ(model->addrBlockSize(), 4);
}

TEST(HardwareRegisterFile, TheVersionIsAnotherOneAfterEachChangeOfARecord) {
   const auto model = hardwareRegisterFileFactory("model");
   std::uint64_t last = model->version();
   const auto changed = [&] {
      const std::uint64_t before = std::exchange(last, model->version());
      return last != before;
   };
   model->nameToRegMapIs("A", reg("A", 1));
   EXPECT_TRUE(changed());
   model->nameToRegMapIs("A", reg("A", 1));
   EXPECT_FALSE(changed()) << "nothing has changed";
   model->nameToRegMapIs("A", reg("A", 2));
   EXPECT_TRUE(changed());
   model->nameToRegMapIs("A", reg("OTHER", 2));
   EXPECT_TRUE(changed());
   model->addrToNameMapIs(2, "A");
   EXPECT_FALSE(changed()) << "no record has changed";
}

} // namespace
