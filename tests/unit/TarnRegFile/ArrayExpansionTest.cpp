#include "TarnRegFile/ArrayExpansion.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Failure.h"

namespace {

using TarnRegFile::_expandArray;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using TestSupport::Failure;
using Texts = std::vector<std::string>;

Texts expanded(std::string_view text) {
   Texts out;
   const std::uint32_t count = _expandArray(text, out);
   EXPECT_EQ(count, out.size());
   return out;
}

Failure failureOf(std::string_view text) {
   Texts out{"kept"};
   Failure failure([&] { _expandArray(text, out); });
   EXPECT_THAT(out, ElementsAre("kept")) << "what fails appends nothing";
   return failure;
}

/// The rules as they are told, step by step and without regard for cost.
Texts reference(const std::string& text, std::size_t from = 0) {
   const std::size_t open = text.find('[', from);
   const std::size_t close = open == std::string::npos ? open : text.find(']', open);
   if (close == std::string::npos) {
      return {text};
   }
   const std::string inside = text.substr(open + 1, close - open - 1);
   if (inside.find('[') != std::string::npos) {
      return reference(text, open + 1);
   }
   const std::size_t colon = inside.find(':');
   if (colon == std::string::npos) {
      return reference(text, close + 1);
   }
   const int lower = std::stoi(inside);
   const int upper = std::stoi(inside.substr(colon + 1));
   if (lower > upper) {
      throw std::logic_error("reversed");
   }
   const Texts rest = reference(text.substr(close + 1));
   Texts out;
   for (std::int64_t i = lower; i <= upper; ++i) {
      for (const std::string& r : rest) {
         out.push_back(text.substr(0, open + 1) + std::to_string(static_cast<std::uint32_t>(i)) +
                       "]" + r);
      }
   }
   return out;
}

TEST(ArrayExpansion, ATextWithoutRangeIsTakenAsItStands) {
   for (const char* text : {"", "A", ",RX[2],T,true,8", "[", "]", "[]", "][", "]1:2[", "[1", "1:2]",
                            "[1:2", ":", "a:b", "[[[[", "]]]]", "[:", ":]", "[(1:2)", "[3][4]"}) {
      EXPECT_THAT(expanded(text), ElementsAre(text)) << text;
   }
}

TEST(ArrayExpansion, ARangeYieldsItsIndicesInOrder) {
   EXPECT_THAT(expanded("RX[0:2]"), ElementsAre("RX[0]", "RX[1]", "RX[2]"));
   EXPECT_THAT(expanded("[9:11]x"), ElementsAre("[9]x", "[10]x", "[11]x"));
}

TEST(ArrayExpansion, ARangeOfOneYieldsOneIndex) {
   EXPECT_THAT(expanded("RX[7:7]_Y"), ElementsAre("RX[7]_Y"));
}

TEST(ArrayExpansion, TheLeftmostRangeVariesSlowest) {
   EXPECT_THAT(expanded(",Q[0:1]_X[2:3],counter,true,32"),
               ElementsAre(",Q[0]_X[2],counter,true,32", ",Q[0]_X[3],counter,true,32",
                           ",Q[1]_X[2],counter,true,32", ",Q[1]_X[3],counter,true,32"));
   EXPECT_THAT(expanded("[0:1][0:1][0:1]"),
               ElementsAre("[0][0][0]", "[0][0][1]", "[0][1][0]", "[0][1][1]", "[1][0][0]",
                           "[1][0][1]", "[1][1][0]", "[1][1][1]"));
}

TEST(ArrayExpansion, BracketsWithoutColonArePartOfTheName) {
   EXPECT_THAT(expanded("A[3]_B[0:1]_C[4]"), ElementsAre("A[3]_B[0]_C[4]", "A[3]_B[1]_C[4]"));
}

TEST(ArrayExpansion, OfNestedBracketsTheInnermostCount) {
   EXPECT_THAT(expanded("A[B[0:1]]"), ElementsAre("A[B[0]]", "A[B[1]]"));
   EXPECT_THAT(expanded("A[1:2[3:4]"), ElementsAre("A[1:2[3]", "A[1:2[4]"));
   EXPECT_THAT(expanded("[[[0:1]]]"), ElementsAre("[[[0]]]", "[[[1]]]"));
   // The innermost pair is no range; what is outside of it has no closing bracket of its own left.
   EXPECT_THAT(expanded("A[1:2[3]]"), ElementsAre("A[1:2[3]]"));
}

TEST(ArrayExpansion, AClosingBracketBeforeTheOpeningOneDoesNotCount) {
   EXPECT_THAT(expanded("]A[0:1]"), ElementsAre("]A[0]", "]A[1]"));
   EXPECT_THAT(expanded("A]:[0:1"), ElementsAre("A]:[0:1"));
}

TEST(ArrayExpansion, AnUnclosedBracketBehindARangeIsKept) {
   EXPECT_THAT(expanded("A[0:1]_B[2:"), ElementsAre("A[0]_B[2:", "A[1]_B[2:"));
}

TEST(ArrayExpansion, IndicesAreWrittenWithoutPadding) {
   EXPECT_THAT(expanded("A[007:0010]"), ElementsAre("A[7]", "A[8]", "A[9]", "A[10]"));
}

TEST(ArrayExpansion, BoundsAreStandardIntConversions) {
   EXPECT_THAT(expanded("A[ 1:\t+2]"), ElementsAre("A[1]", "A[2]"));
   EXPECT_THAT(expanded("A[1x:2y]"), ElementsAre("A[1]", "A[2]"));
   EXPECT_THAT(expanded("A[0x10:1]"), ElementsAre("A[0]", "A[1]"));
   EXPECT_THAT(expanded("A[1 5:2 6]"), ElementsAre("A[1]", "A[2]"));
   EXPECT_THAT(expanded("A[1:2:3]"), ElementsAre("A[1]", "A[2]"));
   EXPECT_THAT(expanded("A[2147483646:2147483647]"), ElementsAre("A[2147483646]", "A[2147483647]"));
}

TEST(ArrayExpansion, NegativeIndicesAreWrittenUnsigned) {
   EXPECT_THAT(expanded("A[-1:1]"), ElementsAre("A[4294967295]", "A[0]", "A[1]"));
   EXPECT_THAT(expanded("A[-2147483648:-2147483647]"),
               ElementsAre("A[2147483648]", "A[2147483649]"));
}

TEST(ArrayExpansion, ARangeIsFoundInAnyPartOfTheText) {
   EXPECT_THAT(expanded(",A,T[0:1],true,8"), ElementsAre(",A,T[0],true,8", ",A,T[1],true,8"));
   EXPECT_THAT(expanded(",A[0,T,1:2],true"), testing::SizeIs(3)) << "a range may span fields";
}

TEST(ArrayExpansion, NulBytesAreKept) {
   using namespace std::string_literals;
   EXPECT_THAT(expanded("A\0[0:1]\0B"s), ElementsAre("A\0[0]\0B"s, "A\0[1]\0B"s));
   EXPECT_THAT(expanded("[1\0"
                        "2:2\0"
                        "9]"s),
               ElementsAre("[1]", "[2]"))
      << "a number ends at a NUL byte";
}

TEST(ArrayExpansion, AppendsBehindWhatIsThereAndCountsOnlyItsOwn) {
   Texts out{"before"};
   EXPECT_EQ(_expandArray("A[0:1]", out), 2u);
   EXPECT_EQ(_expandArray("B", out), 1u);
   EXPECT_THAT(out, ElementsAre("before", "A[0]", "A[1]", "B"));
}

TEST(ArrayExpansion, ABoundThatIsNoNumberIsTheConversionsError) {
   for (const char* text : {"A[:]", "A[:1]", "A[0:]", "A[x:1]", "A[0:x]", "A[-:1]", "A[ : ]",
                            "A[::1]", "A[0:1]B[x:1]", "A[0:1]B[0:x]"}) {
      EXPECT_EQ(failureOf(text), Failure::invalidArgument("stoi")) << text;
   }
}

TEST(ArrayExpansion, ABoundBeyondAnIntIsTheConversionsError) {
   for (const char* text : {"A[0:2147483648]", "A[-2147483649:0]", "A[99999999999999999999:0]"}) {
      EXPECT_EQ(failureOf(text), Failure::outOfRange("stoi")) << text;
   }
}

TEST(ArrayExpansion, BoundsAreLookedAtFromTheLeft) {
   // The lower bound before the upper, and both before any range behind them.
   EXPECT_EQ(failureOf("A[x:99999999999]"), Failure::invalidArgument("stoi"));
   EXPECT_EQ(failureOf("A[99999999999:x]"), Failure::outOfRange("stoi"));
   EXPECT_EQ(failureOf("A[x:1]B[2:1]"), Failure::invalidArgument("stoi"));
}

TEST(ArrayExpansionDeathTest, ReversedBoundsStopTheProcess) {
   const auto message =
      HasSubstr("TarnRegFile/RegisterFileHelper: _expandArray: assertion failed: upper >= lower && "
                "\"incorrect sub-array index values!\"");
   Texts out;
   EXPECT_DEATH(_expandArray("A[1:0]", out), message);
   EXPECT_DEATH(_expandArray("A[0:-1]", out), message);
   EXPECT_DEATH(_expandArray("A[0:1]B[5:4]", out), message);
   EXPECT_DEATH(_expandArray("A[1:0]B[x:1]", out), message) << "before the range behind is read";
}

TEST(ArrayExpansion, MoreTextsThanTheLimitAreRefusedBeforeAnyIsMade) {
   const Failure refused =
      Failure::generic(EINVAL, "Register array expands to more than 1048576 registers");
   EXPECT_EQ(failureOf("A[0:1048576]"), refused);
   EXPECT_EQ(failureOf("A[-2147483648:2147483647]"), refused);
   EXPECT_EQ(failureOf("A[0:1023]B[0:1024]"), refused);
   std::string many;
   for (int i = 0; i < 100; ++i) {
      many += "[-2147483648:2147483647]";
   }
   EXPECT_EQ(failureOf(many), refused);
}

TEST(ArrayExpansion, AsManyTextsAsTheLimitAreMade) {
   Texts out;
   EXPECT_EQ(_expandArray("A[0:1023]B[0:1023]", out), TarnRegFile::maxArrayExpansion);
   EXPECT_EQ(out.size(), TarnRegFile::maxArrayExpansion);
   EXPECT_EQ(out.back(), "A[1023]B[1023]");
}

TEST(ArrayExpansion, MoreBytesThanTheLimitAreRefused) {
   const std::string text = "A[0:1023]" + std::string(1 << 19, 'x');
   EXPECT_EQ(failureOf(text),
             Failure::generic(EINVAL, "Register array expands to more than 268435456 bytes"));
}

TEST(ArrayExpansion, ALongTextWithoutRangeIsNotLimited) {
   const std::string text(300'000'000, 'x');
   Texts out;
   EXPECT_EQ(_expandArray(text, out), 1u);
   EXPECT_EQ(out[0].size(), text.size());
}

// Each of these took time that grows with the square of the length when looked at naively, and
// would then not end within the test's limit.
TEST(ArrayExpansion, VeryManyBracketsTakeLinearTime) {
   constexpr std::size_t count = 4'000'000;
   const auto times = [](std::string_view piece) {
      std::string text;
      for (std::size_t i = 0; i < count; ++i) {
         text += piece;
      }
      return text;
   };
   for (const std::string& text :
        {times("["), times("]"), times("[]"), times("[3]"), times("[") + times("]"),
         times("][") + ":", times(":") + times("["), times("[") + ":]"}) {
      Texts out;
      if (text.ends_with(":]")) {
         EXPECT_THROW(_expandArray(text, out), std::invalid_argument);
         EXPECT_THAT(out, IsEmpty());
      } else {
         EXPECT_EQ(_expandArray(text, out), 1u);
         EXPECT_EQ(out[0], text);
      }
   }
   // As many ranges of one index each: the text stays one.
   std::string ranges;
   for (std::size_t i = 0; i < 100'000; ++i) {
      ranges += "[1:1]";
   }
   Texts out;
   EXPECT_EQ(_expandArray(ranges, out), 1u);
   EXPECT_EQ(out[0].size(), 300'000u);
}

TEST(ArrayExpansion, AgreesWithTheRulesOnRandomTexts) {
   std::mt19937 random(20240531);
   const std::string alphabet = "[[[]]]:::0123-,A ";
   int ranges = 0;
   int errors = 0;
   for (int round = 0; round < 60000; ++round) {
      std::string text;
      const std::size_t length = random() % 24;
      while (text.size() < length) {
         if (random() % 4 == 0) {
            const int lower = static_cast<int>(random() % 5) - 1;
            text += "[" + std::to_string(lower) + ":" +
                    std::to_string(lower + static_cast<int>(random() % 4)) + "]";
         } else {
            text += alphabet[random() % alphabet.size()];
         }
      }
      std::optional<Texts> expected;
      Failure failure = Failure::none();
      try {
         expected = reference(text);
      } catch (const std::invalid_argument&) {
         failure = Failure::invalidArgument("stoi");
      } catch (const std::logic_error& error) {
         if (std::string_view(error.what()) == "reversed") {
            continue; // stops the process
         }
         throw;
      }
      if (expected && expected->size() > 100'000) {
         continue;
      }
      if (expected) {
         EXPECT_EQ(expanded(text), *expected) << text;
         ranges += expected->size() > 1;
      } else {
         EXPECT_EQ(failureOf(text), failure) << text;
         ++errors;
      }
      if (HasFailure()) {
         break;
      }
   }
   EXPECT_GT(ranges, 5000);
   EXPECT_GT(errors, 1000);
}

} // namespace
