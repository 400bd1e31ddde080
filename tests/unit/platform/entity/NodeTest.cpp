#include "platform/entity/Node.h"

#include <cstddef>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "platform/entity/CallbackNotifiee.h"
#include "platform/entity/Publisher.h"
#include "platform/entity/TypeData.h"
#include "platform/entity/WeakPtr.h"
#include "tests/unit/platform/entity/TestEntities.h"

using EntityTest::Log;
using EntityTest::observe;
using EntityTest::Observer;
using EntityTest::Probe;
using Platform::Change;
using Platform::make;
using Platform::Node;
using Platform::Ptr;

namespace {

/// The number of a virtual member function's entry in the virtual table, out of the pointer to
/// member as the Itanium C++ ABI lays it down: 1 + offset in the pointer, or, where the lowest bit
/// of a code address is taken, the offset with the mark in the adjustment.
template <typename Method>
std::size_t slotOf(Method method) {
   struct {
      std::ptrdiff_t pointer;
      std::ptrdiff_t adjustment;
   } raw{};
   static_assert(sizeof(raw) == sizeof(method));
   std::memcpy(&raw, &method, sizeof(raw));
#if defined(__arm__) || defined(__aarch64__)
   EXPECT_EQ(raw.adjustment & 1, 1) << "not virtual";
   return static_cast<std::size_t>(raw.pointer) / sizeof(void*);
#else
   EXPECT_EQ(raw.pointer & 1, 1) << "not virtual";
   return static_cast<std::size_t>(raw.pointer - 1) / sizeof(void*);
#endif
}

/// Its own virtual function comes after all those of the node.
class Slots : public Node {
public:
   virtual void first() {}
   static std::size_t lastUserSlot() { return slotOf(&Slots::lastUser); }
   static inline int destroyed = 0;

protected:
   ~Slots() override { ++destroyed; }
};

using Entry = void (*)(void*);
Entry entryOf(const void* object, std::size_t slot) {
   const Entry* table = nullptr;
   std::memcpy(&table, object, sizeof(table));
   return table[slot];
}

/// Subscribes, gives out references and weak references, then fails.
class Failing : public Node {
public:
   Failing(const Ptr<Probe>& watched, Platform::WeakPtr<Failing>& weak, Log& log)
      : _watching(std::in_place, "own", log), _child(make<Probe>("child")) {
      _watching->notifierIs(watched);
      _self = Ptr<const Failing>(this);
      weak = Platform::WeakPtr<Failing>(Ptr<Failing>(this));
      _self.reset();
      throw std::runtime_error("half built");
   }

private:
   Platform::OwnedNotifiee<Observer> _watching;
   Ptr<Probe> _child;
   Ptr<const Failing> _self;
};

/// Watched by somebody else before its constructor fails.
class WatchedThenFailing : public Node {
public:
   explicit WatchedThenFailing(Observer& observer) {
      observer.notifierIs(this);
      throw std::runtime_error("half built");
   }
};

} // namespace

TEST(Node, VirtualSlotsAreDestructorLastUserHookPublisherAndTypeData) {
   EXPECT_EQ(Slots::lastUserSlot(), 2U);
   EXPECT_EQ(slotOf(&Node::publisher), 3U);
   EXPECT_EQ(slotOf(&Node::typeData), 4U);
   EXPECT_EQ(slotOf(&Slots::first), 5U);
}

TEST(Node, DestructorHasTheFirstTwoSlots) {
   // Slot 1 destroys and frees.
   const int before = Slots::destroyed;
   auto* onHeap = new Slots;
   entryOf(onHeap, 1)(onHeap);
   EXPECT_EQ(Slots::destroyed, before + 1);

   // Slot 0 destroys in place.
   alignas(Slots) std::byte storage[sizeof(Slots)];
   auto* inPlace = new (static_cast<void*>(storage)) Slots;
   entryOf(inPlace, 0)(inPlace);
   EXPECT_EQ(Slots::destroyed, before + 2);
}

TEST(Node, BareNodeHasATypeWithoutRows) {
   const auto node = make<Slots>();
   EXPECT_EQ(&node->typeData(), &Node::staticType());
   EXPECT_EQ(node->typeData().name(), "Platform::Node");
   EXPECT_TRUE(Node::staticType().attributes().empty());
   EXPECT_TRUE(Node::staticType().operations().empty());
   EXPECT_EQ(Node::staticType().base(), nullptr);
}

TEST(Node, PublishesAfterTheStore) {
   Log log;
   const auto probe = make<Probe>();
   const auto observer = observe(*probe, "a", log); // logs the level that it finds
   probe->levelIs(5);
   EXPECT_EQ(log, Log{"a:5"});
}

TEST(Node, PublishesOnlyWhenTheValueDiffers) {
   Log log;
   const auto probe = make<Probe>();
   const auto observer = observe(*probe, "a", log);
   probe->levelIs(0);
   EXPECT_TRUE(log.empty()) << "it was 0 already";
   probe->levelIs(5);
   probe->levelIs(5);
   probe->levelIs(6);
   probe->levelIs(5);
   EXPECT_EQ(log, (Log{"a:5", "a:6", "a:5"}));
}

TEST(Node, ChangeNamesItsSourceAndItsAttributeAndHasNoKeyWhenPlain) {
   const auto probe = make<Probe>();
   int calls = 0;
   const auto subscription = Platform::subscribe(*probe, [&](const Change& change) {
      ++calls;
      EXPECT_EQ(&change.source, probe.get());
      EXPECT_EQ(change.attribute, Probe::levelId);
      EXPECT_EQ(change.attribute.name(), "level");
      EXPECT_FALSE(change.attribute == Probe::entryId);
      EXPECT_TRUE(change.key.empty());
   });
   probe->levelIs(1);
   EXPECT_EQ(calls, 1);
}

