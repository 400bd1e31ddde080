#include "platform/metrics/Label.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using Platform::Metrics::boundedLabelValue;
using Platform::Metrics::isLabelName;
using Platform::Metrics::isMetricName;

TEST(MetricName, TakesLettersDigitsUnderscoresAndColons) {
   for (const char* name : {"a", "Z", "_", ":", "tarn_reads_total", "a1", "a:b", "__a"}) {
      EXPECT_TRUE(isMetricName(name)) << name;
   }
}

TEST(MetricName, RefusesEverythingElse) {
   for (const char* name : {"", "1a", "a-b", "a b", "a.b", "\u00e9", "a\n", "a{"}) {
      EXPECT_FALSE(isMetricName(name)) << name;
   }
   EXPECT_FALSE(isMetricName(std::string_view("a\0b", 3)));
}

TEST(MetricName, HasUpTo128Bytes) {
   EXPECT_TRUE(isMetricName(std::string(128, 'a')));
   EXPECT_FALSE(isMetricName(std::string(129, 'a')));
}

TEST(LabelName, TakesLettersDigitsAndUnderscores) {
   for (const char* name : {"a", "Z", "_", "_a", "a1", "a__b"}) {
      EXPECT_TRUE(isLabelName(name)) << name;
   }
}

TEST(LabelName, RefusesEverythingElse) {
   for (const char* name : {"", "1a", "a:b", "a-b", "__a", "__", "\u00e9", "a\""}) {
      EXPECT_FALSE(isLabelName(name)) << name;
   }
}

TEST(LabelName, HasUpTo64Bytes) {
   EXPECT_TRUE(isLabelName(std::string(64, 'a')));
   EXPECT_FALSE(isLabelName(std::string(65, 'a')));
}

TEST(LabelValue, ThatFitsStaysAsItIs) {
   EXPECT_EQ(boundedLabelValue("", 8), "");
   EXPECT_EQ(boundedLabelValue("12345678", 8), "12345678");
   EXPECT_EQ(boundedLabelValue("a\"\\\n\u20ac", 8), "a\"\\\n\u20ac");
}

TEST(LabelValue, ThatIsTooLongEndsInDotsWithinTheLimit) {
   EXPECT_EQ(boundedLabelValue("123456789", 8), "12345...");
   EXPECT_EQ(boundedLabelValue("1234", 3), "...");
   EXPECT_EQ(boundedLabelValue(std::string(1000, 'x'), 128), std::string(125, 'x') + "...");
}

TEST(LabelValue, IsNotCutInsideACharacter) {
   EXPECT_EQ(boundedLabelValue("123\u20ac\u20ac", 8), "123...");
   EXPECT_EQ(boundedLabelValue("12\u20ac\u20ac\u20ac", 8), "12\u20ac...");
   EXPECT_EQ(boundedLabelValue("\u20ac\u20ac", 3), "...");
}

TEST(LabelValue, BytesThatAreNotUtf8AndControlCharactersBecomeQuestionMarks) {
   EXPECT_EQ(boundedLabelValue("a\xff\xc0\x80z", 16), "a???z");
   EXPECT_EQ(boundedLabelValue(std::string_view("a\0b\x1b\x7f\r\t", 7), 16), "a?b????");
   EXPECT_EQ(boundedLabelValue("a\u009bz", 16), "a?z");
   EXPECT_EQ(boundedLabelValue("a\xe2\x82", 16), "a??");
}

} // namespace
