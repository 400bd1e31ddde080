#include "platform/entity/CallbackNotifiee.h"

#include <memory>

#include <gtest/gtest.h>

#include "tests/unit/platform/entity/TestEntities.h"

using EntityTest::Log;
using EntityTest::Probe;
using Platform::Change;
using Platform::make;
using Platform::subscribe;
using Platform::Subscription;

TEST(CallbackNotifiee, IsCalledForEveryChangeWhileTheSubscriptionLives) {
   Log log;
   const auto probe = make<Probe>();
   {
      const Subscription subscription = subscribe(
         *probe, [&](const Change& change) { log.emplace_back(change.attribute.name()); });
      probe->levelIs(1);
      probe->entryIs(4, "four");
      EXPECT_EQ(log, (Log{"level", "entry"}));
   }
   EXPECT_FALSE(probe->hasNotifiees());
   probe->levelIs(2);
   EXPECT_EQ(log, (Log{"level", "entry"}));
}

TEST(CallbackNotifiee, OfOneAttributeHearsOnlyThatOne) {
   Log log;
   const auto probe = make<Probe>();
   const Subscription subscription = subscribe(*probe, Probe::entryId, [&](const Change& change) {
      log.emplace_back(std::string(change.attribute.name()) + change.key.toString());
   });
   probe->levelIs(1);
   probe->entryIs(4, "four");
   EXPECT_EQ(log, Log{"entry4"});
}

TEST(CallbackNotifiee, MayEndItsOwnSubscriptionAndStillUseWhatItCaptured) {
   const auto probe = make<Probe>();
   Subscription subscription;
   std::string seen;
   const auto captured = std::make_shared<std::string>("captured text");
   subscription = subscribe(*probe, [&, captured](const Change&) {
      subscription.reset();
      seen = *captured;
   });
   probe->levelIs(1);
   EXPECT_EQ(seen, "captured text");
   EXPECT_EQ(captured.use_count(), 1) << "the callback has gone with its subscription";
   EXPECT_FALSE(probe->hasNotifiees());
}

TEST(CallbackNotifiee, SubscriptionMayOutliveTheNode) {
   auto probe = make<Probe>();
   const Subscription subscription = subscribe(*probe, [](const Change&) {});
   probe.reset();
   EXPECT_EQ(subscription->notifier(), nullptr);
}
