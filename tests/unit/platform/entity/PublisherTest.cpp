#include "platform/entity/Publisher.h"

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "tests/unit/platform/entity/TestEntities.h"

using EntityTest::Log;
using EntityTest::observe;
using EntityTest::Observer;
using EntityTest::Probe;
using Platform::Change;
using Platform::make;
using Platform::Ptr;

namespace {

/// The ways in which a subscription ends.
enum class Way { unsubscribed, movedToAnotherNode, deactivated, zombie, dropped };

void end(Ptr<Observer>& observer, Way way) {
   static const Ptr<Probe> elsewhere = make<Probe>("elsewhere");
   switch (way) {
   case Way::unsubscribed:
      observer->notifierIs(nullptr);
      break;
   case Way::movedToAnotherNode:
      observer->notifierIs(elsewhere);
      break;
   case Way::deactivated:
      observer->activeIs(false);
      break;
   case Way::zombie:
      observer->zombieIs();
      break;
   case Way::dropped:
      observer.reset();
      break;
   }
}

class DispatchInWhich : public testing::TestWithParam<Way> {
protected:
   Log log;
   Ptr<Probe> probe = make<Probe>();
   Ptr<Observer> a = observe(*probe, "a", log);
   Ptr<Observer> b = observe(*probe, "b", log);
   Ptr<Observer> c = observe(*probe, "c", log);
   Ptr<Observer> d = observe(*probe, "d", log);
};

INSTANTIATE_TEST_SUITE_P(Notifiee, DispatchInWhich,
                         testing::Values(Way::unsubscribed, Way::movedToAnotherNode,
                                         Way::deactivated, Way::zombie, Way::dropped),
                         [](const testing::TestParamInfo<Way>& way) {
                            switch (way.param) {
                            case Way::unsubscribed:
                               return "Unsubscribed";
                            case Way::movedToAnotherNode:
                               return "MovedToAnotherNode";
                            case Way::deactivated:
                               return "Deactivated";
                            case Way::zombie:
                               return "Zombie";
                            case Way::dropped:
                               return "Dropped";
                            }
                            return "";
                         });

class Dispatch : public testing::Test {
protected:
   Log log;
   Ptr<Probe> probe = make<Probe>();
};

} // namespace

TEST_P(DispatchInWhich, OneRemovesItselfStillCallsTheOthersOnceEach) {
   b->action = [&](const Change&) { end(b, GetParam()); };
   probe->levelIs(1);
   EXPECT_EQ(log, (Log{"a:1", "b:1", "c:1", "d:1"}));
   log.clear();
   probe->levelIs(2);
   EXPECT_EQ(log, (Log{"a:2", "c:2", "d:2"}));
}

TEST_P(DispatchInWhich, OneRemovesItsNeighbourBeforeItSkipsNobody) {
   b->action = [&](const Change&) { end(a, GetParam()); };
   probe->levelIs(1);
   EXPECT_EQ(log, (Log{"a:1", "b:1", "c:1", "d:1"}));
   b->action = {};
   log.clear();
   probe->levelIs(2);
   EXPECT_EQ(log, (Log{"b:2", "c:2", "d:2"}));
}

TEST_P(DispatchInWhich, OneRemovesItsNeighbourAfterItDoesNotCallThatOneAnyMore) {
   b->action = [&](const Change&) { end(c, GetParam()); };
   probe->levelIs(1);
   EXPECT_EQ(log, (Log{"a:1", "b:1", "d:1"}));
   b->action = {};
   log.clear();
   probe->levelIs(2);
   EXPECT_EQ(log, (Log{"a:2", "b:2", "d:2"}));
}

TEST_P(DispatchInWhich, TheFirstRemovesEverybodyCallsNobodyElse) {
   a->action = [&](const Change&) {
      end(d, GetParam());
      end(c, GetParam());
      end(b, GetParam());
      end(a, GetParam());
   };
   probe->levelIs(1);
   EXPECT_EQ(log, Log{"a:1"});
   EXPECT_FALSE(probe->hasNotifiees());
   probe->levelIs(2);
   EXPECT_EQ(log, Log{"a:1"});
}

