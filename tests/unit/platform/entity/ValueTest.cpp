#include "platform/entity/Value.h"

#include <bit>
#include <cmath>
#include <limits>
#include <random>

#include <gtest/gtest.h>

#include "platform/entity/TypeBuilder.h"
#include "tests/unit/platform/entity/TestEntities.h"
#include "tests/unit/platform/entity/TestEnum.h"

using EntityTest::Mode;
using EntityTest::Probe;
using EntityTest::rangeErrorOf;
using Platform::Bytes;
using Platform::Directory;
using Platform::make;
using Platform::Node;
using Platform::Ptr;
using Platform::String;
using Platform::TextRange;
using Platform::Value;
using Platform::valueType;

namespace {

/// What T's string form reads back as, with more text behind it.
template <typename T>
T reread(const T& value, const Directory* directory = nullptr) {
   const String text = Value::of<T>(value).toString() + ", more";
   TextRange range(text, directory);
   const std::any data = valueType<T>().parse(range);
   EXPECT_EQ(range.rest(), ", more");
   return std::any_cast<T>(data);
}

template <typename T>
T typed(std::string_view text, const Directory* directory = nullptr) {
   return std::any_cast<T>(valueType<T>().fromText(text, directory));
}

template <typename T>
String typedError(std::string_view text, const Directory* directory = nullptr) {
   return rangeErrorOf([&] { typed<T>(text, directory); });
}

template <typename T>
T converted(const Value& value) {
   return std::any_cast<T>(valueType<T>().convert(value));
}

template <typename T>
String conversionError(const Value& value) {
   return rangeErrorOf([&] { converted<T>(value); });
}

/// A class that joins in through its own three members.
struct Colour {
   static String valueTypeName() { return "EntityTest::Colour"; }
   String stringRep() const { return "rgb" + std::to_string(rgb); }
   explicit Colour(std::uint32_t value) : rgb(value) {}
   explicit Colour(TextRange& range) {
      range.require("rgb");
      rgb = Platform::ValueTraits<std::uint32_t>::read(range);
   }
   std::uint32_t rgb = 0;
};

/// An entity without a name attribute.
class Nameless : public Node {};

/// An entity whose attribute of that name is a collection.
class OddlyNamed : public Node {
public:
   std::vector<std::uint32_t> names() const { return {1}; }
   String nameAt(std::uint32_t) const { return "one"; }
   static const Platform::TypeData& staticType() {
      static const Platform::TypeData type =
         Platform::TypeBuilder<OddlyNamed>("EntityTest::OddlyNamed", Node::staticType())
            .collection<&OddlyNamed::names, &OddlyNamed::nameAt>("name")
            .build();
      return type;
   }
   const Platform::TypeData& typeData() const override { return staticType(); }
};

/// Derived from Probe, with a table of its own.
class SpecialProbe : public Probe {
public:
   using Probe::Probe;
   static const Platform::TypeData& staticType() {
      static const Platform::TypeData type =
         Platform::TypeBuilder<SpecialProbe>("EntityTest::SpecialProbe", Probe::staticType())
            .build();
      return type;
   }
   const Platform::TypeData& typeData() const override { return staticType(); }
};

template <typename T>
class IntegerValue : public testing::Test {};
using Integers = testing::Types<std::int8_t, std::uint8_t, std::int16_t, std::uint16_t,
                                std::int32_t, std::uint32_t, std::int64_t, std::uint64_t>;
TYPED_TEST_SUITE(IntegerValue, Integers);

} // namespace

TEST(Value, EmptyOneHasNoTypeAndNoText) {
   const Value empty;
   EXPECT_TRUE(empty.empty());
   EXPECT_EQ(empty.type(), nullptr);
   EXPECT_EQ(empty.typeName(), "void");
   EXPECT_EQ(empty.toString(), "");
   EXPECT_EQ(rangeErrorOf([&] { empty.as<bool>(); }), "value is of type void, not Bool");
}