TEST(Node, ChangeOfACollectionCarriesItsKey) {
   const auto probe = make<Probe>();
   Log log;
   const auto subscription = Platform::subscribe(*probe, [&](const Change& change) {
      const auto key = change.key.as<std::uint32_t>();
      log.push_back(std::to_string(key) + "=" + probe->entry(key));
   });
   probe->entryIs(7, "seven");
   probe->entryIs(7, "seven");
   probe->entryIs(7, "VII");
   probe->entryIs(8, "eight");
   EXPECT_EQ(log, (Log{"7=seven", "7=VII", "8=eight"}));
}

TEST(Node, AttributesWithEqualNamesAreTheSameWhereverTheyAreDeclared) {
   static const char elsewhere[] = "level";
   EXPECT_EQ(Platform::AttributeId(elsewhere), Probe::levelId);
   EXPECT_FALSE(Platform::AttributeId("leve") == Probe::levelId);
}

TEST(Node, PublishesNothingWhileItIsBeingDestroyed) {
   Log log;
   auto probe = make<Probe>();
   const auto observer = observe(*probe, "a", log);
   bool ran = false;
   probe->inDestructor = [&](Probe& self) {
      self.levelIs(1);
      self.entryIs(2, "two");
      EXPECT_EQ(self.level(), 1U);
      ran = true;
   };
   probe.reset();
   EXPECT_TRUE(ran);
   EXPECT_TRUE(log.empty());
   EXPECT_EQ(observer->notifier(), nullptr);
}

TEST(Node, WhoseConstructorThrowsLeavesNoSubscriptionNoReferenceAndNoChild) {
   Log log;
   const auto watched = make<Probe>();
   const int probes = Probe::alive;
   const int observers = Observer::alive;
   Platform::WeakPtr<Failing> weak;
   EXPECT_THROW(make<Failing>(watched, weak, log), std::runtime_error);
   EXPECT_FALSE(watched->hasNotifiees());
   EXPECT_EQ(watched->refCount(), 1U);
   EXPECT_EQ(Probe::alive, probes);
   EXPECT_EQ(Observer::alive, observers);
   EXPECT_EQ(weak.lock(), nullptr);
   watched->levelIs(1);
   EXPECT_TRUE(log.empty());
}

TEST(Node, WhoseConstructorThrowsIsForgottenByItsNotifiees) {
   Log log;
   const auto observer = make<Observer>("a", log);
   EXPECT_THROW(make<WatchedThenFailing>(*observer), std::runtime_error);
   EXPECT_EQ(observer->notifier(), nullptr);
   const auto probe = make<Probe>();
   observer->notifierIs(probe);
   probe->levelIs(1);
   EXPECT_EQ(log, Log{"a:1"});
}

TEST(Node, HandedToAnotherThreadIsUsedThere) {
   Platform::multiThreadedIs();
   auto probe = make<Probe>();
   EXPECT_EQ(probe->ownerThread(), std::this_thread::get_id());
   const int before = Probe::alive;
   std::thread other([mine = std::move(probe)]() mutable {
      mine->ownerThreadIs(std::this_thread::get_id());
      Log log;
      const auto observer = observe(*mine, "a", log);
      mine->levelIs(1);
      EXPECT_EQ(log, Log{"a:1"});
      mine.reset();
   });
   other.join();
   EXPECT_EQ(Probe::alive, before - 1);
}

#ifdef TARN_DEBUG_CHECKS

namespace {

/// What the trap says when `function` is used on a foreign thread.
std::string trap(const std::string& function) {
   return "^platform/entity: " + function +
          ": assertion failed: onOwnerThread && \"node used on a thread that does not own it\"\n";
}

class NodeDeathTest : public testing::Test {
protected:
   NodeDeathTest() {
      GTEST_FLAG_SET(death_test_style, "threadsafe");
      Platform::multiThreadedIs();
   }
   template <typename Body>
   static void elsewhere(Body&& body) {
      std::thread(std::forward<Body>(body)).join();
   }
   Ptr<Probe> probe = make<Probe>();
};

} // namespace

TEST_F(NodeDeathTest, ChangeOnAForeignThreadIsTrapped) {
   EXPECT_EXIT(elsewhere([&] { probe->levelIs(1); }), testing::KilledBySignal(SIGABRT),
               trap("publish"));
}

TEST_F(NodeDeathTest, ChangeOfACollectionOnAForeignThreadIsTrappedThoughNobodyWatches) {
   EXPECT_EXIT(elsewhere([&] { probe->entryIs(1, "one"); }), testing::KilledBySignal(SIGABRT),
               trap("publish"));
}

TEST_F(NodeDeathTest, SubscriptionOnAForeignThreadIsTrapped) {
   EXPECT_EXIT(elsewhere([&] {
                  Log log;
                  observe(*probe, "a", log);
               }),
               testing::KilledBySignal(SIGABRT), trap("publisher"));
}

TEST_F(NodeDeathTest, DestructionOnAForeignThreadIsTrapped) {
   EXPECT_EXIT(elsewhere([mine = std::move(probe)]() mutable { mine.reset(); }),
               testing::KilledBySignal(SIGABRT), trap("~Node"));
}

#endif
