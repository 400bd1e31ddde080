#include "platform/entity/TypeData.h"

#include <map>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "platform/entity/TypeBuilder.h"
#include "tests/unit/platform/entity/TestEntities.h"
#include "tests/unit/platform/entity/TestEnum.h"

using EntityTest::Log;
using EntityTest::Mode;
using EntityTest::observe;
using EntityTest::Probe;
using EntityTest::rangeErrorOf;
using Platform::Directory;
using Platform::make;
using Platform::Node;
using Platform::Ptr;
using Platform::String;
using Platform::TypeBuilder;
using Platform::TypeData;
using Platform::Value;

namespace {

class Dimmer : public Probe {
public:
   using Probe::Probe;

   std::uint8_t brightness() const noexcept { return _brightness; }
   void brightnessIs(std::uint8_t brightness) {
      if (brightness == 13) {
         throw std::runtime_error("not 13");
      }
      _brightness = brightness;
   }
   Mode mode() const { return _mode; }
   void modeIs(const Mode& mode) { _mode = mode; }
   const Ptr<const Probe>& peer() const { return _peer; }
   void peerIs(const Ptr<const Probe>& peer) { _peer = peer; }

   std::vector<std::uint32_t> zones() const { return {1, 2, 40}; }
   const String& zone(std::uint32_t number) const { return _zones.at(number); }

   std::int64_t sum(std::int32_t a, std::uint8_t b) const noexcept { return std::int64_t{a} + b; }
   void reset() { _brightness = 0; }
   String join(const String& left, const String& right) { return left + right; }
   bool same(const Ptr<Probe>& other) const { return other.get() == this; }
   void fail() { throw std::runtime_error("it failed"); }

   static const TypeData& staticType() {
      static const TypeData type =
         TypeBuilder<Dimmer>("EntityTest::Dimmer", Probe::staticType())
            .attribute<&Dimmer::brightness, &Dimmer::brightnessIs>("brightness")
            .attribute<&Dimmer::mode, &Dimmer::modeIs>("mode")
            .attribute<&Dimmer::peer, &Dimmer::peerIs>("peer")
            .collection<&Dimmer::zones, &Dimmer::zone>("zone")
            .operation<&Dimmer::sum>("sum", {"a", "b"})
            .operation<&Dimmer::reset>("reset")
            .operation<&Dimmer::join>("join", {"left", "right"})
            .operation<&Dimmer::same>("same", {"other"})
            .operation<&Dimmer::fail>("fail")
            .build();
      return type;
   }
   const TypeData& typeData() const override { return staticType(); }

private:
   std::uint8_t _brightness = 0;
   Mode _mode = Mode::off;
   Ptr<const Probe> _peer;
   std::map<std::uint32_t, String> _zones{{1, "hall"}, {2, "attic"}, {40, "yard"}};
};

class TypeDataOfADimmer : public testing::Test {
protected:
   Value invoke(std::string_view operation, std::vector<Value> arguments) {
      return type.invoke(*dimmer, operation, arguments);
   }
   Value invokeText(std::string_view operation, std::vector<String> arguments,
                    const Directory* directory = nullptr) {
      return type.invokeText(*dimmer, operation, arguments, directory);
   }
   const TypeData& type = Dimmer::staticType();
   Ptr<Dimmer> dimmer = make<Dimmer>("lamp");
};

} // namespace

TEST_F(TypeDataOfADimmer, DescribesItselfWithTheRowsOfItsBasesFirst) {
   EXPECT_EQ(type.describe(), "type EntityTest::Dimmer : EntityTest::Probe\n"
                              "  attribute name: String, read-only\n"
                              "  attribute level: U32, read-write\n"
                              "  attribute brightness: U8, read-write\n"
                              "  attribute mode: EntityTest::Mode, read-write\n"
                              "  attribute peer: Ptr<const EntityTest::Probe>, read-write\n"
                              "  attribute zone: collection of String by U32\n"
                              "  operation sum(a: S32, b: U8) -> S64\n"
                              "  operation reset()\n"
                              "  operation join(left: String, right: String) -> String\n"
                              "  operation same(other: Ptr<EntityTest::Probe>) -> Bool\n"
                              "  operation fail()\n");
   EXPECT_EQ(Node::staticType().describe(), "type Platform::Node\n");
}

