#include "platform/entity/OwnedNotifiee.h"

#include <memory>
#include <type_traits>

#include <gtest/gtest.h>

#include "tests/unit/platform/entity/TestEntities.h"

using EntityTest::Log;
using EntityTest::observe;
using EntityTest::Observer;
using EntityTest::Probe;
using Platform::Change;
using Platform::make;
using Platform::Node;
using Platform::OwnedNotifiee;
using Platform::Ptr;

namespace {

/// Watches a probe by way of a nested notifiee that calls back into it: the usual shape of a state
/// machine.
class Machine {
public:
   Machine(const Ptr<Probe>& probe, Log& log) : _log(log) {
      _reactor = OwnedNotifiee<Reactor>(std::in_place, *this);
      _reactor->notifierIs(probe);
      ++alive;
   }
   ~Machine() { --alive; }

   std::function<void()> then;
   static inline int alive = 0;

private:
   class Reactor : public Platform::Notifiee {
   public:
      explicit Reactor(Machine& machine) : _machine(machine) {}
      void onChange(const Change&) override {
         _machine._log.push_back("machine");
         if (const auto then = _machine.then) {
            then();
         }
      }

   private:
      Machine& _machine;
   };

   Log& _log;
   OwnedNotifiee<Reactor> _reactor;
};

static_assert(!std::is_copy_constructible_v<OwnedNotifiee<Observer>>);
static_assert(std::is_nothrow_move_constructible_v<OwnedNotifiee<Observer>>);
static_assert(std::is_nothrow_move_assignable_v<OwnedNotifiee<Observer>>);

} // namespace

TEST(OwnedNotifiee, OwnerMayBeDestroyedFromInsideItsOwnCall) {
   Log log;
   const auto probe = make<Probe>();
   auto machine = std::make_unique<Machine>(probe, log);
   machine->then = [&] { machine.reset(); };
   const auto after = observe(*probe, "after", log);
   probe->levelIs(1);
   EXPECT_EQ(Machine::alive, 0);
   EXPECT_EQ(log, (Log{"machine", "after:1"}));
   probe->levelIs(2);
   EXPECT_EQ(log, (Log{"machine", "after:1", "after:2"}));
}

TEST(OwnedNotifiee, OwnerDestroyedByAnEarlierNotifieeIsNotCalledBackInto) {
   Log log;
   const auto probe = make<Probe>();
   std::unique_ptr<Machine> machine;
   const auto before = observe(*probe, "before", log, [&](const Change&) { machine.reset(); });
   machine = std::make_unique<Machine>(probe, log);
   probe->levelIs(1);
   EXPECT_EQ(log, Log{"before:1"});
}

TEST(OwnedNotifiee, OneHeldElsewhereIsSilentOnceItsOwnerIsGone) {
   Log log;
   const auto probe = make<Probe>();
   Ptr<Observer> held;
   {
      OwnedNotifiee<Observer> owned(std::in_place, "a", log);
      owned->notifierIs(probe);
      held = Ptr<Observer>(owned.get());
   }
   EXPECT_TRUE(held->zombie());
   probe->levelIs(1);
   EXPECT_TRUE(log.empty());
}

TEST(OwnedNotifiee, ResetIsIdempotentAndLeavesNothing) {
   Log log;
   const int before = Observer::alive;
   OwnedNotifiee<Observer> owned(std::in_place, "a", log);
   EXPECT_TRUE(owned);
   owned.reset();
   EXPECT_FALSE(owned);
   EXPECT_EQ(owned.get(), nullptr);
   EXPECT_EQ(Observer::alive, before);
   owned.reset();
   EXPECT_FALSE(OwnedNotifiee<Observer>());
}

TEST(OwnedNotifiee, MovingHandsTheNotifieeOnAndSilencesTheOneItReplaces) {
   Log log;
   const auto probe = make<Probe>();
   OwnedNotifiee<Observer> first(std::in_place, "first", log);
   OwnedNotifiee<Observer> second(std::in_place, "second", log);
   first->notifierIs(probe);
   second->notifierIs(probe);
   const Ptr<Observer> replaced(second.get());
   second = std::move(first);
   EXPECT_FALSE(first);
   EXPECT_TRUE(replaced->zombie());
   probe->levelIs(1);
   EXPECT_EQ(log, Log{"first:1"});
   auto& same = second;
   second = std::move(same);
   probe->levelIs(2);
   EXPECT_EQ(log, (Log{"first:1", "first:2"}));
   const OwnedNotifiee<Observer> third = std::move(second);
   probe->levelIs(3);
   EXPECT_EQ(log.back(), "first:3");
}

TEST(OwnedNotifiee, OfANodeThatWatchesItselfGoesWithTheNode) {
   class SelfWatching : public Probe {
   public:
      explicit SelfWatching(Log& log) : _own(std::in_place, "own", log) { _own->notifierIs(this); }

   private:
      OwnedNotifiee<Observer> _own;
   };
   Log log;
   const int before = Observer::alive;
   auto node = make<SelfWatching>(log);
   node->levelIs(4);
   EXPECT_EQ(log, Log{"own:4"});
   node->inDestructor = [](Probe& probe) { probe.levelIs(5); };
   node.reset();
   EXPECT_EQ(log, Log{"own:4"});
   EXPECT_EQ(Observer::alive, before);
}
