#include "platform/entity/ZeroReferencesNotifiee.h"

#include <functional>

#include <gtest/gtest.h>

#include "tests/unit/platform/entity/TestEntities.h"

using EntityTest::Log;
using EntityTest::observe;
using EntityTest::Probe;
using Platform::make;
using Platform::Node;
using Platform::Ptr;

namespace {

class Watcher : public Platform::ZeroReferencesNotifiee {
public:
   using Action = std::function<void(Node&)>;
   Watcher(const Ptr<const Node>& node, Action wanted) : action(std::move(wanted)) {
      notifierIs(node);
   }
   void onZeroReferences(Node& node) noexcept override {
      ++calls;
      if (action) {
         action(node);
      }
   }
   Action action;
   int calls = 0;
};

} // namespace

TEST(ZeroReferencesNotifiee, IsToldWhenTheLastOutsideReferenceGoesAndNotBefore) {
   auto probe = make<Probe>();
   auto second = probe;
   const auto watcher = make<Watcher>(probe, nullptr);
   probe.reset();
   EXPECT_EQ(watcher->calls, 0);
   const int alive = Probe::alive;
   watcher->action = [&](Node& node) {
      EXPECT_EQ(Probe::alive, alive);
      EXPECT_FALSE(node.beingDestroyed());
      EXPECT_EQ(dynamic_cast<Probe&>(node).name(), "probe");
   };
   second.reset();
   EXPECT_EQ(watcher->calls, 1);
   EXPECT_EQ(Probe::alive, alive - 1);
   EXPECT_EQ(watcher->notifier(), nullptr);
}

TEST(ZeroReferencesNotifiee, IsNotToldOfChangesNorCountedAmongTheirNotifiees) {
   const auto probe = make<Probe>();
   const auto watcher = make<Watcher>(probe, nullptr);
   EXPECT_FALSE(probe->hasNotifiees());
   probe->levelIs(1);
   EXPECT_EQ(watcher->calls, 0);
   watcher->zombieIs();
}

TEST(ZeroReferencesNotifiee, ThatTakesAReferenceKeepsTheNodeAndIsToldAgainEachTime) {
   const int before = Probe::alive;
   Ptr<Node> kept;
   auto probe = make<Probe>();
   const auto watcher = make<Watcher>(probe, [&](Node& node) { kept = Ptr<Node>(&node); });
   probe.reset();
   EXPECT_EQ(watcher->calls, 1);
   ASSERT_NE(kept, nullptr);
   EXPECT_EQ(kept->refCount(), 1U);
   EXPECT_EQ(watcher->notifier(), kept.get()) << "still subscribed";

   // A second rescue from the second last reference; kept is assigned while it is being reset.
   Ptr<Node> mine = std::move(kept);
   mine.reset();
   EXPECT_EQ(watcher->calls, 2);
   ASSERT_NE(kept, nullptr);
   EXPECT_EQ(Probe::alive, before + 1);

   watcher->action = {};
   kept.reset();
   EXPECT_EQ(watcher->calls, 3);
   EXPECT_EQ(Probe::alive, before);
}

TEST(ZeroReferencesNotifiee, RescuedNodeStillPublishes) {
   Log log;
   Ptr<Node> kept;
   auto probe = make<Probe>();
   const auto observer = observe(*probe, "a", log);
   const auto watcher = make<Watcher>(probe, [&](Node& node) { kept = Ptr<Node>(&node); });
   probe.reset();
   Platform::ptrCast<Probe>(kept)->levelIs(3);
   EXPECT_EQ(log, Log{"a:3"});
   watcher->zombieIs();
}

TEST(ZeroReferencesNotifiee, ThatUnsubscribesItselfIsToldOnceEvenIfItKeepsTheNode) {
   const int before = Probe::alive;
   Ptr<Node> kept;
   Ptr<Watcher> watcher;
   auto probe = make<Probe>();
   watcher = make<Watcher>(probe, [&](Node& node) {
      kept = Ptr<Node>(&node);
      watcher->notifierIs(nullptr);
   });
   probe.reset();
   EXPECT_EQ(watcher->calls, 1);
   EXPECT_EQ(Probe::alive, before + 1);
   kept.reset();
   EXPECT_EQ(watcher->calls, 1);
   EXPECT_EQ(Probe::alive, before);
}

