#include "platform/hardware/Generation.h"

#include <gtest/gtest.h>

#include "platform/entity/Errors.h"
#include "platform/entity/Value.h"

namespace {

using Hardware::Generation;

TEST(Generation, IsTheNullGenerationUnlessSaidOtherwise) {
   EXPECT_EQ(Generation().id, 0u);
   EXPECT_FALSE(Generation().valid);
   EXPECT_EQ(Generation(), Generation(0, false));
}

TEST(Generation, IsEqualWhenIdAndFlagAre) {
   EXPECT_EQ(Generation(7, true), Generation(7, true));
   EXPECT_NE(Generation(7, true), Generation(8, true));
   EXPECT_NE(Generation(7, true), Generation(7, false));
   EXPECT_NE(Generation(0, true), Generation());
   EXPECT_NE(Generation(1, false), Generation());
}

TEST(Generation, ItsStringFormRoundTrips) {
   EXPECT_EQ(Generation(3, true).stringRep(), "Value('Hardware::Generation', id=3, valid=true)");
   for (const Generation& generation : {Generation(), Generation(0xffffffff, true)}) {
      const std::string text = Platform::Value::of<Generation>(generation).toString();
      Platform::TextRange range(text);
      EXPECT_EQ(Generation(range), generation);
      EXPECT_TRUE(range.empty());
   }
}

TEST(Generation, WhatIsNotItsStringFormIsRefused) {
   for (const char* text :
        {"", "3", "Value('Hardware::Generation')", "Value('Hardware::Generation', id=3)",
         "Value('Hardware::Generation', id=4294967296, valid=true)",
         "Value('Hardware::Generation', id=-1, valid=true)",
         "Value('Hardware::Generation', id=1, valid=maybe)"}) {
      Platform::TextRange range(text);
      EXPECT_THROW((Generation(range)), Platform::RangeError) << text;
      EXPECT_EQ(range.rest(), text) << "nothing is taken of what is refused";
   }
}

} // namespace
