#include "TarnRegFile/TransportMethodImpl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

#include "platform/entity/WeakPtr.h"
#include "tests/support/Failure.h"
#include "tests/support/FakeTransport.h"
#include "tests/support/RecordingAsyncHelper.h"
#include "tests/support/TempDir.h"
#include "tests/support/VirtualSlot.h"

namespace {

using Hardware::hardwareRegisterFileFactory;
using TarnRegFile::AsyncHelperBase;
using TarnRegFile::BaseTransportMethodImpl;
using TarnRegFile::HardwareRegister;
using TarnRegFile::HardwareRegisterFile;
using TarnRegFile::HardwareRegisterType;
using TarnRegFile::Ptr;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using TestSupport::Failure;
using TestSupport::FakeTransport;
using TestSupport::Journal;
using TestSupport::RecordingAsyncHelper;
using TestSupport::virtualSlot;

HardwareRegister reg(const std::string& name, std::uint32_t address,
                     HardwareRegisterType type = HardwareRegisterType::led) {
   HardwareRegister record;
   record.name = name;
   record.address = address;
   record.width = 32;
   record.arraySize = 1;
   record.type = type;
   return record;
}

Ptr<HardwareRegisterFile> model(std::initializer_list<HardwareRegister> records) {
   auto made = hardwareRegisterFileFactory("model");
   for (const auto& record : records) {
      made->nameToRegMapIs(record.name, record);
      made->addrToNameMapIs(record.address, record.name);
   }
   return made;
}

/// A transport that overrides only what it must.
class MinimalTransport : public BaseTransportMethodImpl {
public:
   using BaseTransportMethodImpl::BaseTransportMethodImpl;
   std::uint32_t regRead(const char*) override { return 0; }
   void regWrite(const char*, std::uint32_t) override {}
};

std::string dumpOf(BaseTransportMethodImpl& transport) {
   testing::internal::CaptureStderr();
   transport.dumpAll();
   return testing::internal::GetCapturedStderr();
}

TEST(BaseTransportMethodImpl, HasItsVirtualSlotsInOrder) {
   static_assert(std::is_abstract_v<BaseTransportMethodImpl>);
   static_assert(std::has_virtual_destructor_v<BaseTransportMethodImpl>);
   EXPECT_EQ(virtualSlot(&BaseTransportMethodImpl::regRead), 2);
   EXPECT_EQ(virtualSlot(&BaseTransportMethodImpl::regWrite), 3);
   EXPECT_EQ(virtualSlot(&BaseTransportMethodImpl::regReadBlock), 4);
   EXPECT_EQ(virtualSlot(&BaseTransportMethodImpl::regWriteBlock), 5);
   EXPECT_EQ(virtualSlot(&BaseTransportMethodImpl::asyncHelperIs), 6);
   EXPECT_EQ(virtualSlot(&BaseTransportMethodImpl::getAsyncHelper), 7);
   EXPECT_EQ(virtualSlot(&BaseTransportMethodImpl::dumpAll), -1) << "not virtual";
}

TEST(BaseTransportMethodImpl, LoadsTheListAtThePathAndNamesTheHelperAfterIt) {
   const TestSupport::TempDir dir;
   const std::string path =
      dir.write("a.csv", "number,name,type,writeable,width\n3,A,led,true,8\n");
   MinimalTransport transport(path.c_str(), 4, nullptr);
   EXPECT_EQ(transport.regFileHelper()->name(), path);
   EXPECT_EQ(transport.regFileHelper()->addrBlockSize(), 4);
   EXPECT_EQ(transport.regFileHelper()->findRegisterByName("A").address, 12u);
   EXPECT_EQ(transport.getAsyncHelper(), nullptr);
}

TEST(BaseTransportMethodImpl, AdoptsOrConvertsAModel) {
   const auto given = model({reg("A", 3)});
   MinimalTransport same("", 1, given);
   EXPECT_EQ(same.regFileHelper()->regFilePtr(), given);
   EXPECT_EQ(same.regFileHelper()->name(), "");
   MinimalTransport other("", 4, given);
   EXPECT_NE(other.regFileHelper()->regFilePtr(), given);
   EXPECT_EQ(other.regFileHelper()->findRegisterByName("A").address, 12u);
}

TEST(BaseTransportMethodImpl, AFailedLoadLeavesTheConstructorAndNothingBehind) {
   const TestSupport::TempDir dir;
   const std::string path = dir.write("a.csv", "something else\n");
   const auto given = model({});
   EXPECT_EQ(Failure([&] { MinimalTransport(path.c_str(), 4, given); }),
             Failure::generic(EINVAL, "Wrong CSV header"));
   EXPECT_EQ(Failure([&] { MinimalTransport("", 4, nullptr); }),
             Failure::generic(EINVAL, "Must provide csvPath or regFileModel"));
   EXPECT_EQ(given->refCount(), 1u);
}

TEST(BaseTransportMethodImpl, HoldsOneAsyncHelperAtATime) {
   MinimalTransport transport("", 1, model({}));
   auto first = Platform::make<RecordingAsyncHelper>();
   auto second = Platform::make<RecordingAsyncHelper>();
   transport.asyncHelperIs(first);
   EXPECT_EQ(transport.getAsyncHelper(), first);
   EXPECT_EQ(first->refCount(), 2u);
   transport.asyncHelperIs(second);
   EXPECT_EQ(transport.getAsyncHelper(), second);
   EXPECT_EQ(first->refCount(), 1u) << "the old one is released";
   transport.asyncHelperIs(nullptr);
   EXPECT_EQ(transport.getAsyncHelper(), nullptr);
   EXPECT_EQ(second->refCount(), 1u);
   EXPECT_THAT(first->results, IsEmpty());
}

TEST(BaseTransportMethodImpl, ReleasesTheAsyncHelperFirstAndThenTheRegisterFile) {
   auto given = model({});
   const Platform::WeakPtr<HardwareRegisterFile> watched(given);
   bool modelWasThere = false;
   class LastWords : public RecordingAsyncHelper {
   public:
      explicit LastWords(std::function<void()> say) : _say(std::move(say)) {}
      ~LastWords() override { _say(); }

   private:
      std::function<void()> _say;
   };
   {
      auto transport = std::make_unique<MinimalTransport>("", 1, std::move(given));
      given = nullptr;
      transport->asyncHelperIs(
         Platform::make<LastWords>([&] { modelWasThere = watched.lock() != nullptr; }));
   }
   EXPECT_TRUE(modelWasThere);
   EXPECT_EQ(watched.lock(), nullptr);
}

TEST(BaseTransportMethodImplDeathTest, BlockAccessThatATransportDoesNotHaveStopsTheProcess) {
   MinimalTransport transport("", 1, model({}));
   std::uint32_t word = 0;
   EXPECT_DEATH(
      transport.regReadBlock("A", &word, 1),
      HasSubstr("TarnRegFile/TransportMethodImpl: virtual void "
                "TarnRegFile::BaseTransportMethodImpl::regReadBlock(const char*, uint32_t*, "
                "uint32_t): assertion failed: false && \"Unimplemented\""));
   EXPECT_DEATH(
      transport.regWriteBlock("A", &word, 0),
      HasSubstr("TarnRegFile/TransportMethodImpl: virtual void "
                "TarnRegFile::BaseTransportMethodImpl::regWriteBlock(const char*, const uint32_t*, "
                "uint32_t): assertion failed: false && \"Unimplemented\""));
}

// --- The dump

TEST(BaseTransportMethodImpl, DumpsEveryRegisterInOrderOfAddress) {
   const auto journal = std::make_shared<Journal>();
   FakeTransport transport(model({reg("B", 8), reg("A", 12), reg("C", 0)}), journal);
   transport.value = 0xBEEF;
   const std::string blanks(59, ' ');
   EXPECT_EQ(dumpOf(transport),
             "C" + blanks + " 0xbeef\nB" + blanks + " 0xbeef\nA" + blanks + " 0xbeef\n");
   EXPECT_THAT(*journal, ElementsAre("read C", "read B", "read A"));
}

TEST(BaseTransportMethodImpl, DumpsValuesInLowerCaseHexadecimalWithoutPadding) {
   const auto journal = std::make_shared<Journal>();
   FakeTransport transport(model({reg("A", 8)}), journal);
   for (const auto& [value, text] : {std::pair<std::uint32_t, const char*>{0, "0x0"},
                                     {10, "0xa"},
                                     {0xffffffff, "0xffffffff"}}) {
      transport.value = value;
      EXPECT_EQ(dumpOf(transport), "A" + std::string(59, ' ') + " " + text + "\n");
   }
}

TEST(BaseTransportMethodImpl, DumpsLongNamesInFull) {
   const auto journal = std::make_shared<Journal>();
   const std::string name(70, 'n');
   FakeTransport transport(model({reg(name, 8)}), journal);
   EXPECT_EQ(dumpOf(transport), name + " 0x0\n");
}

TEST(BaseTransportMethodImpl, ANameOfPercentSignsIsNoFormat) {
   const auto journal = std::make_shared<Journal>();
   FakeTransport transport(model({reg(std::string(60, '%') + "s%n", 8)}), journal);
   EXPECT_EQ(dumpOf(transport), std::string(60, '%') + "s%n 0x0\n");
}

TEST(BaseTransportMethodImpl, NeitherReadsNorDumpsConfiguration) {
   const auto journal = std::make_shared<Journal>();
   FakeTransport transport(
      model({reg("A", 4, HardwareRegisterType::cfg), reg("B", 8, HardwareRegisterType::cfg)}),
      journal);
   EXPECT_EQ(dumpOf(transport), "");
   EXPECT_THAT(*journal, IsEmpty());
}

TEST(BaseTransportMethodImpl, DumpsEveryOtherTypeAlsoTheUnknown) {
   const auto journal = std::make_shared<Journal>();
   FakeTransport transport(
      model({reg("A", 4, HardwareRegisterType::cfg), reg("B", 8, HardwareRegisterType::unknown),
             reg("C", 12, static_cast<HardwareRegisterType>(200))}),
      journal);
   EXPECT_THAT(dumpOf(transport), testing::AllOf(HasSubstr("B "), HasSubstr("C ")));
   EXPECT_THAT(*journal, ElementsAre("read B", "read C"));
}

// The list's elements carry the record's own name; when no register has that name its type is not
// known.
TEST(BaseTransportMethodImpl, ANameWithoutARecordIsDumpedAsUnknown) {
   const auto journal = std::make_shared<Journal>();
   auto source = hardwareRegisterFileFactory("model");
   source->nameToRegMapIs("KEY", reg("OTHER", 4, HardwareRegisterType::cfg));
   FakeTransport transport(source, journal);
   EXPECT_THAT(dumpOf(transport), HasSubstr("OTHER "));
   EXPECT_THAT(*journal, ElementsAre("read OTHER"));
}

TEST(BaseTransportMethodImpl, WhatAReadThrowsEndsTheDump) {
   const auto journal = std::make_shared<Journal>();
   FakeTransport transport(model({reg("A", 4), reg("B", 8), reg("C", 12)}), journal);
   int reads = 0;
   transport.onAccess = [&] {
      if (++reads == 2) {
         throw std::logic_error("gone");
      }
   };
   testing::internal::CaptureStderr();
   EXPECT_THROW(transport.dumpAll(), std::logic_error);
   EXPECT_EQ(testing::internal::GetCapturedStderr(), "A" + std::string(59, ' ') + " 0x0\n");
   EXPECT_THAT(*journal, ElementsAre("read A", "read B"));
}

TEST(BaseTransportMethodImpl, AReadThatChangesTheListDoesNotDisturbTheDump) {
   const auto journal = std::make_shared<Journal>();
   const auto source = model({reg("A", 4), reg("B", 8)});
   FakeTransport transport(source, journal);
   transport.onAccess = [&] {
      for (std::uint32_t i = 100; i < 400; ++i) {
         source->nameToRegMapIs("N" + std::to_string(i), reg("N" + std::to_string(i), i));
      }
   };
   dumpOf(transport);
   EXPECT_THAT(*journal, ElementsAre("read A", "read B"));
}

TEST(BaseTransportMethodImpl, TheDumpTellsNoAsyncHelper) {
   const auto journal = std::make_shared<Journal>();
   FakeTransport transport(model({reg("A", 4)}), journal);
   const auto helper = Platform::make<RecordingAsyncHelper>();
   transport.asyncHelperIs(helper);
   dumpOf(transport);
   EXPECT_THAT(helper->results, IsEmpty());
}

} // namespace
