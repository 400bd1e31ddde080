// Registers as a table in Markdown.

#include "tools/tarnreg/MarkdownExport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/tools/Board.h"

namespace TarnReg {
namespace {

using testing::HasSubstr;

std::string markdown(const std::string& lines, const std::string& title = "board") {
   TestSupport::Board board(lines);
   return markdownOf({title, 1, board.device->registers()});
}

TEST(MarkdownExport, IsATableInTheOrderGiven) {
   EXPECT_EQ(markdown("0,ID,id,false,32\n1,FAN[1],control,true,8\n"),
             "# board\n\n"
             "| Name | Address | Width | Access | Type |\n"
             "|---|---|---:|---|---|\n"
             "| `ID` | `0x00000000` | 32 | ro | id |\n"
             "| `FAN[1]` | `0x00000001` | 8 | rw | control |\n");
}

TEST(MarkdownExport, NoNameIsAMarkOfTheTable) {
   EXPECT_THAT(markdown("0,A|B,id,true,8\n"), HasSubstr("| <code>A&#124;B</code> |"));
   EXPECT_THAT(markdown("0,`A<b>,id,true,8\n"), HasSubstr("| <code>&#96;A&#60;b&#62;</code> |"));
   EXPECT_THAT(markdown("", "a *b* <c>"), HasSubstr("# a &#42;b&#42; &#60;c&#62;\n"));
}

} // namespace
} // namespace TarnReg
