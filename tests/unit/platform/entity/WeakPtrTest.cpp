#include "platform/entity/WeakPtr.h"

#include <optional>
#include <stdexcept>

#include <gtest/gtest.h>

#include "platform/entity/ZeroReferencesNotifiee.h"
#include "tests/unit/platform/entity/TestEntities.h"

using EntityTest::Probe;
using Platform::make;
using Platform::Node;
using Platform::Ptr;
using Platform::WeakPtr;

namespace {

class Failing : public Node {
public:
   explicit Failing(WeakPtr<Failing>& out) {
      out = WeakPtr<Failing>(Ptr<Failing>(this));
      EXPECT_EQ(out.lock().get(), this);
      throw std::runtime_error("no");
   }
};

class Rescuer : public Platform::ZeroReferencesNotifiee {
public:
   void onZeroReferences(Node& node) noexcept override { rescued = Ptr<Node>(&node); }
   Ptr<Node> rescued;
};

} // namespace

TEST(WeakPtr, DoesNotKeepItsNodeAlive) {
   auto probe = make<Probe>();
   const WeakPtr<Probe> weak(probe);
   EXPECT_EQ(probe->refCount(), 1U);
   EXPECT_EQ(weak.lock(), probe);
   EXPECT_EQ(probe->refCount(), 1U);
   probe.reset();
   EXPECT_EQ(weak.lock(), nullptr);
}

TEST(WeakPtr, OfNothingFindsNothing) {
   EXPECT_EQ(WeakPtr<Probe>().lock(), nullptr);
   EXPECT_EQ(WeakPtr<Probe>(Ptr<Probe>()).lock(), nullptr);
}

TEST(WeakPtr, SeveralOfOneNodeAllForgetIt) {
   auto probe = make<Probe>();
   const WeakPtr<Probe> a(probe);
   const WeakPtr<const Node> b{Ptr<const Node>(probe)};
   const WeakPtr<Probe> copy = a;
   EXPECT_EQ(b.lock(), probe);
   EXPECT_EQ(copy.lock(), probe);
   probe.reset();
   EXPECT_EQ(a.lock(), nullptr);
   EXPECT_EQ(b.lock(), nullptr);
   EXPECT_EQ(copy.lock(), nullptr);
}

TEST(WeakPtr, GivesNoReferenceToANodeThatIsBeingDestroyed) {
   auto probe = make<Probe>();
   const WeakPtr<Probe> weak(probe);
   bool asked = false;
   probe->inDestructor = [&](Probe& self) {
      asked = true;
      EXPECT_EQ(weak.lock(), nullptr);
      EXPECT_EQ(WeakPtr<Probe>(Ptr<Probe>(&self)).lock(), nullptr);
   };
   probe.reset();
   EXPECT_TRUE(asked);
}

TEST(WeakPtr, ForgetsANodeWhoseConstructorThrew) {
   WeakPtr<Failing> weak;
   EXPECT_THROW(make<Failing>(weak), std::runtime_error);
   EXPECT_EQ(weak.lock(), nullptr);
}

TEST(WeakPtr, StillFindsANodeThatWasRescuedFromItsLastReference) {
   auto probe = make<Probe>();
   const WeakPtr<Probe> weak(probe);
   const auto rescuer = make<Rescuer>();
   rescuer->notifierIs(probe.get());
   probe.reset();
   ASSERT_NE(weak.lock(), nullptr);
   EXPECT_EQ(weak.lock(), rescuer->rescued);
   rescuer->zombieIs();
   rescuer->rescued.reset();
   EXPECT_EQ(weak.lock(), nullptr);
}