TEST(Value, KnowsItsTypeAndGivesItBack) {
   const auto value = Value::of(std::uint16_t{7});
   EXPECT_FALSE(value.empty());
   EXPECT_EQ(value.typeName(), "U16");
   EXPECT_EQ(value.type(), &valueType<std::uint16_t>());
   EXPECT_EQ(value.as<std::uint16_t>(), 7);
   EXPECT_EQ(rangeErrorOf([&] { value.as<std::uint32_t>(); }), "value is of type U16, not U32");
   EXPECT_EQ(rangeErrorOf([&] { value.as<String>(); }), "value is of type U16, not String");
}

TEST(Value, TextIsAStringHoweverItIsHeld) {
   EXPECT_EQ(Value::of("abc").as<String>(), "abc");
   EXPECT_EQ(Value::of(std::string_view("abc")).as<String>(), "abc");
   EXPECT_EQ(Value::of(String("abc")).as<String>(), "abc");
}

TYPED_TEST(IntegerValue, RoundTripsAtItsLimits) {
   using Limits = std::numeric_limits<TypeParam>;
   for (const TypeParam value :
        {Limits::min(), static_cast<TypeParam>(Limits::min() + 1), TypeParam{0}, TypeParam{1},
         static_cast<TypeParam>(Limits::max() - 1), Limits::max()}) {
      EXPECT_EQ(reread(value), value);
      EXPECT_EQ(typed<TypeParam>(std::to_string(value)), value);
   }
}

TYPED_TEST(IntegerValue, BeyondItsLimitsIsARangeErrorThatNamesThem) {
   using Limits = std::numeric_limits<TypeParam>;
   const String name = valueType<TypeParam>().name();
   const String limits = " is out of range for " + name + " (" + std::to_string(Limits::min()) +
                         " to " + std::to_string(Limits::max()) + ")";
   const auto beyond = [&](const String& text) {
      EXPECT_EQ(typedError<TypeParam>(text),
                "'" + text + "' is not a " + name + ": " + text + limits);
   };
   // The last digit of a limit is 5, 7 or 8: adding one carries nowhere.
   String above = std::to_string(Limits::max());
   ++above.back();
   beyond(above);
   beyond("99999999999999999999999999");
   beyond("-99999999999999999999999999");
   beyond("0x10000000000000000");
   String below = std::is_signed_v<TypeParam> ? std::to_string(Limits::min()) : "-0";
   ++below.back();
   beyond(below);
}

TYPED_TEST(IntegerValue, IsReadInDecimalHexAndBinary) {
   EXPECT_EQ(typed<TypeParam>("42"), 42);
   EXPECT_EQ(typed<TypeParam>("+42"), 42);
   EXPECT_EQ(typed<TypeParam>("0x2a"), 42);
   EXPECT_EQ(typed<TypeParam>("0X2A"), 42);
   EXPECT_EQ(typed<TypeParam>("0b101010"), 42);
   EXPECT_EQ(typed<TypeParam>("007"), 7) << "never octal";
   EXPECT_EQ(typed<TypeParam>("-0"), 0);
}

TYPED_TEST(IntegerValue, OtherTextIsNotANumber) {
   const String name = valueType<TypeParam>().name();
   for (const String text : {"", "-", "0x", "0b", "0b2", "abc", "12abc", "1.5", "+-1", "--1",
                             "0x-1", "1_000", "5-3", "1e3"}) {
      EXPECT_EQ(typedError<TypeParam>(text),
                "'" + text + "' is not a " + name + ": '" + text + "' is not a number");
   }
   EXPECT_EQ(typedError<TypeParam>("1 "),
             "'1 ' is not a " + name + ": unexpected text after it: ' '");
}

TEST(Value, NumberThatCannotBeReadLeavesTheTextWhereItWas) {
   TextRange range("300, 7");
   EXPECT_EQ(rangeErrorOf([&] { Platform::ValueTraits<std::uint8_t>::read(range); }),
             "300 is out of range for U8 (0 to 255)");
   EXPECT_EQ(range.rest(), "300, 7");
}

