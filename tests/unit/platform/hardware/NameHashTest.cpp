#include "platform/hardware/private/NameHash.h"

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using Hardware::NameHash;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

TEST(NameHash, EqualNamesHaveOneHashWhoeverComputesIt) {
   const std::string name = "BLOCK0_REG1";
   const std::string longer = name + "23";

   EXPECT_EQ(NameHash()(name), NameHash()(std::string_view(longer).substr(0, name.size())));
   EXPECT_EQ(NameHash()(""), NameHash()({}));
}

TEST(NameHash, NamesOfAListHaveHashesOfTheirOwnInBothHalvesOfTheBits) {
   std::set<std::size_t> lower;
   std::set<std::size_t> upper;
   std::string name = "R";
   constexpr std::size_t count = 1000;
   for (std::size_t i = 0; i < count; ++i) {
      const std::size_t hash = NameHash()(name + std::to_string(i));
      lower.insert(hash & 0xFFFFFFFF);
      upper.insert(hash >> 32);
   }

   // Two of a thousand share 32 bits once in ten thousand runs, three pairs practically never.
   EXPECT_GT(lower.size(), count - 3);
   EXPECT_GT(upper.size(), count - 3);
}

TEST(NameHashDeathTest, AnotherProcessHasOtherHashes) {
   GTEST_FLAG_SET(death_test_style, "threadsafe"); // a process of its own, not a copy of this one
   const auto text = [] { return "hash " + std::to_string(NameHash()("SCRATCH")) + "\n"; };

   EXPECT_EXIT(
      {
         std::fputs(text().c_str(), stderr);
         std::_Exit(0);
      },
      testing::ExitedWithCode(0), AllOf(HasSubstr("hash "), Not(HasSubstr(text()))));
}

} // namespace