TEST_P(DispatchInWhich, NestedDispatchRemovesOneDoesNotCallItFromTheOuterOneEither) {
   a->action = [&](const Change&) {
      if (probe->level() == 1) {
         probe->levelIs(2);
      }
   };
   b->action = [&](const Change&) { end(c, GetParam()); };
   d->action = [&](const Change&) { b->action = {}; };
   probe->levelIs(1);
   EXPECT_EQ(log, (Log{"a:1", "a:2", "b:2", "d:2", "b:2", "d:2"}));
}

TEST_P(DispatchInWhich, OneRemovesItselfAndThrowsStillCallsTheOthers) {
   b->action = [&](const Change&) {
      end(b, GetParam());
      throw std::runtime_error("b leaves");
   };
   EXPECT_THROW(probe->levelIs(1), std::runtime_error);
   EXPECT_EQ(log, (Log{"a:1", "b:1", "c:1", "d:1"}));
   log.clear();
   probe->levelIs(2);
   EXPECT_EQ(log, (Log{"a:2", "c:2", "d:2"}));
}

TEST_F(Dispatch, CallsInOrderOfRegistration) {
   const auto c = observe(*probe, "c", log);
   const auto a = observe(*probe, "a", log);
   const auto b = observe(*probe, "b", log);
   probe->levelIs(1);
   EXPECT_EQ(log, (Log{"c:1", "a:1", "b:1"}));
}

TEST_F(Dispatch, HoldsTheNotifieeThatDropsItsOwnLastReference) {
   const int before = Observer::alive;
   int aliveInside = 0;
   Ptr<Observer> only = observe(*probe, "only", log);
   only->action = [&](const Change&) {
      only.reset();
      aliveInside = Observer::alive;
   };
   probe->levelIs(1);
   EXPECT_EQ(aliveInside, before + 1);
   EXPECT_EQ(Observer::alive, before);
   EXPECT_FALSE(probe->hasNotifiees());
}

TEST_F(Dispatch, HoldsTheSourceToItsEndWhenANotifieeDropsTheLastReference) {
   const int before = Probe::alive;
   const auto a = observe(*probe, "a", log, [&](const Change&) { probe.reset(); });
   const auto b = observe(*probe, "b", log, [&](const Change&) {
      EXPECT_EQ(probe, nullptr);
      EXPECT_EQ(Probe::alive, before);
   });
   probe->levelIs(1);
   EXPECT_EQ(log, (Log{"a:1", "b:1"}));
   EXPECT_EQ(Probe::alive, before - 1);
   EXPECT_EQ(a->notifier(), nullptr);
   EXPECT_EQ(b->notifier(), nullptr);
}

TEST_F(Dispatch, SourceDroppedInANestedDispatchLivesToTheEndOfTheOutermost) {
   const int before = Probe::alive;
   const auto a = observe(*probe, "a", log, [&](const Change&) {
      if (probe && probe->level() == 1) {
         probe->levelIs(2);
         EXPECT_EQ(Probe::alive, before);
      }
   });
   const auto b = observe(*probe, "b", log, [&](const Change&) { probe.reset(); });
   probe->levelIs(1);
   EXPECT_EQ(log, (Log{"a:1", "a:2", "b:2", "b:2"}));
   EXPECT_EQ(Probe::alive, before - 1);
}

TEST_F(Dispatch, SourceDroppedByOneThatThenThrowsIsDestroyedAndTheExceptionArrives) {
   const int before = Probe::alive;
   const auto a = observe(*probe, "a", log, [&](const Change&) {
      probe.reset();
      throw std::runtime_error("bye");
   });
   const auto b = observe(*probe, "b", log);
   EXPECT_THROW(probe->levelIs(1), std::runtime_error);
   EXPECT_EQ(log, (Log{"a:1", "b:1"}));
   EXPECT_EQ(Probe::alive, before - 1);
}

