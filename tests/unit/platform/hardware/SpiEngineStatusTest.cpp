#include "platform/hardware/SpiEngineStatus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>

#include "tests/support/ChangeLog.h"
#include "tests/support/Reflected.h"

namespace {

using Hardware::SpiEngineStatus;
using testing::ElementsAre;
using TestSupport::ChangeLog;

TEST(SpiEngineStatus, StartsWithNothingDoneAndNothingFailed) {
   const auto status = Platform::make<SpiEngineStatus>("cpld");
   EXPECT_EQ(status->name(), "cpld");
   EXPECT_EQ(status->completed(), 0u);
   EXPECT_EQ(status->failed(), 0u);
   EXPECT_EQ(status->lastError(), 0);
   EXPECT_EQ(status->lastErrorText(), "");
   EXPECT_EQ(status->lastRequestId(), 0u);
}

TEST(SpiEngineStatus, CountsAndNamesWhatCompleted) {
   const auto status = Platform::make<SpiEngineStatus>("cpld");
   ChangeLog log(*status);
   status->requestCompleted(0);
   EXPECT_THAT(log.changes, ElementsAre("completed")) << "the id is the one it was";
   status->requestCompleted(8);
   EXPECT_THAT(log.changes, ElementsAre("completed", "lastRequestId", "completed"));
   EXPECT_EQ(status->completed(), 2u);
   EXPECT_EQ(status->failed(), 0u);
   EXPECT_EQ(status->lastRequestId(), 8u);
}

TEST(SpiEngineStatus, CountsAndNamesWhatFailed) {
   const auto status = Platform::make<SpiEngineStatus>("cpld");
   ChangeLog log(*status);
   status->requestFailed(3, EIO, "broken");
   EXPECT_THAT(log.changes, ElementsAre("lastRequestId", "lastError", "lastErrorText", "failed"));
   EXPECT_EQ(status->completed(), 0u);
   EXPECT_EQ(status->failed(), 1u);
   EXPECT_EQ(status->lastError(), EIO);
   EXPECT_EQ(status->lastErrorText(), "broken");
   EXPECT_EQ(status->lastRequestId(), 3u);
}

TEST(SpiEngineStatus, PublishesOnlyWhatDiffers) {
   const auto status = Platform::make<SpiEngineStatus>("cpld");
   status->requestFailed(3, EIO, "broken");
   ChangeLog log(*status);
   status->requestFailed(3, EIO, "broken");
   EXPECT_THAT(log.changes, ElementsAre("failed"));
   EXPECT_EQ(status->failed(), 2u);
}

TEST(SpiEngineStatus, AFailureIsRememberedThroughLaterSuccess) {
   const auto status = Platform::make<SpiEngineStatus>("cpld");
   status->requestFailed(3, EIO, "broken");
   status->requestCompleted(4);
   EXPECT_EQ(status->lastError(), EIO);
   EXPECT_EQ(status->lastErrorText(), "broken");
   EXPECT_EQ(status->lastRequestId(), 4u);
}

TEST(SpiEngineStatus, AnObserverOfAnyChangeSeesTheWholeOfIt) {
   const auto status = Platform::make<SpiEngineStatus>("cpld");
   int calls = 0;
   ChangeLog log(*status, [&] {
      ++calls;
      EXPECT_EQ(status->failed(), 1u);
      EXPECT_EQ(status->lastError(), EIO);
      EXPECT_EQ(status->lastErrorText(), "broken");
      EXPECT_EQ(status->lastRequestId(), 3u);
   });
   status->requestFailed(3, EIO, "broken");
   EXPECT_EQ(calls, 4);
}

TEST(SpiEngineStatus, AFailingObserverIsStillToldEverythingAndThenReachesTheCaller) {
   const auto status = Platform::make<SpiEngineStatus>("cpld");
   int calls = 0;
   ChangeLog log(*status, [&] { throw std::runtime_error(std::to_string(++calls)); });
   try {
      status->requestFailed(3, EIO, "broken");
      FAIL();
   } catch (const std::runtime_error& first) {
      EXPECT_STREQ(first.what(), "1");
   }
   EXPECT_THAT(log.changes, ElementsAre("lastRequestId", "lastError", "lastErrorText", "failed"));
   EXPECT_THROW(status->requestCompleted(4), std::runtime_error);
   EXPECT_EQ(status->completed(), 1u);
   EXPECT_EQ(calls, 6);
}

TEST(SpiEngineStatus, AnObserverMayLetTheStatusGo) {
   auto status = Platform::make<SpiEngineStatus>("cpld");
   int calls = 0;
   const auto subscription = Platform::subscribe(*status, [&](const auto&) {
      ++calls;
      status.reset();
   });
   status->requestFailed(3, EIO, "broken");
   EXPECT_EQ(calls, 4) << "the change is told to its end";
   EXPECT_EQ(status, nullptr);
}

TEST(SpiEngineStatus, ReflectsItsAttributesReadOnly) {
   EXPECT_THAT(
      TestSupport::reflectedAttributes(SpiEngineStatus::staticType()),
      ElementsAre("name", "completed", "failed", "lastError", "lastErrorText", "lastRequestId"));
}

} // namespace