TEST(ZeroReferencesNotifiee, ThatDropsItselfInTheCallIsHeldToItsEnd) {
   Ptr<Watcher> watcher;
   bool ran = false;
   auto probe = make<Probe>();
   watcher = make<Watcher>(probe, [&](Node&) {
      watcher.reset();
      ran = true;
   });
   probe.reset();
   EXPECT_TRUE(ran);
}

TEST(ZeroReferencesNotifiee, SeveralAreToldInOrderThoughTheFirstKeptTheNode) {
   Log log;
   Ptr<Node> kept;
   auto probe = make<Probe>();
   const auto first = make<Watcher>(probe, [&](Node& node) {
      log.push_back("first");
      kept = Ptr<Node>(&node);
   });
   const auto second = make<Watcher>(probe, [&](Node&) { log.push_back("second"); });
   probe.reset();
   EXPECT_EQ(log, (Log{"first", "second"}));
   first->zombieIs();
   second->zombieIs();
}

TEST(ZeroReferencesNotifiee, ReferenceTakenByOneAndDroppedByTheNextDoesNotKeepTheNode) {
   const int before = Probe::alive;
   Ptr<Node> kept;
   auto probe = make<Probe>();
   const auto first = make<Watcher>(probe, [&](Node& node) { kept = Ptr<Node>(&node); });
   const auto second = make<Watcher>(probe, [&](Node&) { kept.reset(); });
   probe.reset();
   EXPECT_EQ(first->calls, 1);
   EXPECT_EQ(second->calls, 1);
   EXPECT_EQ(Probe::alive, before);
}

TEST(ZeroReferencesNotifiee, OneRemovedByAnEarlierOneIsNotToldAnyMore) {
   Ptr<Watcher> second;
   auto probe = make<Probe>();
   const auto first = make<Watcher>(probe, [&](Node&) { second->activeIs(false); });
   second = make<Watcher>(probe, nullptr);
   probe.reset();
   EXPECT_EQ(first->calls, 1);
   EXPECT_EQ(second->calls, 0);
}

TEST(ZeroReferencesNotifiee, MayChangeTheNodeWhichIsStillPublished) {
   Log log;
   const int before = Probe::alive;
   auto probe = make<Probe>();
   const auto observer = observe(*probe, "a", log);
   const auto watcher =
      make<Watcher>(probe, [](Node& node) { dynamic_cast<Probe&>(node).levelIs(5); });
   probe.reset();
   EXPECT_EQ(log, Log{"a:5"});
   EXPECT_EQ(watcher->calls, 1);
   EXPECT_EQ(Probe::alive, before);
}

TEST(ZeroReferencesNotifiee, IsToldAfterADispatchInWhichTheLastReferenceWent) {
   Log log;
   auto probe = make<Probe>();
   const auto watcher = make<Watcher>(probe, [&](Node&) { log.push_back("zero"); });
   const auto a = observe(*probe, "a", log, [&](const Platform::Change&) { probe.reset(); });
   const auto b = observe(*probe, "b", log);
   probe->levelIs(1);
   EXPECT_EQ(log, (Log{"a:1", "b:1", "zero"}));
}

TEST(ZeroReferencesNotifiee, OwnedByItsNodeIsToldAndGoesWithIt) {
   class SelfWatching : public Node {
   public:
      explicit SelfWatching(int& told) {
         _watcher = make<Watcher>(Ptr<const Node>(this), [&told](Node&) { ++told; });
      }

   private:
      Ptr<Watcher> _watcher;
   };
   int told = 0;
   auto node = make<SelfWatching>(told);
   EXPECT_EQ(node->refCount(), 1U);
   node.reset();
   EXPECT_EQ(told, 1);
}