TEST_F(TypeDataOfADimmer, KnowsItsNameBaseAndRows) {
   EXPECT_EQ(type.name(), "EntityTest::Dimmer");
   EXPECT_EQ(type.base(), &Probe::staticType());
   EXPECT_EQ(type.attributes().size(), 4U);
   EXPECT_EQ(type.operations().size(), 5U);
   EXPECT_TRUE(type.isA(type));
   EXPECT_TRUE(type.isA(Probe::staticType()));
   EXPECT_TRUE(type.isA(Node::staticType()));
   EXPECT_FALSE(Probe::staticType().isA(type));
}

TEST_F(TypeDataOfADimmer, FindsRowsOfItsBasesToo) {
   ASSERT_NE(type.findAttribute("level"), nullptr);
   EXPECT_EQ(type.findAttribute("level")->type->name(), "U32");
   EXPECT_TRUE(type.findAttribute("level")->writable());
   EXPECT_FALSE(type.findAttribute("name")->writable());
   EXPECT_TRUE(type.findAttribute("zone")->collection());
   EXPECT_EQ(type.findAttribute("Level"), nullptr);
   EXPECT_EQ(type.findOperation("level"), nullptr);
   EXPECT_NE(type.findOperation("reset"), nullptr);
   EXPECT_EQ(Probe::staticType().findOperation("reset"), nullptr);
}

TEST_F(TypeDataOfADimmer, GetsByName) {
   dimmer->brightnessIs(9);
   EXPECT_EQ(type.get(*dimmer, "brightness").as<std::uint8_t>(), 9);
   EXPECT_EQ(type.get(*dimmer, "name").as<String>(), "lamp");
   EXPECT_EQ(type.get(*dimmer, "mode").toString(), "Off");
   EXPECT_EQ(type.get(*dimmer, "peer").toString(), "null");
}

TEST_F(TypeDataOfADimmer, SetsByNameThroughTheSetter) {
   Log log;
   const auto observer = observe(*dimmer, "a", log);
   type.set(*dimmer, "level", Value::of(std::uint32_t{5}));
   type.set(*dimmer, "level", Value::of(std::uint32_t{5}));
   EXPECT_EQ(dimmer->level(), 5U);
   EXPECT_EQ(log, Log{"a:5"}) << "published once, as the setter does";
   type.set(*dimmer, "mode", Value::of(Mode::on));
   EXPECT_EQ(dimmer->mode(), Mode::on);
   type.set(*dimmer, "peer", Value::of(dimmer));
   EXPECT_EQ(dimmer->peer(), dimmer);
   type.set(*dimmer, "peer", Value::of(Ptr<Dimmer>()));
   EXPECT_EQ(dimmer->peer(), nullptr);
}

TEST_F(TypeDataOfADimmer, SetTakesIntegersOfOtherWidthsThatFitAndRefusesTheOthers) {
   type.set(*dimmer, "brightness", Value::of(255));
   EXPECT_EQ(dimmer->brightness(), 255);
   EXPECT_EQ(rangeErrorOf([&] { type.set(*dimmer, "brightness", Value::of(256)); }),
             "EntityTest::Dimmer::brightness: 256 of type S32 cannot become a U8");
   EXPECT_EQ(rangeErrorOf([&] { type.set(*dimmer, "brightness", Value::of(std::int64_t{-1})); }),
             "EntityTest::Dimmer::brightness: -1 of type S64 cannot become a U8");
   EXPECT_EQ(rangeErrorOf([&] { type.set(*dimmer, "brightness", Value()); }),
             "EntityTest::Dimmer::brightness: the empty value of type void cannot become a U8");
   EXPECT_EQ(dimmer->brightness(), 255) << "nothing was set";
}

TEST_F(TypeDataOfADimmer, SetsFromText) {
   type.setText(*dimmer, "brightness", "0x1f");
   EXPECT_EQ(dimmer->brightness(), 31);
   type.setText(*dimmer, "mode", "Turbo");
   EXPECT_EQ(dimmer->mode(), Mode::turbo);
   Directory directory;
   directory.add("lamp", dimmer);
   type.setText(*dimmer, "peer", "Entity('EntityTest::Dimmer', 'lamp')", &directory);
   EXPECT_EQ(dimmer->peer(), dimmer);
   type.setText(*dimmer, "peer", "null");
   EXPECT_EQ(dimmer->peer(), nullptr);
   EXPECT_EQ(rangeErrorOf([&] { type.setText(*dimmer, "brightness", "300"); }),
             "EntityTest::Dimmer::brightness: '300' is not a U8: 300 is out of range for U8 (0 to "
             "255)");
}