TEST(Value, SignedHexadecimalCountsFromZero) {
   EXPECT_EQ(typed<std::int8_t>("-0x80"), -128);
   EXPECT_EQ(typedError<std::int8_t>("0xff"),
             "'0xff' is not a S8: 0xff is out of range for S8 (-128 to 127)");
}

TEST(Value, BoolIsTrueOrFalse) {
   EXPECT_EQ(Value::of(true).toString(), "true");
   EXPECT_TRUE(reread(true));
   EXPECT_FALSE(reread(false));
   EXPECT_TRUE(typed<bool>("1"));
   EXPECT_FALSE(typed<bool>("0"));
   EXPECT_EQ(typedError<bool>("yes"), "'yes' is not a Bool: 'yes' is neither true nor false");
   EXPECT_EQ(typedError<bool>("true1"), "'true1' is not a Bool: 'true1' is neither true nor false");
   EXPECT_EQ(typedError<bool>(""), "'' is not a Bool: '' is neither true nor false");
}

TEST(Value, DoubleRoundTripsToTheLastBit) {
   using Limits = std::numeric_limits<double>;
   for (const double value :
        {0.0, 1.0, -1.5, 0.1, 1e300, -1e-300, Limits::max(), Limits::lowest(), Limits::min(),
         Limits::denorm_min(), Limits::infinity(), -Limits::infinity(), 1.0 / 3}) {
      EXPECT_EQ(reread(value), value);
   }
   EXPECT_TRUE(std::signbit(reread(-0.0)));
   EXPECT_TRUE(std::isnan(reread(Limits::quiet_NaN())));
   EXPECT_TRUE(std::isnan(reread(-Limits::quiet_NaN())));
   std::mt19937_64 random(7);
   for (int round = 0; round < 20000; ++round) {
      const auto value = std::bit_cast<double>(random());
      if (!std::isnan(value)) {
         ASSERT_EQ(std::bit_cast<std::uint64_t>(reread(value)), std::bit_cast<std::uint64_t>(value))
            << Value::of(value).toString();
      }
   }
}

TEST(Value, DoubleIsReadAsAPersonWritesIt) {
   EXPECT_EQ(typed<double>("42"), 42.0);
   EXPECT_EQ(typed<double>("+1.5"), 1.5);
   EXPECT_EQ(typed<double>("1e3"), 1000.0);
   EXPECT_EQ(typedError<double>("abc"), "'abc' is not a Double: 'abc' is not a number");
   EXPECT_EQ(typedError<double>("1.5x"), "'1.5x' is not a Double: '1.5x' is not a number");
   EXPECT_EQ(typedError<double>("+-1"), "'+-1' is not a Double: '+-1' is not a number");
   EXPECT_EQ(typedError<double>("+"), "'+' is not a Double: '+' is not a number");
   EXPECT_EQ(typedError<double>(""), "'' is not a Double: '' is not a number");
   EXPECT_EQ(typedError<double>("1e999"),
             "'1e999' is not a Double: 1e999 is out of range for Double");
}

TEST(Value, StringIsQuotedInItsFormAndBareWhenTyped) {
   EXPECT_EQ(Value::of("it's").toString(), R"('it\'s')");
   EXPECT_EQ(reread<String>("a, b='c'\n"), "a, b='c'\n");
   EXPECT_EQ(typed<String>("it's, as typed"), "it's, as typed");
   EXPECT_EQ(typed<String>(""), "");
   EXPECT_EQ(typed<String>("'quotes stay'"), "'quotes stay'");
}

TEST(Value, EveryStringRoundTrips) {
   std::mt19937 random(11);
   for (int round = 0; round < 5000; ++round) {
      String text(random() % 40, '\0');
      for (char& c : text) {
         c = static_cast<char>(random());
      }
      ASSERT_EQ(reread(text), text);
   }
}

