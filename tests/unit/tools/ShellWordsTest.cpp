// A line taken apart as a shell does.

#include "tools/tarnreg/ShellWords.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/tarnreg/Failure.h"

namespace TarnReg {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string failure(std::string_view line) {
   try {
      shellWords(line);
   } catch (const Failure& failure) {
      EXPECT_EQ(failure.code(), ExitCode::usage);
      return failure.what();
   }
   return "none";
}

TEST(ShellWords, BlanksSeparate) {
   EXPECT_THAT(shellWords("  read\tA   B "), ElementsAre("read", "A", "B"));
   EXPECT_THAT(shellWords(""), IsEmpty());
   EXPECT_THAT(shellWords(" \t "), IsEmpty());
}

TEST(ShellWords, QuotesAndBackslashesKeepTogether) {
   EXPECT_THAT(shellWords(R"('a b'"c d"e\ f)"), ElementsAre("a bc de f"));
   EXPECT_THAT(shellWords(R"('a\b"' "\"\\\n" '')"), ElementsAre("a\\b\"", "\"\\\\n", ""));
   EXPECT_THAT(shellWords(R"(\'a \# \\)"), ElementsAre("'a", "#", "\\"));
}

TEST(ShellWords, ACommentBeginsAWord) {
   EXPECT_THAT(shellWords("read A # and B"), ElementsAre("read", "A"));
   EXPECT_THAT(shellWords("#"), IsEmpty());
   EXPECT_THAT(shellWords("A#B '#'C"), ElementsAre("A#B", "#C"));
}

TEST(ShellWords, NothingIsExpanded) {
   EXPECT_THAT(shellWords("$HOME * ~ `ls` {a,b} [0:3];|&"),
               ElementsAre("$HOME", "*", "~", "`ls`", "{a,b}", "[0:3];|&"));
}

TEST(ShellWords, WhatDoesNotEndIsRefusedWithItsPlace) {
   EXPECT_EQ(failure("read 'A"), "the quote in column 6 is not closed");
   EXPECT_EQ(failure(R"("a\")"), "the quote in column 1 is not closed");
   EXPECT_EQ(failure("'a'\""), "the quote in column 4 is not closed");
   EXPECT_EQ(failure("read \\"), "nothing is behind the backslash at the end");
}

} // namespace
} // namespace TarnReg
