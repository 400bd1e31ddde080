#include "platform/entity/Notifiee.h"

#include <stdexcept>

#include <gtest/gtest.h>

#include "tests/unit/platform/entity/TestEntities.h"

using EntityTest::Log;
using EntityTest::observe;
using EntityTest::Observer;
using EntityTest::Probe;
using Platform::make;
using Platform::Ptr;

namespace {

class SubscribesThenThrows : public Platform::Notifiee {
public:
   explicit SubscribesThenThrows(const Ptr<Probe>& source) {
      notifierIs(source);
      throw std::runtime_error("no");
   }
   void onChange(const Platform::Change&) override { FAIL() << "called"; }
};

} // namespace

TEST(Notifiee, IsNotCalledBeforeItWatchesANode) {
   Log log;
   const auto probe = make<Probe>();
   const auto observer = make<Observer>("a", log);
   probe->levelIs(1);
   EXPECT_TRUE(log.empty());
   EXPECT_EQ(observer->notifier(), nullptr);
}

TEST(Notifiee, NeitherKeepsItsNodeAliveNorIsKeptAliveByIt) {
   Log log;
   auto probe = make<Probe>();
   auto observer = observe(*probe, "a", log);
   EXPECT_EQ(probe->refCount(), 1U);
   EXPECT_EQ(observer->refCount(), 1U);
}

TEST(Notifiee, ThatGoesFirstIsForgottenByItsNode) {
   Log log;
   const auto probe = make<Probe>();
   observe(*probe, "brief", log);
   EXPECT_FALSE(probe->hasNotifiees());
   probe->levelIs(1);
   EXPECT_TRUE(log.empty());
}

TEST(Notifiee, ForgetsANodeThatGoesFirst) {
   Log log;
   auto probe = make<Probe>();
   const auto observer = observe(*probe, "a", log);
   EXPECT_EQ(observer->notifier(), probe.get());
   probe.reset();
   EXPECT_EQ(observer->notifier(), nullptr);
   const auto next = make<Probe>();
   observer->notifierIs(next);
   next->levelIs(1);
   EXPECT_EQ(log, Log{"a:1"});
}

TEST(Notifiee, ForgetsANodeThatGoesWhileItIsInactive) {
   Log log;
   auto probe = make<Probe>();
   const auto observer = observe(*probe, "a", log);
   observer->activeIs(false);
   probe.reset();
   EXPECT_EQ(observer->notifier(), nullptr);
   observer->activeIs(true); // must not reach for the node that is gone
   EXPECT_EQ(observer->notifier(), nullptr);
}

TEST(Notifiee, SubscribedWhileInactiveForgetsItsNodeTooAndTheNodeForgetsIt) {
   Log log;
   auto probe = make<Probe>();
   const auto observer = make<Observer>("a", log);
   observer->activeIs(false);
   observer->notifierIs(probe);
   {
      const auto brief = make<Observer>("brief", log);
      brief->activeIs(false);
      brief->notifierIs(probe);
   }
   probe.reset();
   EXPECT_EQ(observer->notifier(), nullptr);
}

TEST(Notifiee, ThatMovesToAnotherNodeIsOnlyCalledForThatOne) {
   Log log;
   const auto first = make<Probe>();
   const auto second = make<Probe>();
   const auto observer = observe(*first, "a", log);
   observer->notifierIs(second);
   EXPECT_EQ(observer->notifier(), second.get());
   first->levelIs(1);
   second->levelIs(2);
   EXPECT_EQ(log, Log{"a:2"});
}

TEST(Notifiee, SubscribedTwiceToOneNodeIsCalledOnceAndKeepsItsPlace) {
   Log log;
   const auto probe = make<Probe>();
   const auto a = observe(*probe, "a", log);
   const auto b = observe(*probe, "b", log);
   a->notifierIs(probe);
   probe->levelIs(1);
   EXPECT_EQ(log, (Log{"a:1", "b:1"}));
}

TEST(Notifiee, IsNotCalledWhileInactiveAndRemembersItsNode) {
   Log log;
   const auto probe = make<Probe>();
   const auto observer = observe(*probe, "a", log);
   EXPECT_TRUE(observer->active());
   observer->activeIs(false);
   EXPECT_FALSE(observer->active());
   EXPECT_EQ(observer->notifier(), probe.get());
   probe->levelIs(1);
   EXPECT_TRUE(log.empty());
   observer->activeIs(true);
   EXPECT_TRUE(log.empty()) << "missed changes are not made up for";
   probe->levelIs(2);
   EXPECT_EQ(log, Log{"a:2"});
}

TEST(Notifiee, ActivatedAgainComesAfterThoseSubscribedByThen) {
   Log log;
   const auto probe = make<Probe>();
   const auto a = observe(*probe, "a", log);
   const auto b = observe(*probe, "b", log);
   a->activeIs(false);
   a->activeIs(true);
   probe->levelIs(1);
   EXPECT_EQ(log, (Log{"b:1", "a:1"}));
}

TEST(Notifiee, AskedForThePresentStateChangesNothing) {
   Log log;
   const auto probe = make<Probe>();
   const auto a = observe(*probe, "a", log);
   const auto b = observe(*probe, "b", log);
   a->activeIs(true);
   probe->levelIs(1);
   EXPECT_EQ(log, (Log{"a:1", "b:1"}));
   a->activeIs(false);
   a->activeIs(false);
   probe->levelIs(2);
   EXPECT_EQ(log, (Log{"a:1", "b:1", "b:2"}));
}

TEST(Notifiee, InactiveOneMaySwitchNodesAndWakesUpOnTheNewOne) {
   Log log;
   const auto first = make<Probe>();
   const auto second = make<Probe>();
   const auto observer = observe(*first, "a", log);
   observer->activeIs(false);
   observer->notifierIs(second);
   observer->activeIs(true);
   first->levelIs(1);
   second->levelIs(2);
   EXPECT_EQ(log, Log{"a:2"});
}

TEST(Notifiee, ZombieIsSilentForGoodAndRemembersNothing) {
   Log log;
   const auto probe = make<Probe>();
   const auto observer = observe(*probe, "a", log);
   EXPECT_FALSE(observer->zombie());
   observer->zombieIs();
   EXPECT_TRUE(observer->zombie());
   EXPECT_EQ(observer->notifier(), nullptr);
   probe->levelIs(1);
   observer->activeIs(false);
   observer->activeIs(true);
   observer->notifierIs(probe);
   EXPECT_EQ(observer->notifier(), nullptr);
   observer->zombieIs(); // again: nothing left to do
   probe->levelIs(2);
   EXPECT_TRUE(log.empty());
}

TEST(Notifiee, InactiveOneThatBecomesAZombieIsForgottenByItsNode) {
   Log log;
   auto probe = make<Probe>();
   auto observer = observe(*probe, "a", log);
   observer->activeIs(false);
   observer->zombieIs();
   observer.reset();
   probe.reset(); // must not reach for the notifiee that is gone
}

TEST(Notifiee, WhoseConstructorThrowsAfterSubscribingIsNotSubscribed) {
   const auto probe = make<Probe>();
   EXPECT_THROW(make<SubscribesThenThrows>(probe), std::runtime_error);
   EXPECT_FALSE(probe->hasNotifiees());
   probe->levelIs(1);
   EXPECT_EQ(probe->refCount(), 1U);
}
