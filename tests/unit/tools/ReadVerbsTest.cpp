#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>

#include "tests/unit/tools/Board.h"
#include "tools/tarnreg/Verbs.h"

namespace {

using TarnReg::ExitCode;
using TarnReg::NumberBase;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using TestSupport::Board;

const std::string lines = "0,ID,id,false,16\n"
                          "1,FAN[0:2]_PWM,control,true,8\n"
                          "4,SETUP,cfg,true,32\n"
                          "5,LAST,status,false,1\n";

const auto fail = [] { throw std::runtime_error("no acknowledge"); };

ExitCode read(Board& board, const std::vector<std::string>& patterns) {
   return board.run([&](auto& report, auto&) { readRegisters(*board.device, patterns, report); });
}

ExitCode dump(Board& board, const std::vector<std::string>& patterns, bool all) {
   return board.run(
      [&](auto& report, auto&) { dumpRegisters(*board.device, patterns, all, report); });
}

ExitCode list(Board& board, const std::vector<std::string>& patterns) {
   return board.run([&](auto& report, auto&) { listRegisters(*board.device, patterns, report); });
}

TEST(ReadVerb, ShowsEachNameBesideItsValueInTheWidthOfTheRegister) {
   Board board(lines);
   board.state->values = {{"ID", 0xABC}, {"FAN[1]_PWM", 7}, {"LAST", 1}};
   EXPECT_EQ(read(board, {"ID", "FAN[1]_PWM", "LAST"}), ExitCode::ok);
   EXPECT_EQ(board.out, "ID          0x0abc\n"
                        "FAN[1]_PWM  0x07\n"
                        "LAST        0x1\n");
   EXPECT_EQ(board.err, "");
}

TEST(ReadVerb, ReadsInTheOrderOfTheArgumentsAndEachRegisterOnce) {
   Board board(lines);
   read(board, {"LAST", "FAN[0:1]_PWM", "ID"});
   EXPECT_THAT(board.journal(),
               ElementsAre("read LAST", "read FAN[0]_PWM", "read FAN[1]_PWM", "read ID"));
}

TEST(ReadVerb, PrintsTheGoodOnesAmongFailingOnesAndFails) {
   Board board(lines);
   board.state->values = {{"FAN[0]_PWM", 1}, {"FAN[2]_PWM", 3}};
   board.state->readFaults["FAN[1]_PWM"] = fail;
   EXPECT_EQ(read(board, {"FAN*"}), ExitCode::deviceError);
   EXPECT_EQ(board.out, "FAN[0]_PWM  0x01\nFAN[2]_PWM  0x03\n");
   EXPECT_EQ(board.err, "tarnreg: error: cannot read FAN[1]_PWM: no acknowledge\n");
}

TEST(ReadVerb, ADeadBoardHasNoValuesAtAll) {
   Board board(lines);
   for (const char* name : {"FAN[0]_PWM", "FAN[1]_PWM", "FAN[2]_PWM"}) {
      board.state->readFaults[name] = fail;
   }
   EXPECT_EQ(read(board, {"FAN*"}), ExitCode::deviceError);
   EXPECT_EQ(board.out, "");
   EXPECT_EQ(board.journal().size(), 3U);
}

TEST(ReadVerb, AllOnesIsAValueLikeAnyOther) {
   Board board(lines);
   board.state->values["ID"] = 0xFFFFFFFF;
   EXPECT_EQ(read(board, {"ID"}), ExitCode::ok);
   EXPECT_EQ(board.out, "ID  0xffffffff\n");
}

TEST(ReadVerb, AnUnknownNameDoesNotKeepTheOthersFromBeingRead) {
   Board board(lines);
   EXPECT_EQ(read(board, {"NOPE", "ID"}), ExitCode::unknownName);
   EXPECT_EQ(board.out, "ID  0x0000\n");
   EXPECT_THAT(board.err, HasSubstr("no register NOPE"));
}

TEST(ReadVerb, TheFirstFailureDecidesTheExitCode) {
   Board board(lines);
   board.state->readFaults["ID"] = [] {
      errno = ETIMEDOUT;
      throw std::runtime_error("no answer");
   };
   board.state->readFaults["LAST"] = fail;
   EXPECT_EQ(read(board, {"ID", "LAST"}), ExitCode::timeout);
   EXPECT_EQ(read(board, {"LAST", "ID"}), ExitCode::deviceError);
   EXPECT_EQ(read(board, {"LAST", "NOPE"}), ExitCode::unknownName)
      << "names are resolved before anything is read";
}

TEST(ReadVerb, TheDocumentIsCompleteWhenRegistersFail) {
   Board board(lines);
   board.json = true;
   board.state->values["ID"] = 0xFFFFFFFF;
   board.state->readFaults["LAST"] = fail;
   EXPECT_EQ(read(board, {"ID", "LAST", "NOPE"}), ExitCode::unknownName);
   EXPECT_EQ(board.document, nlohmann::json::parse(R"({
      "schema": "tarnreg/1", "verb": "verb", "exitCode": 3,
      "registers": [{"name": "ID", "address": 0, "width": 16, "arraySize": 1, "type": "id",
                     "writable": false, "value": 4294967295}],
      "errors": [{"code": "unknown-name", "name": "NOPE", "text": "no register NOPE"},
                 {"code": "device-error", "name": "LAST",
                  "text": "cannot read LAST: no acknowledge"}]})"));
}

TEST(ReadVerb, TheDocumentHasItsListsAlsoWhenTheyAreEmpty) {
   Board board(lines);
   board.json = true;
   EXPECT_EQ(read(board, {"NOPE"}), ExitCode::unknownName);
   EXPECT_TRUE(board.document.at("registers").empty());
   EXPECT_EQ(read(board, {"ID"}), ExitCode::ok);
   EXPECT_TRUE(board.document.at("errors").empty());
}

TEST(ReadVerb, ShowsValuesInTheBaseAskedFor) {
   Board board(lines);
   board.state->values["FAN[0]_PWM"] = 10;
   board.base = NumberBase::dec;
   read(board, {"FAN[0]_PWM"});
   EXPECT_EQ(board.out, "FAN[0]_PWM  10\n");
   board.base = NumberBase::bin;
   read(board, {"FAN[0]_PWM"});
   EXPECT_EQ(board.out, "FAN[0]_PWM  0b00001010\n");
}

TEST(DumpVerb, LeavesConfigurationRegistersAloneUnlessAskedForThem) {
   Board board(lines);
   EXPECT_EQ(dump(board, {}, false), ExitCode::ok);
   EXPECT_THAT(board.journal(), ElementsAre("read ID", "read FAN[0]_PWM", "read FAN[1]_PWM",
                                            "read FAN[2]_PWM", "read LAST"));
   board.journal().clear();
   EXPECT_EQ(dump(board, {"SETUP"}, false), ExitCode::ok);
   EXPECT_THAT(board.journal(), IsEmpty());
   EXPECT_EQ(dump(board, {"SETUP"}, true), ExitCode::ok);
   EXPECT_THAT(board.journal(), ElementsAre("read SETUP"));
}

TEST(DumpVerb, GoesOnAfterAFailure) {
   Board board(lines);
   board.state->readFaults["ID"] = fail;
   EXPECT_EQ(dump(board, {}, true), ExitCode::deviceError);
   EXPECT_EQ(board.journal().size(), 6U);
   EXPECT_THAT(board.out, HasSubstr("LAST"));
}

TEST(ListVerb, ShowsEveryRegisterWithoutTouchingTheBus) {
   Board board(lines);
   EXPECT_EQ(list(board, {}), ExitCode::ok);
   EXPECT_EQ(board.out, "ID          0x00000000  16 bits  ro  id\n"
                        "FAN[0]_PWM  0x00000001   8 bits  rw  control\n"
                        "FAN[1]_PWM  0x00000002   8 bits  rw  control\n"
                        "FAN[2]_PWM  0x00000003   8 bits  rw  control\n"
                        "SETUP       0x00000004  32 bits  rw  cfg\n"
                        "LAST        0x00000005   1 bits  ro  status\n");
   EXPECT_THAT(board.journal(), IsEmpty());
}

TEST(ListVerb, FailsForAPatternThatNothingMatchesAfterTheOthers) {
   Board board(lines);
   EXPECT_EQ(list(board, {"X*", "ID"}), ExitCode::unknownName);
   EXPECT_EQ(board.out, "ID  0x00000000  16 bits  ro  id\n");
}

TEST(ListVerb, OneAbsurdNameDoesNotWidenEveryLine) {
   Board board("0,A,id,true,8\n1," + std::string(5000, 'x') + ",id,true,8\n");
   list(board, {});
   EXPECT_LT(board.out.size(), 5300U);
}

TEST(ListVerb, NamesThatATerminalWouldObeyAreEscaped) {
   Board board("0,E\x1b]0;gotcha\x07,id,true,8\n1,C\xc2\x9b,id,true,8\n2,D\xff,id,true,8\n");
   list(board, {});
   EXPECT_EQ(board.out, "'E\\x1b]0;gotcha\\x07'  0x00000000   8 bits  rw  id\n"
                        "'C\\xc2\\x9b'           0x00000001   8 bits  rw  id\n"
                        "'D\\xff'               0x00000002   8 bits  rw  id\n");
}

} // namespace