TEST_F(TypeDataOfADimmer, ExceptionOfASetterPassesAsItIs) {
   EXPECT_THROW(type.set(*dimmer, "brightness", Value::of(13)), std::runtime_error);
   try {
      type.setText(*dimmer, "brightness", "13");
      FAIL() << "nothing thrown";
   } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "not 13");
   }
}

TEST_F(TypeDataOfADimmer, RefusesUnknownReadOnlyAndMisusedAttributes) {
   EXPECT_EQ(rangeErrorOf([&] { type.get(*dimmer, "colour"); }),
             "EntityTest::Dimmer has no attribute 'colour'");
   EXPECT_EQ(rangeErrorOf([&] { type.set(*dimmer, "colour", Value::of(1)); }),
             "EntityTest::Dimmer has no attribute 'colour'");
   EXPECT_EQ(rangeErrorOf([&] { type.set(*dimmer, "name", Value::of("x")); }),
             "EntityTest::Dimmer::name is read-only");
   EXPECT_EQ(rangeErrorOf([&] { type.setText(*dimmer, "name", "x"); }),
             "EntityTest::Dimmer::name is read-only");
   EXPECT_EQ(rangeErrorOf([&] { type.setText(*dimmer, "zone", "x"); }),
             "EntityTest::Dimmer::zone is read-only");
   EXPECT_EQ(rangeErrorOf([&] { type.get(*dimmer, "zone"); }),
             "EntityTest::Dimmer::zone is a collection; it is read at a key");
   EXPECT_EQ(rangeErrorOf([&] { type.getAt(*dimmer, "level", Value::of(1)); }),
             "EntityTest::Dimmer::level is not a collection");
   EXPECT_EQ(rangeErrorOf([&] { type.keys(*dimmer, "level"); }),
             "EntityTest::Dimmer::level is not a collection");
}

TEST_F(TypeDataOfADimmer, ReadsACollectionByItsKeys) {
   std::vector<std::uint32_t> keys;
   for (const Value& key : type.keys(*dimmer, "zone")) {
      keys.push_back(key.as<std::uint32_t>());
   }
   EXPECT_EQ(keys, (std::vector<std::uint32_t>{1, 2, 40}));
   EXPECT_EQ(type.getAt(*dimmer, "zone", Value::of(std::uint32_t{40})).as<String>(), "yard");
   EXPECT_EQ(type.getAt(*dimmer, "zone", Value::of(2)).as<String>(), "attic") << "other width";
   EXPECT_EQ(rangeErrorOf([&] { type.getAt(*dimmer, "zone", Value::of(-2)); }),
             "EntityTest::Dimmer::zone: key: -2 of type S32 cannot become a U32");
   EXPECT_THROW(type.getAt(*dimmer, "zone", Value::of(3)), std::out_of_range)
      << "the entity's own answer to an unknown key";
}

TEST_F(TypeDataOfADimmer, InvokesByNameWithTypedValues) {
   EXPECT_EQ(
      invoke("sum", {Value::of(std::int32_t{-1}), Value::of(std::uint8_t{3})}).as<std::int64_t>(),
      2);
   EXPECT_EQ(invoke("sum", {Value::of(2147483647U), Value::of(255ULL)}).as<std::int64_t>(),
             2147483902);
   EXPECT_EQ(invoke("join", {Value::of("a"), Value::of("b")}).as<String>(), "ab");
   EXPECT_TRUE(invoke("same", {Value::of(dimmer)}).as<bool>());
   EXPECT_FALSE(invoke("same", {Value::of(Ptr<Dimmer>())}).as<bool>());
   dimmer->brightnessIs(4);
   EXPECT_TRUE(invoke("reset", {}).empty());
   EXPECT_EQ(dimmer->brightness(), 0);
}

TEST_F(TypeDataOfADimmer, InvokesByNameWithTypedText) {
   EXPECT_EQ(invokeText("sum", {"-0x10", "0b11"}).as<std::int64_t>(), -13);
   EXPECT_EQ(invokeText("join", {"it's ", "'bare'"}).as<String>(), "it's 'bare'");
   Directory directory;
   directory.add("lamp", dimmer);
   EXPECT_TRUE(invokeText("same", {"Entity('EntityTest::Dimmer', 'lamp')"}, &directory).as<bool>());
   EXPECT_TRUE(invokeText("reset", {}).empty());
}

