#include "platform/tables/private/KnownKeys.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Platform::Tables::KnownKeys;
using Stamp = KnownKeys::Stamp;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

// Keys of all lengths: kept as numbers, and as they are.
class KnownKeysTest : public testing::TestWithParam<std::size_t> {
protected:
   std::string key(char first) const {
      std::string text(GetParam(), '\0');
      text.front() = first;
      text.back() = static_cast<char>(GetParam() == 1 ? first : '\xff');
      return text;
   }
   static KnownKeys::Bytes bytes(const std::string& text) {
      return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
   }
   static std::vector<std::string> taken(KnownKeys::List list) {
      std::vector<std::string> keys;
      while (!list.empty()) {
         const KnownKeys::Key next = list.next();
         keys.emplace_back(next.bytes().begin(), next.bytes().end());
      }
      return keys;
   }

   KnownKeys known{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Sizes, KnownKeysTest, testing::Values(1, 4, 7, 8, 9, 40, 256));

TEST_P(KnownKeysTest, WhatIsAsItWasIsNotTold) {
   known.set(bytes(key('a')), {1, 0});
   known.set(bytes(key('b')), {2, 1});
   KnownKeys::Update update(known);
   update.found(bytes(key('b')), {2, 1});
   update.found(bytes(key('a')), {1, 0});
   EXPECT_THAT(taken(update.changed()), IsEmpty());
}

TEST_P(KnownKeysTest, WhatIsNewOrOtherwiseIsToldInTheOrderInWhichItIsFound) {
   known.set(bytes(key('a')), {1, 0});
   known.set(bytes(key('b')), {2, 1});
   known.set(bytes(key('c')), {3, 2});
   KnownKeys::Update update(known);
   update.found(bytes(key('n')), {9, 7});
   update.found(bytes(key('a')), {1, 1}); // the same state in another slot
   update.found(bytes(key('b')), {2, 1});
   update.found(bytes(key('c')), {4, 2});
   EXPECT_THAT(taken(update.changed()), ElementsAre(key('n'), key('a'), key('c')));
}

TEST_P(KnownKeysTest, WhatIsNoLongerThereIsTold) {
   known.set(bytes(key('a')), {1, 0});
   known.set(bytes(key('b')), {2, 1});
   known.set(bytes(key('c')), {3, 2});
   known.erase(bytes(key('c')));
   known.erase(bytes(key('x')));
   KnownKeys::Update update(known);
   update.found(bytes(key('n')), {4, 3});
   EXPECT_THAT(taken(update.changed()), UnorderedElementsAre(key('a'), key('b'), key('n')));
}

TEST_P(KnownKeysTest, AnUpdateReplacesWhatWasKnown) {
   known.set(bytes(key('a')), {1, 0});
   {
      KnownKeys::Update update(known);
      update.found(bytes(key('b')), {2, 1});
      EXPECT_THAT(taken(update.changed()), ElementsAre(key('b'), key('a')));
   }
   KnownKeys::Update update(known);
   update.found(bytes(key('b')), {2, 1});
   EXPECT_THAT(taken(update.changed()), IsEmpty());
}

TEST_P(KnownKeysTest, AKeyOfNoStampIsToldEvenIfItIsThere) {
   known.set(bytes(key('a')), {1, 0});
   known.set(bytes(key('a')), {});
   KnownKeys::Update update(known);
   update.found(bytes(key('a')), {1, 0});
   EXPECT_THAT(taken(update.changed()), ElementsAre(key('a')));
}

TEST_P(KnownKeysTest, AnAddedKeyIsMissedAndTheStampOfOneThatWasKnownStays) {
   known.set(bytes(key('a')), {1, 0});
   known.add(bytes(key('a')));
   known.add(bytes(key('b')));
   known.add(bytes(key('c')));
   KnownKeys::Update update(known);
   update.found(bytes(key('a')), {1, 0});
   update.found(bytes(key('b')), {2, 1});
   EXPECT_THAT(taken(update.changed()), ElementsAre(key('b'), key('c')));
}

} // namespace
