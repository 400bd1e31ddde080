// Where a core's results go.

#include "TarnRegFile/CoreSmAsyncHelper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/entity/TypeData.h"
#include "platform/trace/CaptureScope.h"
#include "platform/trace/Trace.h"
#include "tests/support/Reflected.h"
#include "tests/support/VirtualSlot.h"
#include "tests/unit/TarnRegFile/CoreSmTest.h"

namespace TarnRegFile::Sable {
namespace {

using Platform::Trace::CaptureScope;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using TestSupport::virtualSlot;

using CoreSmAsyncHelperTest = CoreSmTest;
using CoreSmAsyncHelperDeathTest = CoreSmTest;

TEST_F(CoreSmAsyncHelperTest, KnowsTheCoreItIsOf) {
   makeModel();
   makeCore();
   const auto helper = Platform::make<CoreSmAsyncHelper>(core);
   EXPECT_EQ(helper->parent(), core);
   const CoreSmAsyncHelper& readOnly = *helper;
   EXPECT_EQ(readOnly.parent(), core);
   static_assert(std::is_same_v<decltype(readOnly.parent()), Platform::Ptr<const CoreSmBase>>);
   EXPECT_EQ(core->refCount(), 3u) << "this test's reference, and two helpers'";
}

TEST_F(CoreSmAsyncHelperTest, EachReadResultIsTraced) {
   makeReadyCore();
   CaptureScope traces("TarnRegFile/CoreSmAsyncHelper=9");
   core->asyncHelper()->handleReadResult("CTRL", RegAccessResult::Error, 7);
   ASSERT_EQ(traces.records().size(), 1u);
   const auto record = traces.records().front();
   EXPECT_EQ(record.source, "TarnRegFile/CoreSmAsyncHelper");
   EXPECT_EQ(record.level, 9);
   EXPECT_EQ(record.text, "read CTRL from transport: result Error, value 7");
}

TEST_F(CoreSmAsyncHelperTest, WhileTheCoreIsNotReadyReadsAreOfItsInitialSync) {
   makeModel({5, false});
   makeCore();
   core->accessHwIs(true);
   core->asyncHelper()->handleReadResult("CTRL", RegAccessResult::Success, 7);
   EXPECT_THAT(statusOf(4), Optional(7));
   EXPECT_THAT(log, IsEmpty()) << "no hook hears of them";
   core->createTransport();
   core->asyncHelper()->handleReadResult("SCRATCH", RegAccessResult::Error, 0);
   EXPECT_THAT(bus(), ElementsAre("guarded read 0x8")) << "a failed one is repeated";
   EXPECT_EQ(core->initSyncRetryCount(), 1u);
   EXPECT_THAT(log, IsEmpty());
}

TEST_F(CoreSmAsyncHelperTest, AReadOfTheShadowModeUpdatesTheStatusOnly) {
   makeReadyCore();
   core->asyncHelper()->handleReadResult("CTRL", RegAccessResult::Success, 7);
   EXPECT_THAT(statusOf(4), Optional(7));
   core->asyncHelper()->handleReadResult("CTRL", RegAccessResult::Error, 8);
   core->asyncHelper()->handleReadResult("CTRL", RegAccessResult::Unknown, 9);
   EXPECT_THAT(statusOf(4), Optional(7));
   EXPECT_THAT(log, IsEmpty());
   EXPECT_THAT(bus(), IsEmpty());
}

TEST_F(CoreSmAsyncHelperTest, AReadOfTheHardwareIsToldHoweverItEnded) {
   makeReadyCore();
   core->accessHwIs(true);
   core->asyncHelper()->handleReadResult("CTRL", RegAccessResult::Success, 7);
   core->asyncHelper()->handleReadResult("CTRL", RegAccessResult::Error, 8);
   EXPECT_THAT(log, ElementsAre("read CTRL Success 7", "read CTRL Error 8"));
   EXPECT_THAT(statusOf(4), Optional(7));
}

TEST_F(CoreSmAsyncHelperTest, TheStatusHasTheValueWhenAReadOfTheHardwareIsTold) {
   makeReadyCore();
   core->accessHwIs(true);
   std::optional<std::uint32_t> atHook;
   core->onHook = [&](Core&, const std::string&) { atHook = statusOf(4); };
   core->asyncHelper()->handleReadResult("CTRL", RegAccessResult::Success, 7);
   EXPECT_THAT(atHook, Optional(7));
   core->asyncHelper()->handleReadResult("CTRL", RegAccessResult::Error, 8);
   EXPECT_THAT(atHook, Optional(7)) << "what failed was not entered";
}

TEST_F(CoreSmAsyncHelperTest, AWriteIsToldOnlyWhileTheCoreIsReady) {
   makeReadyCore();
   core->asyncHelper()->handleWriteResult("CTRL", RegAccessResult::Success);
   core->asyncHelper()->handleWriteResult("CTRL", RegAccessResult::Error);
   EXPECT_THAT(log, ElementsAre("write CTRL Success", "write CTRL Error"));
   EXPECT_THAT(statusOf(4), Optional(0xc));
   model->generationIs({1, false});
   log.clear();
   core->asyncHelper()->handleWriteResult("CTRL", RegAccessResult::Success);
   EXPECT_THAT(log, IsEmpty());
}

TEST_F(CoreSmAsyncHelperTest, TheSameHelperServesAllTransports) {
   makeReadyCore();
   const auto helper = core->asyncHelper();
   model->generationIs({2, true});
   EXPECT_EQ(core->asyncHelper(), helper);
   EXPECT_EQ(core->transport()->implPtr()->getAsyncHelper(), helper);
}

TEST_F(CoreSmAsyncHelperDeathTest, AResultWithoutACoreIsFatal) {
   const auto helper = Platform::make<CoreSmAsyncHelper>(nullptr);
   EXPECT_DEATH(helper->handleReadResult("CTRL", RegAccessResult::Success, 1),
                "CoreSmAsyncHelper: handleReadResult: assertion failed: parent is not initialized");
   EXPECT_DEATH(helper->handleWriteResult("CTRL", RegAccessResult::Success),
                "CoreSmAsyncHelper: handleWriteResult: assertion failed: parent is not "
                "initialized");
}

TEST_F(CoreSmAsyncHelperDeathTest, AReadResultIsTracedBeforeTheLackOfACoreIsFatal) {
   const auto helper = Platform::make<CoreSmAsyncHelper>(nullptr);
   EXPECT_DEATH(
      {
         Platform::Trace::levelsAre("TarnRegFile/CoreSmAsyncHelper=9");
         helper->handleReadResult("CTRL", RegAccessResult::Success, 1);
      },
      "read CTRL from transport: result Success, value 1.*parent is not initialized");
}

TEST_F(CoreSmAsyncHelperTest, ItsOperationsTakeTheSlotsOfItsBase) {
   EXPECT_EQ(virtualSlot(&CoreSmAsyncHelper::handleReadResult), 5);
   EXPECT_EQ(virtualSlot(&CoreSmAsyncHelper::handleWriteResult), 6);
}

TEST_F(CoreSmAsyncHelperTest, IsDescribedByItsTable) {
   const auto& type = CoreSmAsyncHelper::staticType();
   EXPECT_EQ(type.name(), "TarnRegFile::Sable::CoreSmAsyncHelper");
   EXPECT_EQ(type.base(), &AsyncHelperBase::staticType());
   EXPECT_THAT(TestSupport::reflectedAttributes(type), ElementsAre("parent"));
}

} // namespace
} // namespace TarnRegFile::Sable
