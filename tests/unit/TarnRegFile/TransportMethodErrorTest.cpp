#include "TarnRegFile/TransportMethodError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/entity/TypeData.h"
#include "platform/entity/Value.h"
#include "tests/support/ChangeLog.h"
#include "tests/support/Reflected.h"

namespace {

using TarnRegFile::TransportMethodError;
using testing::ElementsAre;
using TestSupport::ChangeLog;

TEST(TransportMethodError, StartsWithoutError) {
   const auto notifier = Platform::make<TransportMethodError>("chip");
   EXPECT_EQ(notifier->chipName(), "chip");
   EXPECT_FALSE(notifier->error());
}

TEST(TransportMethodError, PublishesTheFlagWhenItChanges) {
   const auto notifier = Platform::make<TransportMethodError>("chip");
   ChangeLog log(*notifier);
   notifier->errorIs(false);
   notifier->errorIs(true);
   notifier->errorIs(true);
   EXPECT_TRUE(notifier->error());
   notifier->errorIs(false);
   EXPECT_FALSE(notifier->error());
   EXPECT_THAT(log.changes, ElementsAre("error", "error"));
}

TEST(TransportMethodError, PublishesTheChipNameWhenItChanges) {
   const auto notifier = Platform::make<TransportMethodError>("chip");
   ChangeLog log(*notifier);
   notifier->chipNameIs("chip");
   notifier->chipNameIs("other");
   notifier->chipNameIs("other");
   EXPECT_EQ(notifier->chipName(), "other");
   EXPECT_THAT(log.changes, ElementsAre("chipName"));
}

TEST(TransportMethodError, AnObserverFindsTheFlagAlreadySetAndMayClearIt) {
   const auto notifier = Platform::make<TransportMethodError>("chip");
   std::vector<bool> seen;
   ChangeLog log(*notifier, [&] {
      seen.push_back(notifier->error());
      notifier->errorIs(false);
   });
   notifier->errorIs(true);
   EXPECT_THAT(seen, ElementsAre(true, false));
   EXPECT_FALSE(notifier->error());
}

TEST(TransportMethodError, ReflectsBothAttributes) {
   EXPECT_EQ(TransportMethodError::staticType().name(), "TarnRegFile::TransportMethodError");
   EXPECT_THAT(TestSupport::reflectedAttributes(TransportMethodError::staticType()),
               ElementsAre("chipName (rw)", "error (rw)"));
   const auto notifier = Platform::make<TransportMethodError>("chip");
   Platform::Reflect::set(*notifier, "error", Platform::Value::of(true));
   EXPECT_TRUE(notifier->error());
}

} // namespace
