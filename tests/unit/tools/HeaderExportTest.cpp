// Registers as a C header. That it compiles, the tests of the command show.

#include "tools/tarnreg/HeaderExport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/tools/Board.h"

namespace TarnReg {
namespace {

using testing::HasSubstr;
using testing::Not;

std::string header(const std::string& lines, const std::string& title = "my board") {
   TestSupport::Board board(lines);
   return headerOf({title, 4, board.device->registers()});
}

TEST(HeaderExport, ARegisterHasFourMacros) {
   const std::string text = header("3,FAN[1]_PWM,control,true,8\n");
   EXPECT_THAT(text, HasSubstr("#ifndef MY_BOARD_REGISTERS_H\n#define MY_BOARD_REGISTERS_H\n"));
   EXPECT_THAT(text, HasSubstr("#define MY_BOARD_REGISTER_COUNT 1u\n"
                               "#define MY_BOARD_ADDRESS_UNITS_PER_REGISTER 4u\n"));
   EXPECT_THAT(text, HasSubstr("/* FAN[1]_PWM : 8 bits, rw, control */\n"
                               "#define MY_BOARD_FAN_1_PWM_ADDRESS 0x00000003u\n"
                               "#define MY_BOARD_FAN_1_PWM_WIDTH 8u\n"
                               "#define MY_BOARD_FAN_1_PWM_MASK 0x000000ffu\n"
                               "#define MY_BOARD_FAN_1_PWM_WRITABLE 1\n"));
}

TEST(HeaderExport, AMaskHasTheRegistersBits) {
   const std::string text = header("0,A,id,false,32\n1,B,control,true,1\n");
   EXPECT_THAT(text, HasSubstr("_A_MASK 0xffffffffu\n"));
   EXPECT_THAT(text, HasSubstr("_B_MASK 0x00000001u\n"));
   EXPECT_THAT(text, HasSubstr("_A_WRITABLE 0\n"));
}

TEST(HeaderExport, NamesThatWouldBeTheSameAreNumbered) {
   const std::string text = header("0,A-B,id,true,8\n1,A_B,id,true,8\n2,A.B,id,true,8\n");
   EXPECT_THAT(text, HasSubstr("MY_BOARD_A_B_ADDRESS 0x00000000u"));
   EXPECT_THAT(text, HasSubstr("MY_BOARD_A_B_2_ADDRESS 0x00000001u"));
   EXPECT_THAT(text, HasSubstr("MY_BOARD_A_B_3_ADDRESS 0x00000002u"));
}

TEST(HeaderExport, NoNameEndsAComment) {
   const std::string text = header("0,A*/B,id,true,8\n", "x */ #error y /*");
   EXPECT_THAT(text, HasSubstr("/* A* /B : 8 bits"));
   EXPECT_THAT(text, Not(HasSubstr("x */ #error")));
}

TEST(HeaderExport, ATitleWithoutLettersHasAName) {
   EXPECT_THAT(header("", "-"), HasSubstr("#define REG_REGISTER_COUNT 0u\n"));
   EXPECT_THAT(header("", "7 seas"), HasSubstr("#define REG_7_SEAS_REGISTER_COUNT 0u\n"));
}

} // namespace
} // namespace TarnReg
