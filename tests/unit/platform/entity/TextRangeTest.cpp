#include "platform/entity/TextRange.h"

#include <random>
#include <string>

#include <gtest/gtest.h>

#include "platform/entity/Directory.h"
#include "platform/entity/Errors.h"
#include "tests/unit/platform/entity/TestEntities.h"

using EntityTest::rangeErrorOf;
using Platform::quote;
using Platform::TextRange;
using Platform::unquote;

namespace {

std::string unquoted(std::string_view text) {
   TextRange range(text);
   std::string result = unquote(range);
   EXPECT_TRUE(range.empty()) << text;
   return result;
}

std::string unquoteError(std::string_view text) {
   return rangeErrorOf([&] {
      TextRange range(text);
      unquote(range);
   });
}

} // namespace

TEST(TextRange, OfNothingIsEmptyAndEverythingTakenFromItIsToo) {
   TextRange range("");
   EXPECT_TRUE(range.empty());
   EXPECT_EQ(range.peek(), '\0');
   EXPECT_EQ(range.takeWord(), "");
   EXPECT_EQ(range.takeNumber(), "");
   EXPECT_TRUE(range.consume(""));
   EXPECT_FALSE(range.consume("a"));
   EXPECT_EQ(range.directory(), nullptr);
}

TEST(TextRange, ConsumesAPrefixOnlyWhenAllOfItIsThere) {
   TextRange range("Value(x)");
   EXPECT_FALSE(range.consume("Values"));
   EXPECT_FALSE(range.consume("Value(x) "));
   EXPECT_EQ(range.rest(), "Value(x)");
   EXPECT_TRUE(range.consume("Value"));
   EXPECT_EQ(range.peek(), '(');
   EXPECT_EQ(range.rest(), "(x)");
}

TEST(TextRange, RequireNamesWhatWasExpectedAndFound) {
   TextRange range("abc");
   EXPECT_EQ(rangeErrorOf([&] { range.require("ax"); }), "expected 'ax' but found 'abc'");
   EXPECT_EQ(range.rest(), "abc") << "nothing was taken";
   range.require("abc");
   EXPECT_EQ(rangeErrorOf([&] { range.require(")"); }),
             "expected ')' but found the end of the text");
}

TEST(TextRange, RequireShowsTheBeginningOfALongText) {
   TextRange range("0123456789012345678901234567890123456789 and so on");
   EXPECT_EQ(rangeErrorOf([&] { range.require("x"); }),
             "expected 'x' but found '0123456789012345678901234567890123456789'...");
}

TEST(TextRange, AdvanceStopsAtTheEnd) {
   TextRange range("abc");
   range.advance(2);
   EXPECT_EQ(range.rest(), "c");
   range.advance(5);
   EXPECT_TRUE(range.empty());
   range.advance(1);
   EXPECT_TRUE(range.empty());
}

TEST(TextRange, WordIsLettersDigitsAndUnderscores) {
   TextRange range("reg_1x-2");
   EXPECT_EQ(range.takeWord(), "reg_1x");
   EXPECT_EQ(range.takeWord(), "");
   EXPECT_EQ(range.rest(), "-2");
   EXPECT_EQ(TextRange("\xc3\xa4").takeWord(), "") << "other letters are no word";
}

TEST(TextRange, NumberTakesSignsPointsAndExponents) {
   EXPECT_EQ(TextRange("-1.5e+10, x").takeNumber(), "-1.5e+10");
   EXPECT_EQ(TextRange("0xff)").takeNumber(), "0xff");
   EXPECT_EQ(TextRange(" 1").takeNumber(), "");
}

TEST(TextRange, KnowsTheDirectoryItWasGiven) {
   const Platform::Directory directory;
   EXPECT_EQ(TextRange("x", &directory).directory(), &directory);
}

TEST(Quote, LeavesReadableTextReadable) {
   EXPECT_EQ(quote(""), "''");
   EXPECT_EQ(quote("plain, key=value (x)"), "'plain, key=value (x)'");
   EXPECT_EQ(quote("gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80"),
             "'gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80'");
}

TEST(Quote, EscapesQuotesBackslashesAndControlCharacters) {
   EXPECT_EQ(quote("it's"), R"('it\'s')");
   EXPECT_EQ(quote(R"(a\b)"), R"('a\\b')");
   EXPECT_EQ(quote("\n\r\t"), R"('\n\r\t')");
   EXPECT_EQ(quote(std::string_view("\0\x01\x1f\x7f", 4)), R"('\x00\x01\x1f\x7f')");
   EXPECT_EQ(quote("\xc2\x85"), R"('\xc2\x85')") << "a control character in two bytes";
}

