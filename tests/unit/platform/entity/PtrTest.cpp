#include "platform/entity/Ptr.h"

#include <map>
#include <stdexcept>
#include <type_traits>
#include <unordered_set>

#include <absl/container/flat_hash_set.h>
#include <absl/hash/hash.h>
#include <gtest/gtest.h>

#include "tests/unit/platform/entity/TestEntities.h"

using EntityTest::Probe;
using Platform::make;
using Platform::Node;
using Platform::Ptr;
using Platform::ptrCast;

namespace {

class Other : public Node {};

/// A reference-counted object whose counted part is not at its front.
class Mixin {
public:
   virtual ~Mixin() = default;
   int payload = 7;
};
class Shifted : public Mixin, public Platform::RefCounted {};

/// Has a last step of construction that depends on the derived class.
class Stepwise : public Node {
public:
   void handleConstructed() { lastStep(); }
   virtual void lastStep() = 0;
};
class Complete : public Stepwise {
public:
   explicit Complete(bool mustFail = false) : mustFail_(mustFail) { ++alive; }
   ~Complete() override { --alive; }
   void lastStep() override {
      ++steps;
      if (mustFail_) {
         throw std::runtime_error("no");
      }
   }
   static inline int alive = 0;
   int steps = 0;

private:
   bool mustFail_;
};

static_assert(sizeof(Ptr<Probe>) == sizeof(void*));
static_assert(std::is_nothrow_default_constructible_v<Ptr<Probe>>);
static_assert(std::is_nothrow_copy_constructible_v<Ptr<Probe>>);
static_assert(std::is_nothrow_move_constructible_v<Ptr<Probe>>);
static_assert(std::is_nothrow_move_assignable_v<Ptr<Probe>>);
static_assert(std::is_nothrow_constructible_v<Ptr<Node>, Ptr<Probe>&&>);
static_assert(std::is_nothrow_swappable_v<Ptr<Probe>>);

// Up and to const by itself, never down, sideways or away from const.
static_assert(std::is_convertible_v<Ptr<Probe>, Ptr<const Probe>>);
static_assert(std::is_convertible_v<Ptr<Probe>, Ptr<Node>>);
static_assert(std::is_convertible_v<Ptr<Probe>, Ptr<const Node>>);
static_assert(std::is_convertible_v<Ptr<const Probe>, Ptr<const Node>>);
static_assert(std::is_convertible_v<std::nullptr_t, Ptr<Probe>>);
static_assert(!std::is_constructible_v<Ptr<Probe>, Ptr<Node>>);
static_assert(!std::is_constructible_v<Ptr<Probe>, Ptr<Other>>);
static_assert(!std::is_constructible_v<Ptr<Probe>, Ptr<const Probe>>);
static_assert(!std::is_assignable_v<Ptr<Probe>&, Ptr<Node>>);
static_assert(!std::is_convertible_v<Probe*, Ptr<Probe>>, "taking a reference is explicit");
static_assert(!std::is_convertible_v<Ptr<Probe>, bool>);
static_assert(!std::is_convertible_v<Ptr<Probe>, Probe*>);

} // namespace

TEST(Ptr, IsNullUntilItIsGivenAnObject) {
   const Ptr<Probe> null;
   EXPECT_FALSE(null);
   EXPECT_EQ(null, nullptr);
   EXPECT_EQ(null.get(), nullptr);
   EXPECT_EQ(Ptr<Probe>(nullptr), null);
}

TEST(Ptr, MakeReturnsTheOnlyReference) {
   const auto probe = make<Probe>();
   EXPECT_EQ(probe->refCount(), 1U);
}

TEST(Ptr, MakeEndsConstructionWhenAllOfTheObjectIsThere) {
   const auto complete = make<Complete>();
   EXPECT_EQ(complete->steps, 1);
   EXPECT_EQ(complete->refCount(), 1U);
}

TEST(Ptr, NothingIsLeftOfAnObjectWhoseLastStepThrows) {
   EXPECT_THROW(make<Complete>(true), std::runtime_error);
   EXPECT_EQ(Complete::alive, 0);
}

TEST(Ptr, CopiesShareTheObjectAndTheLastOneDestroysIt) {
   const int before = Probe::alive;
   auto first = make<Probe>();
   auto second = first;
   EXPECT_EQ(first->refCount(), 2U);
   first.reset();
   EXPECT_EQ(first, nullptr);
   EXPECT_EQ(Probe::alive, before + 1);
   EXPECT_EQ(second->refCount(), 1U);
   second = nullptr;
   EXPECT_EQ(Probe::alive, before);
}