TEST_F(TypeDataOfADimmer, InvokeRefusalNamesTypeOperationAndArgument) {
   EXPECT_EQ(rangeErrorOf([&] { invoke("blink", {}); }),
             "EntityTest::Dimmer has no operation 'blink'");
   EXPECT_EQ(rangeErrorOf([&] { invokeText("blink", {}); }),
             "EntityTest::Dimmer has no operation 'blink'");
   EXPECT_EQ(rangeErrorOf([&] { invoke("sum", {Value::of(1)}); }),
             "EntityTest::Dimmer::sum(a: S32, b: U8) -> S64 takes 2 arguments, 1 given");
   EXPECT_EQ(rangeErrorOf([&] { invoke("same", {}); }),
             "EntityTest::Dimmer::same(other: Ptr<EntityTest::Probe>) -> Bool takes 1 argument, 0 "
             "given");
   EXPECT_EQ(rangeErrorOf([&] { invokeText("reset", {"x"}); }),
             "EntityTest::Dimmer::reset() takes 0 arguments, 1 given");
   EXPECT_EQ(rangeErrorOf([&] {
                invoke("sum", {Value::of(1), Value::of(256)});
             }),
             "EntityTest::Dimmer::sum: argument 'b': 256 of type S32 cannot become a U8");
   EXPECT_EQ(rangeErrorOf([&] {
                invoke("sum", {Value::of("1"), Value::of(2)});
             }),
             "EntityTest::Dimmer::sum: argument 'a': '1' of type String cannot become a S32");
   EXPECT_EQ(rangeErrorOf([&] {
                invokeText("sum", {"1", "two"});
             }),
             "EntityTest::Dimmer::sum: argument 'b': 'two' is not a U8: 'two' is not a number");
   EXPECT_EQ(rangeErrorOf([&] { invoke("same", {Value::of(Ptr<const Probe>(dimmer))}); }),
             "EntityTest::Dimmer::same: argument 'other': Entity('EntityTest::Dimmer', 'lamp') of "
             "type Ptr<const EntityTest::Probe> cannot become a Ptr<EntityTest::Probe>");
   EXPECT_EQ(rangeErrorOf([&] { invokeText("same", {"Entity('EntityTest::Dimmer', 'lamp')"}); }),
             "EntityTest::Dimmer::same: argument 'other': 'Entity(\\'EntityTest::Dimmer\\', "
             "\\'lamp\\')' is not a Ptr<EntityTest::Probe>: no directory to find entity 'lamp' of "
             "type EntityTest::Dimmer in");
}

TEST_F(TypeDataOfADimmer, ExceptionOfAnOperationPassesAsItIs) {
   try {
      invoke("fail", {});
      FAIL() << "nothing thrown";
   } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "it failed");
   }
}

TEST_F(TypeDataOfADimmer, RefusesANodeOfAnotherClass) {
   const auto probe = make<Probe>();
   EXPECT_EQ(rangeErrorOf([&] { type.get(*probe, "brightness"); }),
             "entity is a EntityTest::Probe, not a EntityTest::Dimmer");
   EXPECT_EQ(rangeErrorOf([&] { type.invoke(*probe, "reset", {}); }),
             "entity is a EntityTest::Probe, not a EntityTest::Dimmer");
   EXPECT_NO_THROW(type.get(*probe, "level")) << "a row of a base that it has";
}

TEST_F(TypeDataOfADimmer, ReflectWorksOnANodeOfUnknownClass) {
   const Ptr<Node> node = dimmer;
   Platform::Reflect::set(*node, "brightness", Value::of(7));
   EXPECT_EQ(Platform::Reflect::get(*node, "brightness").toString(), "7");
   EXPECT_EQ(Platform::Reflect::invoke(*node, "sum", {Value::of(1), Value::of(2)}).toString(), "3");
}

TEST(TypeBuilder, WrongNumberOfArgumentNamesIsAnErrorOfTheTable) {
   EXPECT_THROW(TypeBuilder<Dimmer>("T", Node::staticType()).operation<&Dimmer::sum>("sum", {"a"}),
                std::logic_error);
}
