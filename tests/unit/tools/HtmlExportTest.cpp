// Registers as a page. What its search finds, the tests of the command show in a browser.

#include "tools/tarnreg/HtmlExport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/tools/Board.h"

namespace TarnReg {
namespace {

using testing::HasSubstr;
using testing::Not;

TEST(HtmlExport, WhateverARegisterOrTheTitleIsCalledIsText) {
   TestSupport::Board board("0,<script>x</script>,id,true,8\n1,A&B\"',id,true,8\n");
   const std::string page = htmlOf({"</title><b>", 1, board.device->registers()});
   EXPECT_THAT(page, HasSubstr("&lt;script&gt;x&lt;/script&gt;"));
   EXPECT_THAT(page, Not(HasSubstr("<script>x")));
   EXPECT_THAT(page, Not(HasSubstr("</title><b>")));
   EXPECT_THAT(page, HasSubstr("A&amp;B"));
}

TEST(HtmlExport, ThePageNeedsNothingElse) {
   TestSupport::Board board("0,A,id,true,8\n");
   const std::string page = htmlOf({"t", 1, board.device->registers()});
   for (const char* other : {"http://", "https://", "src=", "<link", "@import", "url("}) {
      EXPECT_THAT(page, Not(HasSubstr(other)));
   }
   EXPECT_THAT(page, testing::StartsWith("<!DOCTYPE html>"));
   EXPECT_THAT(page, HasSubstr("0x00000000"));
}

} // namespace
} // namespace TarnReg