TEST(Value, BytesRoundTripInHexadecimal) {
   EXPECT_EQ(Value::of(Bytes{0x00, 0x1f, 0xff}).toString(), "x'001fff'");
   EXPECT_EQ(reread(Bytes{}), Bytes{});
   Bytes all;
   for (int byte = 0; byte < 256; ++byte) {
      all.push_back(static_cast<std::uint8_t>(byte));
   }
   EXPECT_EQ(reread(all), all);
   EXPECT_EQ(typed<Bytes>("x'AbCd'"), (Bytes{0xab, 0xcd}));
}

TEST(Value, TextThatIsNoBytesIsRefused) {
   EXPECT_EQ(typedError<Bytes>("abcd"), "'abcd' is not a Bytes: expected 'x\\'' but found 'abcd'");
   EXPECT_EQ(typedError<Bytes>("x'abc'"),
             "'x\\'abc\\'' is not a Bytes: bytes need two hexadecimal digits each");
   EXPECT_EQ(typedError<Bytes>("x'ag'"),
             "'x\\'ag\\'' is not a Bytes: 'ag' are not two hexadecimal digits");
   EXPECT_EQ(typedError<Bytes>("x'ab"),
             "'x\\'ab' is not a Bytes: expected '\\'' but found the end of the text");
}

TEST(Value, EnumIsItsName) {
   EXPECT_EQ(Value::of(Mode::turbo).typeName(), "EntityTest::Mode");
   EXPECT_EQ(Value::of(Mode::turbo).toString(), "Turbo");
   EXPECT_EQ(reread(Mode::on), Mode::on);
   EXPECT_EQ(typedError<Mode>("Fast"),
             "'Fast' is not a EntityTest::Mode: EntityTest::Mode has no value 'Fast' (there are "
             "Off, On, Turbo)");
}

TEST(Value, EnumNumberWithoutANameIsShownButNotRead) {
   const auto odd = static_cast<Mode>(5);
   EXPECT_EQ(Value::of(odd).toString(), "Mode(5)");
   EXPECT_EQ(rangeErrorOf([&] { reread(odd); }),
             "EntityTest::Mode has no value 'Mode' (there are Off, On, Turbo)");
}

TEST(Value, ClassJoinsInThroughItsOwnMembers) {
   EXPECT_EQ(valueType<Colour>().name(), "EntityTest::Colour");
   EXPECT_EQ(Value::of(Colour(5)).toString(), "rgb5");
   EXPECT_EQ(reread(Colour(5)).rgb, 5U);
   EXPECT_EQ(typedError<Colour>("red"),
             "'red' is not a EntityTest::Colour: expected 'rgb' but found 'red'");
}

TEST(ValueReference, IsWrittenWithTypeAndNameAndFoundThroughTheDirectory) {
   Directory directory;
   const auto probe = make<Probe>("it's me");
   directory.add(probe->name(), probe);
   EXPECT_EQ(Value::of(probe).toString(), R"(Entity('EntityTest::Probe', 'it\'s me'))");
   EXPECT_EQ(reread(probe, &directory), probe);
   EXPECT_EQ(reread(Ptr<const Probe>(probe), &directory), probe);
   EXPECT_EQ(reread(Ptr<Node>(probe), &directory), probe) << "through a base";
   EXPECT_EQ(typed<Ptr<Probe>>(R"(Entity('EntityTest::Probe', 'it\'s me'))", &directory), probe);
   EXPECT_EQ(probe->refCount(), 1U);
}

TEST(ValueReference, NullNeedsNoDirectory) {
   EXPECT_EQ(Value::of(Ptr<Probe>()).toString(), "null");
   EXPECT_EQ(reread(Ptr<Probe>()), nullptr);
   EXPECT_EQ(typed<Ptr<const Probe>>("null"), nullptr);
   EXPECT_EQ(typedError<Ptr<Probe>>("nullable"),
             "'nullable' is not a Ptr<EntityTest::Probe>: unexpected text after it: 'able'");
}

