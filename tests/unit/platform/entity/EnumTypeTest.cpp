#include "platform/entity/EnumType.h"

#include <sstream>

#include <gtest/gtest.h>

#include "platform/entity/Errors.h"
#include "tests/unit/platform/entity/TestEntities.h"
#include "tests/unit/platform/entity/TestEnum.h"

using EntityTest::Mode;
using EntityTest::rangeErrorOf;
using Platform::enumInstance;
using Platform::enumParse;
using Platform::enumString;
using Platform::TextRange;

static_assert(Platform::ReflectedEnum<Mode>);
static_assert(!Platform::ReflectedEnum<int>);

TEST(EnumType, StringFormIsTheName) {
   EXPECT_EQ(enumString(Mode::off), "Off");
   EXPECT_EQ(enumString(Mode::turbo), "Turbo");
   EXPECT_EQ(enumString(Mode{}), "Off");
}

TEST(EnumType, NumberWithoutANameIsShownWithItsTypeAndNumber) {
   EXPECT_EQ(enumString(static_cast<Mode>(77)), "Mode(77)");
}

TEST(EnumType, InstanceIsFoundByNumber) {
   EXPECT_EQ(enumInstance<Mode>(200U), Mode::turbo);
   EXPECT_EQ(rangeErrorOf([] { enumInstance<Mode>(3U); }), "EntityTest::Mode has no value 3");
   EXPECT_EQ(rangeErrorOf([] { enumInstance<Mode>(256U); }), "EntityTest::Mode has no value 256")
      << "not taken modulo the width";
}

TEST(EnumType, InstanceIsFoundByExactName) {
   EXPECT_EQ(enumInstance<Mode>("On"), Mode::on);
   EXPECT_EQ(rangeErrorOf([] { enumInstance<Mode>("on"); }),
             "EntityTest::Mode has no value 'on' (there are Off, On, Turbo)");
   EXPECT_EQ(rangeErrorOf([] { enumInstance<Mode>(""); }),
             "EntityTest::Mode has no value '' (there are Off, On, Turbo)");
   EXPECT_EQ(rangeErrorOf([] { enumInstance<Mode>("On "); }),
             "EntityTest::Mode has no value 'On ' (there are Off, On, Turbo)");
}

TEST(EnumType, IsParsedOffTheFrontOfAText) {
   TextRange range("Turbo, Off");
   EXPECT_EQ(enumParse<Mode>(range), Mode::turbo);
   EXPECT_EQ(range.rest(), ", Off");
}

TEST(EnumType, TextThatIsNoNameIsLeftWhereItWas) {
   TextRange range("Turbos");
   EXPECT_EQ(rangeErrorOf([&] { enumParse<Mode>(range); }),
             "EntityTest::Mode has no value 'Turbos' (there are Off, On, Turbo)");
   EXPECT_EQ(range.rest(), "Turbos");
}

TEST(EnumType, IsStreamedAsItsStringForm) {
   std::ostringstream out;
   out << Mode::on << ' ' << static_cast<Mode>(9);
   EXPECT_EQ(out.str(), "On Mode(9)");
}
