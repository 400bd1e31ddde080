#include "TarnRegFile/AsyncHelper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <type_traits>

#include "platform/entity/TypeData.h"
#include "platform/entity/Value.h"
#include "tests/support/RecordingAsyncHelper.h"
#include "tests/support/Reflected.h"
#include "tests/support/VirtualSlot.h"

namespace {

using Platform::Value;
using TarnRegFile::AsyncHelperBase;
using TarnRegFile::Ptr;
using TarnRegFile::RegAccessResult;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::RecordingAsyncHelper;
using TestSupport::virtualSlot;

TEST(AsyncHelperBase, IsAnAbstractEntity) {
   static_assert(std::is_abstract_v<AsyncHelperBase>);
   static_assert(std::is_base_of_v<Platform::Node, AsyncHelperBase>);
   static_assert(std::has_virtual_destructor_v<AsyncHelperBase>);
   static_assert(sizeof(AsyncHelperBase) == sizeof(Platform::Node), "it has no data of its own");
}

// Behind the node's: destructors 0 and 1, last user 2, publisher 3, type data 4.
TEST(AsyncHelperBase, TheResultsTakeTheFirstVirtualSlotsAfterTheNodes) {
   EXPECT_EQ(virtualSlot(&AsyncHelperBase::publisher), 3);
   EXPECT_EQ(virtualSlot(&AsyncHelperBase::typeData), 4);
   EXPECT_EQ(virtualSlot(&AsyncHelperBase::handleReadResult), 5);
   EXPECT_EQ(virtualSlot(&AsyncHelperBase::handleWriteResult), 6);
}

TEST(AsyncHelperBase, IsDestroyedThroughItsBase) {
   const int before = RecordingAsyncHelper::alive;
   Ptr<AsyncHelperBase> helper = Platform::make<RecordingAsyncHelper>();
   EXPECT_EQ(RecordingAsyncHelper::alive, before + 1);
   helper.reset();
   EXPECT_EQ(RecordingAsyncHelper::alive, before);
}

TEST(AsyncHelperBase, ReflectsBothResultsWithTheirArguments) {
   const Platform::TypeData& type = AsyncHelperBase::staticType();
   EXPECT_EQ(type.name(), "TarnRegFile::AsyncHelperBase");
   EXPECT_EQ(type.base(), &Platform::Node::staticType());
   EXPECT_THAT(TestSupport::reflectedAttributes(type), IsEmpty());
   EXPECT_THAT(TestSupport::reflectedOperations(type),
               ElementsAre("handleReadResult(regName, result, value)",
                           "handleWriteResult(regName, result)"));
   EXPECT_THAT(type.describe(), testing::HasSubstr("operation handleReadResult(regName: String, "
                                                   "result: TarnRegFile::RegAccessResult, "
                                                   "value: U32)\n"));
}

TEST(AsyncHelperBase, CanBeToldOfResultsByName) {
   const auto helper = Platform::make<RecordingAsyncHelper>();
   Platform::Reflect::invoke(
      *helper, "handleReadResult",
      {Value::of("A"), Value::of(RegAccessResult::Success), Value::of(std::uint32_t{7})});
   Platform::Reflect::invoke(*helper, "handleWriteResult",
                             {Value::of("B"), Value::of(RegAccessResult::Error)});
   EXPECT_THAT(helper->results, ElementsAre("read A Success 7", "write B Error"));
}

} // namespace
