#include "TarnRegFile/RegisterFileHelper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "platform/entity/TypeData.h"
#include "platform/entity/Value.h"
#include "platform/entity/WeakPtr.h"
#include "tests/support/ChangeLog.h"
#include "tests/support/Failure.h"
#include "tests/support/Reflected.h"
#include "tests/support/TempDir.h"

namespace {

using Hardware::hardwareRegisterFileFactory;
using Platform::Value;
using TarnRegFile::HardwareRegister;
using TarnRegFile::HardwareRegisterFile;
using TarnRegFile::Ptr;
using TarnRegFile::RegFileHelper;
using TarnRegFile::regFileHelperFactory;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using TestSupport::ChangeLog;
using TestSupport::Failure;
using TestSupport::TempDir;

const std::string header = "number,name,type,writeable,width\n";

HardwareRegister reg(const std::string& name, std::uint32_t address) {
   HardwareRegister record;
   record.name = name;
   record.address = address;
   record.width = 32;
   record.arraySize = 1;
   return record;
}

Ptr<HardwareRegisterFile> model(std::initializer_list<HardwareRegister> records,
                                std::uint8_t addrBlockSize = 1) {
   auto made = hardwareRegisterFileFactory("model");
   made->addrBlockSizeIs(addrBlockSize);
   for (const auto& record : records) {
      made->nameToRegMapIs(record.name, record);
      made->addrToNameMapIs(record.address, record.name);
   }
   return made;
}

Ptr<RegFileHelper> loaded(const Ptr<HardwareRegisterFile>& source) {
   auto helper = regFileHelperFactory("h");
   helper->init("", source->addrBlockSize(), source);
   return helper;
}

TEST(RegFileHelper, BothFactoriesMakeANewEmptyHelper) {
   for (const bool framework : {false, true}) {
      const auto helper =
         framework ? RegFileHelper::RegFileHelperIs("one") : regFileHelperFactory("one");
      EXPECT_EQ(helper->name(), "one");
      EXPECT_EQ(helper->addrBlockSize(), 0);
      EXPECT_EQ(helper->regFilePtr(), nullptr);
      EXPECT_EQ(helper->refCount(), 1u);
   }
   EXPECT_NE(regFileHelperFactory("one"), regFileHelperFactory("one"));
}

TEST(RegFileHelper, IsNotNamedAfterAnythingItLoads) {
   const TempDir dir;
   const auto helper = regFileHelperFactory("h");
   helper->init(dir.write("a.csv", header), 1, nullptr);
   EXPECT_EQ(helper->name(), "h");
}

TEST(RegFileHelper, LoadsTheFileAtThePathWithTheBlockSize) {
   const TempDir dir;
   const auto helper = regFileHelperFactory("h");
   helper->init(dir.write("a.csv", header + "3,A,led,true,8\n"), 4, nullptr);
   EXPECT_EQ(helper->addrBlockSize(), 4);
   EXPECT_EQ(helper->findRegisterByName("A").address, 12u);
   EXPECT_EQ(helper->regFilePtr()->name(), dir.path("a.csv"));
}

TEST(RegFileHelper, WithAPathTheModelIsIgnored) {
   const TempDir dir;
   const auto given = model({reg("M", 1)});
   const auto helper = regFileHelperFactory("h");
   helper->init(dir.write("a.csv", header + "3,A,led,true,8\n"), 1, given);
   EXPECT_TRUE(helper->hasRegName("A"));
   EXPECT_FALSE(helper->hasRegName("M"));
   EXPECT_NE(helper->regFilePtr(), given);
}

TEST(RegFileHelper, WithABadPathTheModelIsNoFallback) {
   const auto helper = regFileHelperFactory("h");
   EXPECT_EQ(Failure([&] { helper->init("/none/a.csv", 1, model({reg("M", 1)})); }),
             Failure::system(ENOENT, "Error opening CSV file /none/a.csv"));
   EXPECT_EQ(helper->regFilePtr(), nullptr);
}

TEST(RegFileHelper, SharesAModelOfTheSameBlockSize) {
   const auto given = model({reg("M", 8)}, 4);
   const auto helper = regFileHelperFactory("h");
   helper->init("", 4, given);
   EXPECT_EQ(helper->regFilePtr(), given);
   given->nameToRegMapIs("LATER", reg("LATER", 12));
   EXPECT_TRUE(helper->hasRegName("LATER"));
}

TEST(RegFileHelper, ConvertsAModelOfAnotherBlockSize) {
   const auto given = model({reg("M", 8)}, 4);
   const auto helper = regFileHelperFactory("h");
   helper->init("", 1, given);
   EXPECT_NE(helper->regFilePtr(), given);
   EXPECT_EQ(helper->regFilePtr()->addrBlockSize(), 1);
   EXPECT_EQ(helper->findRegisterByName("M").address, 2u);
   EXPECT_EQ(helper->findRegNameByAddr(2), "M");
   EXPECT_EQ(given->findRegister("M")->address, 8u);
}

// A parsed list does not say in what blocks its addresses count; handed on as a model it counts as
// one of single units.
TEST(RegFileHelper, AParsedListHandedOnAsAModelCountsInSingleUnits) {
   const TempDir dir;
   const auto first = regFileHelperFactory("first");
   first->init(dir.write("a.csv", header + "3,A,led,true,8\n"), 4, nullptr);
   const auto second = regFileHelperFactory("second");
   second->init("", 4, first->regFilePtr());
   EXPECT_EQ(second->findRegisterByName("A").address, 48u);
   second->init("", 1, first->regFilePtr());
   EXPECT_EQ(second->findRegisterByName("A").address, 12u);
   EXPECT_EQ(second->regFilePtr(), first->regFilePtr());
}

TEST(RegFileHelper, AFailedConversionKeepsTheModelInUse) {
   const auto helper = loaded(model({reg("OLD", 1)}));
   const auto inUse = helper->regFilePtr();
   EXPECT_EQ(Failure([&] { helper->init("", 4, model({reg("M", 0x40000000)})); }).code, EOVERFLOW);
   EXPECT_EQ(helper->regFilePtr(), inUse);
   EXPECT_EQ(helper->addrBlockSize(), 4);
}

TEST(RegFileHelper, NeitherPathNorModelIsAnErrorThatStillStoresTheBlockSize) {
   const auto helper = loaded(model({reg("OLD", 1)}));
   const auto inUse = helper->regFilePtr();
   EXPECT_EQ(Failure([&] { helper->init("", 7, nullptr); }),
             Failure::generic(EINVAL, "Must provide csvPath or regFileModel"));
   EXPECT_EQ(helper->addrBlockSize(), 7);
   EXPECT_EQ(helper->regFilePtr(), inUse);
}

TEST(RegFileHelper, AFailedLoadStoresTheBlockSizeAndKeepsTheModelInUse) {
   const TempDir dir;
   const auto helper = loaded(model({reg("OLD", 1)}));
   const auto inUse = helper->regFilePtr();
   EXPECT_THROW(helper->init(dir.write("a.csv", header + "1,A,led,true,8\nx\n"), 9, nullptr),
                std::invalid_argument);
   EXPECT_EQ(helper->addrBlockSize(), 9);
   EXPECT_EQ(helper->regFilePtr(), inUse);
   EXPECT_TRUE(helper->hasRegName("OLD"));
   EXPECT_FALSE(helper->hasRegName("A"));
}

TEST(RegFileHelper, EachInitReplacesTheModelAsAWhole) {
   const TempDir dir;
   const auto helper = regFileHelperFactory("h");
   helper->init(dir.write("a.csv", header + "1,A,led,true,8\n"), 1, nullptr);
   const Platform::WeakPtr<HardwareRegisterFile> first(helper->regFilePtr());
   helper->init(dir.write("b.csv", header + "1,B,led,true,8\n"), 1, nullptr);
   EXPECT_FALSE(helper->hasRegName("A"));
   EXPECT_TRUE(helper->hasRegName("B"));
   EXPECT_EQ(first.lock(), nullptr) << "the old model is released";
}

TEST(RegFileHelper, HoldsExactlyOneReferenceToTheModel) {
   const auto given = model({});
   {
      const auto helper = loaded(given);
      EXPECT_EQ(given->refCount(), 2u);
   }
   EXPECT_EQ(given->refCount(), 1u);
}

TEST(RegFileHelper, PublishesTheBlockSizeFirstAndThenTheModel) {
   const auto given = model({});
   const auto helper = regFileHelperFactory("h");
   ChangeLog log(*helper);
   helper->init("", 1, given);
   helper->init("", 1, given);
   EXPECT_THAT(log.changes, ElementsAre("addrBlockSize", "regFilePtr"));
   EXPECT_THROW(helper->init("", 2, nullptr), std::system_error);
   EXPECT_THAT(log.changes, ElementsAre("addrBlockSize", "regFilePtr", "addrBlockSize"));
}

TEST(RegFileHelper, ParsingChangesNothingHere) {
   const TempDir dir;
   const auto helper = regFileHelperFactory("h");
   ChangeLog log(*helper);
   const auto parsed = helper->parseCsv(dir.write("a.csv", header + "3,A,led,true,8\n"), 4);
   EXPECT_EQ(parsed->findRegister("A")->address, 12u);
   EXPECT_EQ(helper->regFilePtr(), nullptr);
   EXPECT_EQ(helper->addrBlockSize(), 0);
   EXPECT_THAT(log.changes, IsEmpty());
   EXPECT_EQ(parsed->refCount(), 1u);
}

// --- Look-ups

TEST(RegFileHelper, FindsTheRecordOfAName) {
   const auto helper = loaded(model({reg("A", 8), reg("B", 4)}));
   EXPECT_EQ(helper->findRegisterByName("A"), reg("A", 8));
   EXPECT_EQ(helper->registerByName("B"), reg("B", 4));
}

TEST(RegFileHelper, TheRecordFoundIsACopy) {
   const auto helper = loaded(model({reg("A", 8)}));
   HardwareRegister record = helper->findRegisterByName("A");
   record.address = 99;
   EXPECT_EQ(helper->findRegisterByName("A").address, 8u);
}

TEST(RegFileHelper, AnUnknownNameIsEnoentWithTheNameInQuotes) {
   const auto helper = loaded(model({reg("A", 8)}));
   for (const std::string name : {"NOPE", "", "a", "A ", "{}"}) {
      const Failure expected =
         Failure::generic(ENOENT, "RegisterFile does not have register '" + name + "'");
      EXPECT_EQ(Failure([&] { helper->findRegisterByName(name); }), expected);
      EXPECT_EQ(Failure([&] { helper->registerByName(name); }), expected);
   }
   EXPECT_EQ(helper->findRegisterByName("A"), reg("A", 8)) << "unchanged afterwards";
}

TEST(RegFileHelper, ARecordThatEqualsTheEmptyOneIsReportedMissing) {
   auto source = hardwareRegisterFileFactory("model");
   source->nameToRegMapIs("GHOST", HardwareRegister());
   HardwareRegister almost;
   almost.width = 1;
   source->nameToRegMapIs("ALMOST", almost);
   const auto helper = loaded(source);
   EXPECT_EQ(Failure([&] { helper->findRegisterByName("GHOST"); }),
             Failure::generic(ENOENT, "RegisterFile does not have register 'GHOST'"));
   EXPECT_TRUE(helper->hasRegName("GHOST")) << "it is a key of the map all the same";
   EXPECT_EQ(helper->findRegisterByName("ALMOST"), almost);
}

TEST(RegFileHelper, FindsTheNameAtAnAddress) {
   const auto helper = loaded(model({reg("A", 8), reg("Z", 0), reg("M", 0xffffffff)}));
   EXPECT_EQ(helper->findRegNameByAddr(8), "A");
   EXPECT_EQ(helper->findRegNameByAddr(0), "Z");
   EXPECT_EQ(helper->findRegNameByAddr(0xffffffff), "M");
}

TEST(RegFileHelper, AnUnknownAddressIsEnoentWithTheAddressInDecimal) {
   const auto helper = loaded(model({reg("A", 8)}));
   EXPECT_EQ(Failure([&] { helper->findRegNameByAddr(4096); }),
             Failure::generic(ENOENT, "RegisterFile does not have address: 4096"));
   EXPECT_EQ(Failure([&] { helper->findRegNameByAddr(0xffffffff); }),
             Failure::generic(ENOENT, "RegisterFile does not have address: 4294967295"));
}

TEST(RegFileHelper, AnEmptyNameAtAnAddressIsReportedMissing) {
   auto source = model({reg("A", 8)});
   source->addrToNameMapIs(16, "");
   const auto helper = loaded(source);
   EXPECT_EQ(Failure([&] { helper->findRegNameByAddr(16); }),
             Failure::generic(ENOENT, "RegisterFile does not have address: 16"));
}

TEST(RegFileHelper, KnowsEveryNameOfAnArrayButNotTheUnexpandedForm) {
   const TempDir dir;
   const auto helper = regFileHelperFactory("h");
   helper->init(dir.write("a.csv", header + "5,RX[0:2],led,false,16\n"), 4, nullptr);
   for (const char* name : {"RX[0]", "RX[1]", "RX[2]"}) {
      EXPECT_TRUE(helper->hasRegName(name));
   }
   for (const char* name : {"RX[0:2]", "RX[3]", "RX", "rx[0]", ""}) {
      EXPECT_FALSE(helper->hasRegName(name)) << name;
   }
}

TEST(RegFileHelper, ListsTheRegistersByAddress) {
   const auto helper = loaded(model({reg("A", 8), reg("B", 0), reg("C", 4)}));
   const auto list = helper->regList();
   std::vector<std::uint32_t> addresses;
   for (const auto& [address, element] : *list) {
      addresses.push_back(address);
      EXPECT_EQ(element->address(), address);
      EXPECT_EQ(element->record(), *helper->regFilePtr()->findRegister(element->record().name));
   }
   EXPECT_THAT(addresses, ElementsAre(0u, 4u, 8u));
}

TEST(RegFileHelper, EachListIsNewAndItsCallersOwnCopy) {
   const auto source = model({reg("A", 8)});
   const auto helper = loaded(source);
   const auto list = helper->regList();
   EXPECT_NE(helper->regList(), list);
   EXPECT_EQ(list->refCount(), 1u);
   source->nameToRegMapIs("B", reg("B", 12));
   source->nameToRegMapIs("A", reg("A", 9));
   EXPECT_EQ(list->size(), 1u);
   EXPECT_EQ(list->reg(8), reg("A", 8));
   list->regDelAll();
   EXPECT_TRUE(helper->hasRegName("A"));
   EXPECT_EQ(helper->regList()->size(), 2u);
}

TEST(RegFileHelper, RegistersThatShareAnAddressAreOneElementOfTheList) {
   const auto list = loaded(model({reg("A", 8), reg("B", 8)}))->regList();
   EXPECT_EQ(list->size(), 1u);
   EXPECT_THAT(list->reg(8).name, testing::AnyOf("A", "B"));
}

TEST(RegFileHelper, TheListOfAnEmptyFileIsEmpty) {
   EXPECT_EQ(loaded(model({}))->regList()->size(), 0u);
}

TEST(RegFileHelper, TheListHoldsRecordsThatLookUpsReportMissing) {
   auto source = hardwareRegisterFileFactory("model");
   source->nameToRegMapIs("GHOST", HardwareRegister());
   EXPECT_EQ(loaded(source)->regList()->size(), 1u);
}

TEST(RegFileHelperDeathTest, ALookUpBeforeASuccessfulInitStopsTheProcess) {
   const auto helper = regFileHelperFactory("h");
   EXPECT_DEATH(helper->findRegisterByName("A"),
                HasSubstr("TarnRegFile/RegisterFileHelper: findRegisterByName: assertion failed: "
                          "regFilePtr != nullptr && \"look-up before a successful init\""));
   EXPECT_DEATH(helper->findRegNameByAddr(0), HasSubstr(": findRegNameByAddr: assertion failed: "));
   EXPECT_DEATH(helper->hasRegName("A"), HasSubstr(": hasRegName: assertion failed: "));
   EXPECT_DEATH(helper->regList(), HasSubstr(": regList: assertion failed: "));
}

// --- Reflection

TEST(RegFileHelper, ReflectsItsAttributesAndOperations) {
   const Platform::TypeData& type = RegFileHelper::staticType();
   EXPECT_EQ(type.name(), "TarnRegFile::RegFileHelper");
   EXPECT_TRUE(type.isA(Platform::Node::staticType()));
   EXPECT_THAT(TestSupport::reflectedAttributes(type),
               ElementsAre("name", "addrBlockSize", "regFilePtr"));
   EXPECT_THAT(TestSupport::reflectedOperations(type),
               ElementsAre("init(csvPath, addrBlockSize, regFileModel)",
                           "parseCsv(csvPath, addrBlockSize)", "findRegisterByName(name)",
                           "findRegNameByAddr(address)", "hasRegName(name)", "regList()"));
   EXPECT_EQ(&regFileHelperFactory("h")->typeData(), &type);
}

TEST(RegFileHelper, WorksThroughReflection) {
   using Platform::Reflect::invoke;
   const auto given = model({reg("A", 8)});
   const auto helper = regFileHelperFactory("h");
   invoke(*helper, "init", {Value::of(""), Value::of(std::uint8_t{1}), Value::of(given)});
   EXPECT_EQ(Platform::Reflect::get(*helper, "regFilePtr").as<Ptr<HardwareRegisterFile>>(), given);
   EXPECT_EQ(invoke(*helper, "findRegisterByName", {Value::of("A")}).as<HardwareRegister>(),
             reg("A", 8));
   EXPECT_EQ(invoke(*helper, "findRegNameByAddr", {Value::of(std::uint32_t{8})}).toString(), "'A'");
   EXPECT_TRUE(invoke(*helper, "hasRegName", {Value::of("A")}).as<bool>());
   EXPECT_EQ(invoke(*helper, "regList", {}).as<Ptr<TarnRegFile::RegList>>()->size(), 1u);
}

} // namespace
