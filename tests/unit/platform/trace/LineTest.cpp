#include "platform/trace/Line.h"

#include <chrono>
#include <string>

#include <gtest/gtest.h>

namespace {

using namespace std::chrono;
using Platform::Trace::escaped;
using Platform::Trace::line;
using Platform::Trace::lineBody;
using Platform::Trace::Record;

constexpr system_clock::time_point noon =
   sys_days(year(2024) / 5 / 31) + hours(12) + minutes(34) + seconds(56) + microseconds(7);

TEST(TraceLine, HasTimeLevelSourceFunctionAndText) {
   EXPECT_EQ(line(Record{"TarnRegFile/TransportMethod", "regRead", 8, "ctrl is 0x1", noon}),
             "2024-05-31T12:34:56.000007Z 8 TarnRegFile/TransportMethod regRead: ctrl is 0x1");
}

TEST(TraceLine, TimeBeforeTheEpochIsStillATime) {
   EXPECT_EQ(line(Record{"s", "f", 0, "t", system_clock::time_point(-microseconds(1))}),
             "1969-12-31T23:59:59.999999Z 0 s f: t");
}

TEST(TraceLine, BodyIsWithoutTimeAndLevel) {
   EXPECT_EQ(lineBody(Record{"s", "f", 3, "t", noon}), "s f: t");
}

TEST(TraceLine, EveryPartIsEscaped) {
   EXPECT_EQ(lineBody(Record{"s\n", "f\x1b", 3, "t\r", noon}), "s\\n f\\x1b: t\\r");
}

TEST(TraceLine, ATextCannotForgeAnotherLine) {
   const std::string forged =
      line(Record{"s", "f", 3, "x\n2024-05-31T12:34:56.000007Z 0 s f: all is lost", noon});
   EXPECT_EQ(forged.find('\n'), std::string::npos);
}

TEST(TraceEscaped, PlainAndNonAsciiTextStaysAsItIs) {
   EXPECT_EQ(escaped("ctrl[3] = 0x1 'a' \"b\""), "ctrl[3] = 0x1 'a' \"b\"");
   EXPECT_EQ(escaped("\u00e9\u20ac\U0001f600\u00a0"), "\u00e9\u20ac\U0001f600\u00a0");
   EXPECT_EQ(escaped(""), "");
}

TEST(TraceEscaped, ControlCharactersBecomeVisible) {
   EXPECT_EQ(escaped("a\nb\rc\td"), "a\\nb\\rc\\td");
   EXPECT_EQ(escaped(std::string_view("\0\x01\x1f\x7f", 4)), "\\x00\\x01\\x1f\\x7f");
   EXPECT_EQ(escaped("\x1b]0;title\x07"), "\\x1b]0;title\\x07");
}

TEST(TraceEscaped, BackslashIsDoubledSoThatTheBytesCanBeTold) {
   EXPECT_EQ(escaped("\\n"), "\\\\n");
}

TEST(TraceEscaped, EightBitControlsBecomeVisibleInEitherForm) {
   EXPECT_EQ(escaped("\u009b31m"), "\\xc2\\x9b31m");
   EXPECT_EQ(escaped("\x9b"
                     "31m"),
             "\\x9b31m");
}

TEST(TraceEscaped, CharactersThatTurnOrSeparateLinesBecomeVisible) {
   EXPECT_EQ(escaped("a\u202eb"), "a\\xe2\\x80\\xaeb");
   EXPECT_EQ(escaped("a\u2028b"), "a\\xe2\\x80\\xa8b");
   EXPECT_EQ(escaped("a\u2066b"), "a\\xe2\\x81\\xa6b");
   EXPECT_EQ(escaped("a\u200fb"), "a\\xe2\\x80\\x8fb");
}

TEST(TraceEscaped, BytesThatAreNotUtf8BecomeVisible) {
   EXPECT_EQ(escaped("\xff"), "\\xff");
   EXPECT_EQ(escaped("\xc0\x9b"), "\\xc0\\x9b");          // overlong
   EXPECT_EQ(escaped("\xe0\x80\x9b"), "\\xe0\\x80\\x9b"); // overlong
   EXPECT_EQ(escaped("\xed\xa0\x80"), "\\xed\\xa0\\x80"); // surrogate
   EXPECT_EQ(escaped("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");
   EXPECT_EQ(escaped("\xe2\x82"), "\\xe2\\x82"); // cut short
   EXPECT_EQ(escaped("\xe2\x82z"), "\\xe2\\x82z");
}

} // namespace
