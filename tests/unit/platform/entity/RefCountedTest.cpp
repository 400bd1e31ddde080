#include "platform/entity/RefCounted.h"

#include <functional>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "platform/entity/Ptr.h"

using Platform::make;
using Platform::Ptr;
using Platform::RefCounted;

namespace {

/// Does what a test wants at each station of its life.
class Thing : public RefCounted {
public:
   using Step = std::function<void(Thing&)>;

   explicit Thing(const Step& inConstructor = {}) {
      ++alive;
      if (inConstructor) {
         try {
            inConstructor(*this);
         } catch (...) {
            --alive;
            throw;
         }
      }
   }

   Step inLastUser;
   Step inDestructor;
   static inline int alive = 0;

protected:
   ~Thing() override {
      if (inDestructor) {
         inDestructor(*this);
      }
      --alive;
   }

   void lastUser() noexcept override {
      if (inLastUser) {
         inLastUser(*this);
      }
   }
};

class Parent;

class Child : public RefCounted {
public:
   explicit Child(Ptr<Parent> parent) : _parent(std::move(parent)) { ++alive; }
   const Ptr<Parent>& parent() const { return _parent; }
   void teardown() { _parent.reset(); }
   static inline int alive = 0;

protected:
   ~Child() override { --alive; }

private:
   Ptr<Parent> _parent;
};

/// Parent and child hold each other; teardown() is how the owner takes them apart.
class Parent : public RefCounted {
public:
   explicit Parent(bool fail) : _child(make<Child>(Ptr<Parent>(this))) {
      ++alive;
      if (fail) {
         --alive;
         throw std::runtime_error("no parent today");
      }
   }
   const Ptr<Child>& child() const { return _child; }
   void teardown() {
      if (const Ptr<Child> child = std::move(_child)) {
         child->teardown();
      }
   }
   static inline int alive = 0;

protected:
   ~Parent() override { --alive; }

private:
   Ptr<Child> _child;
};

constexpr const char* outlived =
   "^platform/entity: ~RefCounted: assertion failed: refCount == 1 && \"object destroyed while "
   "references to it remain\"\n";

} // namespace

TEST(RefCounted, ReferenceToThisTakenAndDroppedInAConstructorDoesNotDestroyTheObject) {
   const auto thing = make<Thing>([](Thing& self) {
      EXPECT_EQ(self.refCount(), 1U) << "the construction reference";
      {
         const Ptr<Thing> me(&self);
         EXPECT_EQ(self.refCount(), 2U);
      }
      EXPECT_EQ(self.refCount(), 1U);
   });
   EXPECT_EQ(thing->refCount(), 1U);
   EXPECT_EQ(Thing::alive, 1);
}

TEST(RefCounted, ReferenceToThisHandedOutByAConstructorStaysValid) {
   Ptr<Thing> kept;
   auto thing = make<Thing>([&](Thing& self) { kept = Ptr<Thing>(&self); });
   EXPECT_EQ(thing->refCount(), 2U);
   thing.reset();
   EXPECT_EQ(Thing::alive, 1);
   kept.reset();
   EXPECT_EQ(Thing::alive, 0);
}

TEST(RefCounted, ConstructorThatThrowsAfterDroppingItsReferencesLeavesNothing) {
   EXPECT_THROW(make<Thing>([](Thing& self) {
                   const Ptr<Thing> first(&self);
                   const Ptr<Thing> second(first);
                   throw std::runtime_error("no");
                }),
                std::runtime_error);
   EXPECT_EQ(Thing::alive, 0);
}

TEST(RefCounted, ConstructorThatThrowsTakesAMemberChildThatHoldsItsParentWithIt) {
   EXPECT_THROW(make<Parent>(true), std::runtime_error);
   EXPECT_EQ(Parent::alive, 0);
   EXPECT_EQ(Child::alive, 0);
}

