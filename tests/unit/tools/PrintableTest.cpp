#include <gtest/gtest.h>

#include "tools/tarnreg/Printable.h"

namespace {

using TarnReg::printable;
using TarnReg::shownName;

TEST(Printable, PlainTextStaysAsItIs) {
   for (const char* text : {"", "FAN[0]_PWM", "a b", "C:\\dir\\x1b", "Größe", "'quoted'"}) {
      EXPECT_EQ(printable(text), text);
   }
}

TEST(Printable, WhatATerminalObeysIsEscaped) {
   EXPECT_EQ(printable("a\x1b[31m\r\n\t\x7f"), "a\\x1b[31m\\r\\n\\t\\x7f");
   EXPECT_EQ(printable("\xc2\x9b"), "\\xc2\\x9b") << "a control character of the second set";
   EXPECT_EQ(printable("\xe2\x80\xae"), "\\xe2\\x80\\xae") << "turns the direction of writing";
   EXPECT_EQ(printable("\xff\\\xfe"), "\\xff\\\\xfe");
   EXPECT_EQ(printable(std::string_view("a\0b", 3)), "a\\x00b");
}

TEST(ShownName, QuotesOnlyWhatCannotBeShownAsItIs) {
   EXPECT_EQ(shownName("FAN[0]"), "FAN[0]");
   EXPECT_EQ(shownName("Q\\R"), "Q\\R");
   EXPECT_EQ(shownName("with blank"), "with blank");
   EXPECT_EQ(shownName(""), "''");
   EXPECT_EQ(shownName("a\nb"), "'a\\nb'");
   EXPECT_EQ(shownName("\xe2\x80\xae"), "'\\xe2\\x80\\xae'");
}

} // namespace