TEST_F(Dispatch, OneAddedDuringItMissesThatChangeAndSeesTheNext) {
   Ptr<Observer> late;
   const auto a = observe(*probe, "a", log, [&](const Change&) {
      if (!late) {
         late = observe(*probe, "late", log);
      }
   });
   probe->levelIs(1);
   EXPECT_EQ(log, Log{"a:1"});
   probe->levelIs(2);
   EXPECT_EQ(log, (Log{"a:1", "a:2", "late:2"}));
}

TEST_F(Dispatch, OneAddedDuringItSeesAChangeNestedInIt) {
   Ptr<Observer> late;
   const auto a = observe(*probe, "a", log, [&](const Change&) {
      if (!late) {
         late = observe(*probe, "late", log);
         probe->levelIs(2);
      }
   });
   const auto b = observe(*probe, "b", log);
   probe->levelIs(1);
   EXPECT_EQ(log, (Log{"a:1", "a:2", "b:2", "late:2", "b:2"}));
}

TEST_F(Dispatch, ManyAddedDuringItDoNotDisturbIt) {
   std::vector<Ptr<Observer>> late;
   const auto a = observe(*probe, "a", log, [&](const Change&) {
      for (int i = 0; i < 1000; ++i) {
         late.push_back(observe(*probe, "late", log));
      }
   });
   const auto b = observe(*probe, "b", log);
   probe->levelIs(1);
   EXPECT_EQ(log, (Log{"a:1", "b:1"}));
}

TEST_F(Dispatch, OneAddedAndRemovedDuringItIsNeverCalled) {
   const auto a = observe(*probe, "a", log, [&](const Change&) { observe(*probe, "brief", log); });
   probe->levelIs(1);
   probe->levelIs(2);
   EXPECT_EQ(log, (Log{"a:1", "a:2"}));
}

TEST_F(Dispatch, NestedChangeOfTheSameAttributeIsSeenByAllBeforeTheOuterOneGoesOn) {
   const auto a = observe(*probe, "a", log, [&](const Change&) {
      if (probe->level() < 3) {
         probe->levelIs(probe->level() + 1);
      }
   });
   const auto b = observe(*probe, "b", log);
   probe->levelIs(1);
   EXPECT_EQ(log, (Log{"a:1", "a:2", "a:3", "b:3", "b:3", "b:3"}));
}

TEST_F(Dispatch, OneDeactivatedAndReactivatedDuringItMissesThatChangeAndComesLast) {
   Ptr<Observer> b;
   const auto a = observe(*probe, "a", log, [&](const Change&) {
      if (probe->level() == 1) {
         b->activeIs(false);
         b->activeIs(true);
      }
   });
   b = observe(*probe, "b", log);
   const auto c = observe(*probe, "c", log);
   probe->levelIs(1);
   EXPECT_EQ(log, (Log{"a:1", "c:1"}));
   log.clear();
   probe->levelIs(2);
   EXPECT_EQ(log, (Log{"a:2", "c:2", "b:2"}));
}

TEST_F(Dispatch, OneThatTogglesItselfInItsOwnCallIsNotCalledTwice) {
   Ptr<Observer> a;
   a = observe(*probe, "a", log, [&](const Change&) {
      a->activeIs(false);
      a->activeIs(true);
      a->notifierIs(nullptr);
      a->notifierIs(probe);
   });
   probe->levelIs(1);
   EXPECT_EQ(log, Log{"a:1"});
   probe->levelIs(2);
   EXPECT_EQ(log, (Log{"a:1", "a:2"}));
   a->action = {};
}

TEST_F(Dispatch, OneThrowsYetTheOthersRunAndTheSetterGetsTheException) {
   const auto a = observe(*probe, "a", log);
   const auto b =
      observe(*probe, "b", log, [](const Change&) { throw std::runtime_error("from b"); });
   const auto c = observe(*probe, "c", log);
   try {
      probe->levelIs(7);
      FAIL() << "nothing thrown";
   } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "from b");
   }
   EXPECT_EQ(log, (Log{"a:7", "b:7", "c:7"}));
   EXPECT_EQ(probe->level(), 7U) << "the store stands";

   // Nothing is stuck: the next change reaches all, and removal still works.
   b->action = {};
   log.clear();
   probe->levelIs(8);
   EXPECT_EQ(log, (Log{"a:8", "b:8", "c:8"}));
   b->notifierIs(nullptr);
   probe->levelIs(9);
   EXPECT_EQ(log, (Log{"a:8", "b:8", "c:8", "a:9", "c:9"}));
}