TEST(Ptr, MovingTakesTheReferenceAlongWithoutCounting) {
   auto first = make<Probe>();
   Probe* object = first.get();
   Ptr<Probe> second = std::move(first);
   EXPECT_EQ(first, nullptr);
   EXPECT_EQ(second.get(), object);
   EXPECT_EQ(object->refCount(), 1U);
   Ptr<const Node> third = std::move(second);
   EXPECT_EQ(second, nullptr);
   EXPECT_EQ(third->refCount(), 1U);
}

TEST(Ptr, AssignmentDropsTheOldObjectOnceTheNewOneIsInPlace) {
   auto pointer = make<Probe>("old");
   const auto fresh = make<Probe>("new");
   std::string seen;
   pointer->inDestructor = [&](Probe&) { seen = pointer->name(); };
   pointer = fresh;
   EXPECT_EQ(seen, "new");
   EXPECT_EQ(fresh->refCount(), 2U);
}

TEST(Ptr, ResetIsAlreadyNullWhenTheObjectGoes) {
   auto pointer = make<Probe>();
   bool wasNull = false;
   pointer->inDestructor = [&](Probe&) { wasNull = pointer == nullptr; };
   pointer.reset();
   EXPECT_TRUE(wasNull);
   pointer.reset(); // again: nothing left to do
}

TEST(Ptr, AssignmentToItselfKeepsTheObject) {
   auto pointer = make<Probe>();
   auto& same = pointer;
   pointer = same;
   EXPECT_EQ(pointer->refCount(), 1U);
   pointer = std::move(same);
   ASSERT_NE(pointer, nullptr);
   EXPECT_EQ(pointer->refCount(), 1U);
}

TEST(Ptr, ConstructionFromThisTakesAReferenceOfItsOwn) {
   const auto probe = make<Probe>();
   const Ptr<const Node> again(probe.get());
   EXPECT_EQ(probe->refCount(), 2U);
}

TEST(Ptr, CastDownIsCheckedAndLeavesTheSourceAlone) {
   const Ptr<Node> node = make<Probe>();
   EXPECT_EQ(ptrCast<Probe>(node).get(), node.get());
   EXPECT_EQ(ptrCast<Other>(node), nullptr);
   EXPECT_EQ(ptrCast<Probe>(Ptr<Node>()), nullptr);
   EXPECT_EQ(ptrCast<const Probe>(Ptr<const Node>(node)).get(), node.get());
   EXPECT_EQ(node->refCount(), 1U);
}

TEST(Ptr, ComparesByIdentityNotByContent) {
   const auto a = make<Probe>("same");
   const auto b = make<Probe>("same");
   EXPECT_NE(a, b);
   EXPECT_EQ(a, Ptr<const Node>(a));
   EXPECT_TRUE((a < b) != (b < a));
   EXPECT_FALSE(a < a);
   EXPECT_TRUE(a >= Ptr<Node>(a));
   EXPECT_LT(Ptr<Probe>(), a);
}

TEST(Ptr, EqualPointersOfAnyBaseHaveTheSameOrderAndHash) {
   const auto shifted = make<Shifted>();
   const Ptr<Platform::RefCounted> base = shifted;
   ASSERT_NE(static_cast<const void*>(shifted.get()), static_cast<const void*>(base.get()));
   EXPECT_EQ(shifted, base);
   EXPECT_EQ(shifted <=> base, std::strong_ordering::equal);
   EXPECT_EQ(std::hash<Ptr<Shifted>>{}(shifted), std::hash<Ptr<Platform::RefCounted>>{}(base));
   EXPECT_EQ(absl::HashOf(shifted), absl::HashOf(base));
}

TEST(Ptr, IsAKeyOfOrderedHashedAndAbseilContainers) {
   const auto a = make<Probe>();
   const auto b = make<Probe>();
   std::map<Ptr<Probe>, int> ordered{{a, 1}, {b, 2}};
   EXPECT_EQ(ordered.at(a), 1);
   EXPECT_EQ(ordered.at(b), 2);
   const std::unordered_set<Ptr<const Probe>> hashed{a, b, a};
   EXPECT_EQ(hashed.size(), 2U);
   EXPECT_TRUE(hashed.contains(a));
   const absl::flat_hash_set<Ptr<Probe>> flat{a, b, a};
   EXPECT_EQ(flat.size(), 2U);
   EXPECT_TRUE(flat.contains(b));
   EXPECT_FALSE(flat.contains(Ptr<Probe>()));
}

TEST(Ptr, SwapExchangesWithoutCounting) {
   auto a = make<Probe>("a");
   Ptr<Probe> null;
   a.swap(null);
   EXPECT_EQ(a, nullptr);
   EXPECT_EQ(null->name(), "a");
   EXPECT_EQ(null->refCount(), 1U);
}