TEST(Quote, EscapesBytesThatAreNotValidUtf8) {
   EXPECT_EQ(quote("\xff"), R"('\xff')");
   EXPECT_EQ(quote("\x80"), R"('\x80')") << "a continuation without a beginning";
   EXPECT_EQ(quote("\xc3"), R"('\xc3')") << "a beginning without continuation";
   EXPECT_EQ(quote("\xe2\x82"), R"('\xe2\x82')");
   EXPECT_EQ(quote("\xe2\x82z"), R"('\xe2\x82z')");
   EXPECT_EQ(quote("\xc0\xaf"), R"('\xc0\xaf')") << "longer than it needs to be";
   EXPECT_EQ(quote("\xe0\x80\xaf"), R"('\xe0\x80\xaf')");
   EXPECT_EQ(quote("\xf0\x80\x80\xaf"), R"('\xf0\x80\x80\xaf')");
   EXPECT_EQ(quote("\xed\xa0\x80"), R"('\xed\xa0\x80')") << "half of a surrogate pair";
   EXPECT_EQ(quote("\xf4\x90\x80\x80"), R"('\xf4\x90\x80\x80')") << "beyond the last code point";
   EXPECT_EQ(quote("\xf4\x8f\xbf\xbf"), "'\xf4\x8f\xbf\xbf'") << "the last code point";
}

TEST(Unquote, ReadsEveryEscape) {
   EXPECT_EQ(unquoted("''"), "");
   EXPECT_EQ(unquoted(R"('\'\\\n\r\t\x41\xfF')"), "'\\\n\r\tA\xff");
   EXPECT_EQ(unquoted("'raw \x01 \xff bytes'"), "raw \x01 \xff bytes");
}

TEST(Unquote, StopsAtTheClosingQuote) {
   TextRange range("'a', key='b'");
   EXPECT_EQ(unquote(range), "a");
   EXPECT_EQ(range.rest(), ", key='b'");
}

TEST(Unquote, RefusesTextThatIsNoString) {
   EXPECT_EQ(unquoteError(""), "expected '\\'' but found the end of the text");
   EXPECT_EQ(unquoteError("abc"), "expected '\\'' but found 'abc'");
   EXPECT_EQ(unquoteError("'abc"), "string has no closing quote");
   EXPECT_EQ(unquoteError(R"('abc\)"), "string ends in the middle of an escape");
   EXPECT_EQ(unquoteError(R"('abc\')"), "string has no closing quote");
   EXPECT_EQ(unquoteError(R"('\q')"), R"(unknown escape '\\q' in a string)");
   EXPECT_EQ(unquoteError(R"('\x')"), "\\x in a string needs two hexadecimal digits");
   EXPECT_EQ(unquoteError(R"('\x4')"), "\\x in a string needs two hexadecimal digits");
   EXPECT_EQ(unquoteError(R"('\x4g')"), "\\x in a string needs two hexadecimal digits");
   EXPECT_EQ(unquoteError(R"('\x)"), "\\x in a string needs two hexadecimal digits");
}

TEST(Quote, EveryStringRoundTrips) {
   std::mt19937 random(20240229);
   // Bytes that mean something here come up often; the rest of the 256 too.
   static constexpr char chars[] =
      "'\\,=()nrtx \n\r\t\0\x7f\xc2\x85\xe2\x82\xac\xf0\x9f\x98\x80\xed\xff";
   const std::string special(chars, sizeof(chars) - 1);
   for (int round = 0; round < 20000; ++round) {
      std::string text(random() % 24, '\0');
      for (char& c : text) {
         c = random() % 2 ? special[random() % special.size()] : static_cast<char>(random());
      }
      const std::string form = quote(text);
      // Followed by more text, as in a record.
      const std::string record = form + ", 'next'";
      TextRange range(record);
      ASSERT_EQ(unquote(range), text) << form;
      ASSERT_EQ(range.rest(), ", 'next'") << form;
      for (const char c : form) {
         ASSERT_FALSE(static_cast<unsigned char>(c) < 0x20 || c == 0x7f) << "unprintable";
      }
   }
   for (int byte = 0; byte < 256; ++byte) {
      const std::string text(1, static_cast<char>(byte));
      EXPECT_EQ(unquoted(quote(text)), text);
   }
}
