#include "platform/entity/Directory.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/entity/Errors.h"
#include "tests/unit/platform/entity/TestEntities.h"

using EntityTest::Probe;
using EntityTest::rangeErrorOf;
using Platform::Directory;
using Platform::make;
using Platform::Node;
using Platform::Ptr;

namespace {
class Other : public Node {};
constexpr const char* probeType = "EntityTest::Probe";
} // namespace

TEST(Directory, FindsALiveEntityByTypeAndName) {
   Directory directory;
   const auto probe = make<Probe>();
   directory.add("fan", probe);
   EXPECT_EQ(directory.find(probeType, "fan"), probe);
   EXPECT_EQ(directory.find(probeType, "fa"), nullptr);
   EXPECT_EQ(directory.find("EntityTest::Probes", "fan"), nullptr);
   EXPECT_EQ(directory.find("Platform::Node", "fan"), nullptr) << "a base is another type";
}

TEST(Directory, DoesNotKeepItsEntitiesAlive) {
   Directory directory;
   auto probe = make<Probe>();
   directory.add("fan", probe);
   EXPECT_EQ(probe->refCount(), 1U);
   probe.reset();
   EXPECT_EQ(directory.find(probeType, "fan"), nullptr);
}

TEST(Directory, RefusesASecondLiveEntityInTheSamePlace) {
   Directory directory;
   const auto first = make<Probe>();
   const auto second = make<Probe>();
   directory.add("fan", first);
   EXPECT_EQ(rangeErrorOf([&] { directory.add("fan", second); }),
             "there is already an entity 'fan' of type EntityTest::Probe");
   EXPECT_EQ(directory.find(probeType, "fan"), first);
   directory.add("fan", first); // the same one again is no conflict
   EXPECT_EQ(directory.find(probeType, "fan"), first);
}

TEST(Directory, GivesThePlaceOfADeadEntityToTheNextOne) {
   Directory directory;
   directory.add("fan", make<Probe>());
   const auto next = make<Probe>();
   directory.add("fan", next);
   EXPECT_EQ(directory.find(probeType, "fan"), next);
}

TEST(Directory, KeepsTypesApartUnderOneName) {
   Directory directory;
   const auto probe = make<Probe>();
   const Ptr<Node> other = make<Other>();
   directory.add("fan", probe);
   directory.add("fan", other);
   EXPECT_EQ(directory.find(probeType, "fan"), probe);
   EXPECT_EQ(directory.find("Platform::Node", "fan"), other);
}

TEST(Directory, TakesEveryNameAsItIs) {
   Directory directory;
   const auto probe = make<Probe>();
   const std::string odd("\0 ' , =", 7);
   directory.add(odd, probe);
   directory.add("", probe);
   EXPECT_EQ(directory.find(probeType, odd), probe);
   EXPECT_EQ(directory.find(probeType, ""), probe);
}

TEST(Directory, RefusesNoEntityAtAll) {
   Directory directory;
   EXPECT_EQ(rangeErrorOf([&] { directory.add("fan", nullptr); }),
             "no entity to enter under the name 'fan'");
}

TEST(Directory, ManyShortLivedEntitiesDoNotPileUp) {
   Directory directory;
   std::vector<Ptr<Probe>> living;
   for (int i = 0; i < 10; ++i) {
      living.push_back(make<Probe>());
      directory.add("living" + std::to_string(i), living.back());
   }
   std::size_t most = 0;
   for (int i = 0; i < 10000; ++i) {
      directory.add("brief" + std::to_string(i), make<Probe>());
      most = std::max(most, directory.size());
   }
   EXPECT_LE(most, 4 * living.size());
   for (int i = 0; i < 10; ++i) {
      EXPECT_EQ(directory.find(probeType, "living" + std::to_string(i)), living[i]);
   }
}