TEST(RefCounted, ParentAndChildThatHoldEachOtherGoAfterTheTeardown) {
   auto parent = make<Parent>(false);
   EXPECT_EQ(parent->refCount(), 2U);
   EXPECT_EQ(parent->child()->parent(), parent);
   parent->teardown();
   EXPECT_EQ(parent->refCount(), 1U);
   EXPECT_EQ(Child::alive, 0);
   parent->teardown(); // idempotent
   parent.reset();
   EXPECT_EQ(Parent::alive, 0);
}

TEST(RefCounted, TeardownWithTheChildStillHeldElsewhereLeavesTheChildWithoutParent) {
   auto parent = make<Parent>(false);
   const Ptr<Child> child = parent->child();
   parent->teardown();
   parent.reset();
   EXPECT_EQ(Parent::alive, 0);
   EXPECT_EQ(child->parent(), nullptr);
}

TEST(RefCounted, ReferenceTakenAndDroppedInADestructorIsHarmless) {
   auto thing = make<Thing>();
   int destructions = 0;
   thing->inDestructor = [&](Thing& self) {
      ++destructions;
      EXPECT_TRUE(self.beingDestroyed());
      const Ptr<Thing> me(&self);
      const Ptr<Thing> again(me);
   };
   thing.reset();
   EXPECT_EQ(destructions, 1);
   EXPECT_EQ(Thing::alive, 0);
}

TEST(RefCounted, LastUserRunsOnceBeforeTheDestructorAndNotBeingDestroyedYet) {
   std::vector<std::string> order;
   auto thing = make<Thing>();
   auto second = thing;
   thing->inLastUser = [&](Thing& self) {
      order.push_back("last user");
      EXPECT_FALSE(self.beingDestroyed());
   };
   thing->inDestructor = [&](Thing&) { order.push_back("destructor"); };
   thing.reset();
   EXPECT_TRUE(order.empty()) << "a reference is left";
   second.reset();
   EXPECT_EQ(order, (std::vector<std::string>{"last user", "destructor"}));
}

TEST(RefCounted, LastUserMayTakeAndDropReferencesWithoutRunningAgain) {
   int hooks = 0;
   auto thing = make<Thing>();
   thing->inLastUser = [&](Thing& self) {
      ++hooks;
      const Ptr<Thing> me(&self);
      const Ptr<Thing> again(me);
   };
   thing.reset();
   EXPECT_EQ(hooks, 1);
   EXPECT_EQ(Thing::alive, 0);
}

TEST(RefCounted, LastUserThatKeepsAReferenceKeepsTheObjectAsOftenAsItLikes) {
   int hooks = 0;
   Ptr<Thing> rescued;
   auto thing = make<Thing>();
   thing->inLastUser = [&](Thing& self) {
      if (++hooks <= 2) {
         rescued = Ptr<Thing>(&self);
      }
   };
   for (int rescue = 1; rescue <= 2; ++rescue) {
      thing.reset();
      ASSERT_NE(rescued, nullptr);
      EXPECT_EQ(hooks, rescue);
      EXPECT_EQ(Thing::alive, 1);
      EXPECT_EQ(rescued->refCount(), 1U);
      EXPECT_FALSE(rescued->beingDestroyed());
      thing = std::move(rescued);
   }
   thing.reset();
   EXPECT_EQ(hooks, 3);
   EXPECT_EQ(Thing::alive, 0);
}

TEST(RefCountedDeathTest, ReferenceThatOutlivesAFailedConstructorStopsTheProcess) {
   Ptr<Thing> kept;
   EXPECT_EXIT(make<Thing>([&](Thing& self) {
                  kept = Ptr<Thing>(&self);
                  throw std::runtime_error("too late");
               }),
               testing::KilledBySignal(SIGABRT), outlived);
}

TEST(RefCountedDeathTest, ReferenceThatOutlivesADestructorStopsTheProcess) {
   Ptr<Thing> kept;
   auto thing = make<Thing>();
   thing->inDestructor = [&](Thing& self) { kept = Ptr<Thing>(&self); };
   EXPECT_EXIT(thing.reset(), testing::KilledBySignal(SIGABRT), outlived);
   thing->inDestructor = {};
}