TEST_F(Dispatch, OfTwoThatThrowTheFirstReachesTheSetter) {
   const auto a =
      observe(*probe, "a", log, [](const Change&) { throw std::runtime_error("first"); });
   const auto b =
      observe(*probe, "b", log, [](const Change&) { throw std::logic_error("second"); });
   const auto c = observe(*probe, "c", log, [](const Change&) { throw 3; });
   const auto d = observe(*probe, "d", log);
   try {
      probe->levelIs(1);
      FAIL() << "nothing thrown";
   } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "first");
   }
   EXPECT_EQ(log, (Log{"a:1", "b:1", "c:1", "d:1"}));
}

TEST_F(Dispatch, ExceptionOfANestedChangeReachesTheOneThatMadeItAndMayStopThere) {
   std::string caught;
   const auto a = observe(*probe, "a", log, [&](const Change&) {
      if (probe->level() == 1) {
         try {
            probe->levelIs(2);
         } catch (const std::runtime_error& error) {
            caught = error.what();
         }
      }
   });
   const auto b = observe(*probe, "b", log, [&](const Change&) {
      if (log.back() == "b:2" && caught.empty()) {
         throw std::runtime_error("nested");
      }
   });
   const auto c = observe(*probe, "c", log);
   EXPECT_NO_THROW(probe->levelIs(1));
   EXPECT_EQ(caught, "nested");
   EXPECT_EQ(log, (Log{"a:1", "a:2", "b:2", "c:2", "b:2", "c:2"}));
}

TEST_F(Dispatch, OfOneNodeMayChangeAnotherAndComeBack) {
   const auto other = make<Probe>("other");
   const auto forth = observe(*probe, "forth", log, [&](const Change&) {
      if (probe->level() == 1) {
         other->levelIs(10);
      }
   });
   const auto back = observe(*other, "back", log, [&](const Change&) { probe->levelIs(2); });
   const auto last = observe(*probe, "last", log);
   probe->levelIs(1);
   EXPECT_EQ(log, (Log{"forth:1", "back:10", "forth:2", "last:2", "last:2"}));
}

TEST_F(Dispatch, DoesNotCallANotifieeWhoseDestructorIsRunning) {
   /// Changes the node from its destructor, before it has unsubscribed itself.
   class Noisy : public Platform::Notifiee {
   public:
      Noisy(Ptr<Probe> source, int& calls) : _source(std::move(source)), _calls(calls) {
         notifierIs(_source);
      }
      ~Noisy() override { _source->levelIs(99); }
      void onChange(const Change&) override { ++_calls; }

   private:
      Ptr<Probe> _source;
      int& _calls;
   };
   int calls = 0;
   const auto a = observe(*probe, "a", log);
   auto noisy = make<Noisy>(probe, calls);
   noisy.reset();
   EXPECT_EQ(calls, 0);
   EXPECT_EQ(log, Log{"a:99"});
}

TEST(Publisher, ToldToForgetSomebodyItDoesNotKnowDoesNothing) {
   Log log;
   const auto probe = make<Probe>();
   const auto stranger = make<Observer>("stranger", log);
   const auto a = observe(*probe, "a", log);
   probe->publisher().notifieeDel(*stranger);
   EXPECT_TRUE(probe->publisher().hasNotifiees());
   probe->levelIs(1);
   EXPECT_EQ(log, Log{"a:1"});
}

TEST(Publisher, KnowsWhetherAnybodyWouldBeCalled) {
   Log log;
   const auto probe = make<Probe>();
   EXPECT_FALSE(probe->hasNotifiees());
   auto a = observe(*probe, "a", log);
   EXPECT_TRUE(probe->hasNotifiees());
   a->activeIs(false);
   EXPECT_FALSE(probe->hasNotifiees());
   a->activeIs(true);
   EXPECT_TRUE(probe->hasNotifiees());
   a.reset();
   EXPECT_FALSE(probe->hasNotifiees());
}
