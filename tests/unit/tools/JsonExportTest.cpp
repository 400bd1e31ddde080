// Registers as a JSON document. That it is as its schema says, the tests of the command show.

#include "tools/tarnreg/JsonExport.h"

#include <gtest/gtest.h>

#include "tests/unit/tools/Board.h"

namespace TarnReg {
namespace {

TEST(JsonExport, HasWhatTheListSaysOfEachRegister) {
   TestSupport::Board board("3,A,id,false,8\n4,B,control,true,32\n");
   const std::string text = jsonOf({"a \xff title", 4, board.device->registers()});
   const auto document = nlohmann::json::parse(text);
   EXPECT_EQ(document.at("schema"), "tarnreg-registers/1");
   EXPECT_EQ(document.at("title"), "a \xef\xbf\xbd title");
   EXPECT_EQ(document.at("addressUnitsPerRegister"), 4);
   ASSERT_EQ(document.at("registers").size(), 2U);
   const auto& first = document.at("registers").at(0);
   EXPECT_EQ(first.at("name"), "A");
   EXPECT_EQ(first.at("address"), 3);
   EXPECT_EQ(first.at("width"), 8);
   EXPECT_EQ(first.at("writable"), false);
   EXPECT_EQ(first.at("type"), "id");
   EXPECT_TRUE(first.contains("accessWidth"));
   EXPECT_FALSE(first.contains("value")) << "nothing was read";
   EXPECT_TRUE(board.journal().empty());
   for (const char c : text) {
      EXPECT_TRUE(static_cast<unsigned char>(c) < 0x80);
   }
}

TEST(JsonExport, OfNothingIsADocumentToo) {
   EXPECT_TRUE(nlohmann::json::parse(jsonOf({"t", 1, {}})).at("registers").empty());
}

} // namespace
} // namespace TarnReg