TEST(ValueReference, NameSaysWhatItRefersToAndWhetherConst) {
   EXPECT_EQ(valueType<Ptr<Probe>>().name(), "Ptr<EntityTest::Probe>");
   EXPECT_EQ(valueType<Ptr<const Probe>>().name(), "Ptr<const EntityTest::Probe>");
}

TEST(ValueReference, ToADeadOrUnknownEntityIsRefused) {
   Directory directory;
   auto probe = make<Probe>("fan");
   directory.add("fan", probe);
   const String text = Value::of(probe).toString();
   probe.reset();
   EXPECT_EQ(rangeErrorOf([&] {
                TextRange range(text, &directory);
                valueType<Ptr<Probe>>().parse(range);
             }),
             "no live entity 'fan' of type EntityTest::Probe");
}

TEST(ValueReference, ToAnEntityOfAnotherClassIsRefused) {
   Directory directory;
   const auto probe = make<Probe>("fan");
   directory.add("fan", probe);
   const String text = Value::of(probe).toString();
   TextRange range(text, &directory);
   EXPECT_EQ(rangeErrorOf([&] { valueType<Ptr<SpecialProbe>>().parse(range); }),
             "entity is a EntityTest::Probe, not a EntityTest::SpecialProbe");
}

TEST(ValueReference, WithoutADirectoryIsRefused) {
   const auto probe = make<Probe>("fan");
   EXPECT_EQ(rangeErrorOf([&] { reread(probe); }),
             "no directory to find entity 'fan' of type EntityTest::Probe in");
}

TEST(ValueReference, MalformedTextIsRefused) {
   const Directory directory;
   for (const char* text : {"", "Entity", "Entity(", "Entity('a')", "Entity('a', b)",
                            "Entity('a', 'b'", "Entity(a, 'b')", "Entity('a','b')"}) {
      TextRange range(text, &directory);
      EXPECT_THROW(valueType<Ptr<Probe>>().parse(range), Platform::RangeError) << text;
      EXPECT_EQ(range.rest(), text) << "nothing was taken";
   }
}

TEST(ValueReference, ToAnEntityWithoutANameShowsItsTypeAlone) {
   EXPECT_EQ(Value::of(Ptr<Node>(make<Nameless>())).toString(), "Entity('Platform::Node')");
   EXPECT_EQ(Value::of(make<OddlyNamed>()).toString(), "Entity('EntityTest::OddlyNamed')");
}

TEST(ValueReference, HoldsItsEntity) {
   const int before = Probe::alive;
   {
      const Value value = Value::of(make<Probe>());
      EXPECT_EQ(Probe::alive, before + 1);
      EXPECT_EQ(value.as<Ptr<Probe>>()->name(), "probe");
      EXPECT_EQ(value.type()->node(value.data()), value.as<Ptr<Probe>>());
   }
   EXPECT_EQ(Probe::alive, before);
   EXPECT_EQ(valueType<bool>().node(Value::of(true).data()), nullptr);
}

TEST(ValueConversion, TakesIntegersOfEveryWidthThatFit) {
   EXPECT_EQ(converted<std::uint8_t>(Value::of(255)), 255);
   EXPECT_EQ(converted<std::uint8_t>(Value::of(255ULL)), 255);
   EXPECT_EQ(converted<std::int8_t>(Value::of(-128L)), -128);
   EXPECT_EQ(converted<std::int8_t>(Value::of(std::int16_t{-128})), -128);
   EXPECT_EQ(converted<std::int64_t>(Value::of(std::numeric_limits<std::int64_t>::min())),
             std::numeric_limits<std::int64_t>::min());
   EXPECT_EQ(converted<long long>(Value::of(std::numeric_limits<long>::min())),
             std::numeric_limits<long long>::min());
   EXPECT_EQ(converted<std::uint64_t>(Value::of(std::uint8_t{9})), 9U);
   EXPECT_EQ(converted<int>(Value::of(static_cast<signed char>(-3))), -3);
   EXPECT_EQ(converted<int>(Value::of('A')), 65);
   EXPECT_EQ(converted<std::uint64_t>(Value::of(std::numeric_limits<unsigned long long>::max())),
             std::numeric_limits<std::uint64_t>::max());
}

