#include "platform/entity/ValueSyntax.h"

#include <random>

#include <gtest/gtest.h>

#include "tests/unit/platform/entity/TestEntities.h"
#include "tests/unit/platform/entity/TestEnum.h"

using EntityTest::Mode;
using EntityTest::rangeErrorOf;
using Platform::Bytes;
using Platform::String;
using Platform::TextRange;

namespace {

struct Setting {
   static String valueTypeName() { return "EntityTest::Setting"; }
   String stringRep() const {
      return Platform::RecordWriter(valueTypeName())
         .field("name", name)
         .field("mode", mode)
         .field("level", level)
         .field("ratio", ratio)
         .field("raw", raw)
         .done();
   }
   Setting() = default;
   explicit Setting(TextRange& range) {
      Platform::RecordReader reader(range, valueTypeName());
      reader.field("name", name)
         .field("mode", mode)
         .field("level", level)
         .field("ratio", ratio)
         .field("raw", raw);
      reader.done();
   }
   bool operator==(const Setting&) const = default;

   String name;
   Mode mode = Mode::off;
   std::int32_t level = 0;
   double ratio = 0;
   Bytes raw;
};

/// A record in a record.
struct Pair {
   static String valueTypeName() { return "Pair"; }
   String stringRep() const {
      return Platform::RecordWriter(valueTypeName()).field("a", a).field("b", b).done();
   }
   Pair() = default;
   explicit Pair(TextRange& range) {
      Platform::RecordReader reader(range, valueTypeName());
      reader.field("a", a).field("b", b);
      reader.done();
   }
   Setting a;
   Setting b;
};

String errorOf(std::string_view text) {
   return rangeErrorOf([&] {
      TextRange range(text);
      Setting setting(range);
   });
}

} // namespace

TEST(ValueSyntax, WritesTypeThenKeysInOrder) {
   Setting setting;
   setting.name = "it's, a=b";
   setting.mode = Mode::turbo;
   setting.level = -5;
   setting.ratio = 0.5;
   setting.raw = {0x0a, 0xff};
   EXPECT_EQ(setting.stringRep(), R"(Value('EntityTest::Setting', name='it\'s, a=b', mode=Turbo, )"
                                  R"(level=-5, ratio=0.5, raw=x'0aff'))");
}

TEST(ValueSyntax, RecordWithoutFieldsIsItsTypeAlone) {
   EXPECT_EQ(Platform::RecordWriter("T").done(), "Value('T')");
   TextRange range("Value('T')");
   Platform::RecordReader(range, "T").done();
   EXPECT_TRUE(range.empty());
}

TEST(ValueSyntax, EveryRecordRoundTripsNestedToo) {
   std::mt19937 random(5);
   const auto any = [&] {
      Setting setting;
      setting.name.resize(random() % 20);
      for (char& c : setting.name) {
         c = static_cast<char>(random());
      }
      setting.mode = random() % 2 ? Mode::on : Mode::turbo;
      setting.level = static_cast<std::int32_t>(random());
      setting.ratio = static_cast<double>(random()) / 7;
      setting.raw.resize(random() % 5);
      return setting;
   };
   for (int round = 0; round < 2000; ++round) {
      Pair pair;
      pair.a = any();
      pair.b = any();
      const String text = pair.stringRep() + "|";
      TextRange range(text);
      const Pair again(range);
      ASSERT_EQ(again.a, pair.a) << text;
      ASSERT_EQ(again.b, pair.b) << text;
      ASSERT_EQ(range.rest(), "|");
   }
}

TEST(ValueSyntax, RecordIsAValueOfItsOwn) {
   Setting setting;
   setting.name = "x";
   const auto value = Platform::Value::of(setting);
   EXPECT_EQ(value.typeName(), "EntityTest::Setting");
   EXPECT_EQ(std::any_cast<Setting>(value.type()->fromText(value.toString(), nullptr)), setting);
}

TEST(ValueSyntax, WhatDoesNotFitIsNamed) {
   EXPECT_EQ(
      errorOf("Value('Other', name='x')"),
      R"(expected 'Value(\'EntityTest::Setting\'' but found 'Value(\'Other\', name=\'x\')')");
   EXPECT_EQ(errorOf("Value('EntityTest::Setting')"), "expected ', ' but found ')'");
   EXPECT_EQ(errorOf("Value('EntityTest::Setting', mode=On)"),
             "expected 'name' but found 'mode=On)'");
   EXPECT_EQ(errorOf("Value('EntityTest::Setting', name:'x')"),
             R"(expected '=' but found ':\'x\')')");
   EXPECT_EQ(errorOf("Value('EntityTest::Setting', name='x', mode=Fast)"),
             "EntityTest::Mode has no value 'Fast' (there are Off, On, Turbo)");
   EXPECT_EQ(errorOf("Value('EntityTest::Setting', name='x', mode=On, level=1, ratio=2, raw=x''"),
             "expected ')' but found the end of the text");
}