TEST(ValueConversion, RefusesIntegersThatDoNotFit) {
   EXPECT_EQ(conversionError<std::uint8_t>(Value::of(256)), "256 of type S32 cannot become a U8");
   EXPECT_EQ(conversionError<std::uint8_t>(Value::of(-1)), "-1 of type S32 cannot become a U8");
   EXPECT_EQ(conversionError<std::int8_t>(Value::of(128U)), "128 of type U32 cannot become a S8");
   EXPECT_EQ(conversionError<std::int8_t>(Value::of(std::int16_t{-129})),
             "-129 of type S16 cannot become a S8");
   EXPECT_EQ(conversionError<std::int64_t>(Value::of(std::numeric_limits<std::uint64_t>::max())),
             "18446744073709551615 of type U64 cannot become a S64");
   EXPECT_EQ(conversionError<std::uint64_t>(Value::of(std::numeric_limits<std::int64_t>::min())),
             "-9223372036854775808 of type S64 cannot become a U64");
}

TEST(ValueConversion, RefusesOtherTypes) {
   EXPECT_EQ(conversionError<int>(Value::of("12")), "'12' of type String cannot become a S32");
   EXPECT_EQ(conversionError<int>(Value::of(true)), "true of type Bool cannot become a S32");
   EXPECT_EQ(conversionError<bool>(Value::of(1)), "1 of type S32 cannot become a Bool");
   EXPECT_EQ(conversionError<int>(Value::of(1.5)), "1.5 of type Double cannot become a S32");
   EXPECT_EQ(conversionError<Mode>(Value::of("On")),
             "'On' of type String cannot become a EntityTest::Mode");
   EXPECT_EQ(conversionError<int>(Value()), "the empty value of type void cannot become a S32");
   EXPECT_EQ(conversionError<Ptr<Probe>>(Value::of(1)),
             "1 of type S32 cannot become a Ptr<EntityTest::Probe>");
   EXPECT_EQ(conversionError<Ptr<Probe>>(Value()),
             "the empty value of type void cannot become a Ptr<EntityTest::Probe>");
}

TEST(ValueConversion, TakesReferencesUpDownAndToConst) {
   const auto special = make<SpecialProbe>("s");
   EXPECT_EQ(converted<Ptr<Probe>>(Value::of(special)), special);
   EXPECT_EQ(converted<Ptr<const Node>>(Value::of(special)), special);
   EXPECT_EQ(converted<Ptr<SpecialProbe>>(Value::of(Ptr<Node>(special))), special);
   EXPECT_EQ(conversionError<Ptr<SpecialProbe>>(Value::of(make<Probe>())),
             "entity is a EntityTest::Probe, not a EntityTest::SpecialProbe");
}

TEST(ValueConversion, TakesNullReferencesOfEveryClass) {
   EXPECT_EQ(converted<Ptr<Probe>>(Value::of(Ptr<SpecialProbe>())), nullptr);
   EXPECT_EQ(converted<Ptr<SpecialProbe>>(Value::of(Ptr<Node>())), nullptr);
   EXPECT_EQ(converted<Ptr<const Probe>>(Value::of(Ptr<Probe>())), nullptr);
}

TEST(ValueConversion, NeverTakesConstOffAReference) {
   const Ptr<const Probe> probe = make<Probe>("fan");
   EXPECT_EQ(converted<Ptr<const Node>>(Value::of(probe)), probe);
   EXPECT_EQ(
      conversionError<Ptr<Probe>>(Value::of(probe)),
      "Entity('EntityTest::Probe', 'fan') of type Ptr<const EntityTest::Probe> cannot become "
      "a Ptr<EntityTest::Probe>");
   EXPECT_EQ(conversionError<Ptr<Probe>>(Value::of(Ptr<const Probe>())),
             "null of type Ptr<const EntityTest::Probe> cannot become a Ptr<EntityTest::Probe>");
}
