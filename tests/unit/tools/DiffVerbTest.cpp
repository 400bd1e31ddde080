#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

#include "tests/unit/tools/Board.h"
#include "tools/tarnreg/SavedDump.h"
#include "tools/tarnreg/Verbs.h"

namespace {

using TarnReg::ExitCode;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using TestSupport::Board;

const std::string lines = "0,ID,id,false,16\n"
                          "1,FAN[0:1]_PWM,control,true,8\n"
                          "4,SETUP,cfg,true,32\n";

const auto fail = [] { throw std::runtime_error("no acknowledge"); };

class Diff : public testing::Test {
protected:
   ExitCode withDevice(const std::vector<std::string>& patterns = {}, bool all = false) {
      return board.run([&](auto& report, auto&) {
         diffDevices(*board.device, *other->device, patterns, all, report);
      });
   }

   ExitCode withDump(const std::string& content, const std::vector<std::string>& patterns = {}) {
      const TarnReg::SavedDump dump(dir.write("dump", content));
      return board.run(
         [&](auto& report, auto&) { diffDump(*board.device, dump, patterns, report); });
   }

   const TestSupport::TempDir dir;
   // Made first, so that the trace sink of the device under test is the one in force.
   std::unique_ptr<Board> other = std::make_unique<Board>(lines);
   Board board{lines};
};

TEST_F(Diff, EqualDevicesHaveNothingToSay) {
   board.state->values["ID"] = other->state->values["ID"] = 5;
   EXPECT_EQ(withDevice(), ExitCode::ok);
   EXPECT_EQ(board.out, "");
   EXPECT_EQ(board.err, "");
   EXPECT_THAT(board.journal(), ElementsAre("read ID", "read FAN[0]_PWM", "read FAN[1]_PWM"));
   EXPECT_EQ(other->journal(), board.journal());
}

TEST_F(Diff, PrintsBothValuesOfWhatDiffersAndFails) {
   board.state->values = {{"ID", 5}, {"FAN[1]_PWM", 1}};
   other->state->values = {{"ID", 5}, {"FAN[1]_PWM", 2}};
   EXPECT_EQ(withDevice(), ExitCode::general);
   EXPECT_EQ(board.out, "FAN[1]_PWM  0x01  0x02\n");
   EXPECT_EQ(board.err, "tarnreg: error: 1 of 3 registers differ\n");
}

TEST_F(Diff, LeavesConfigurationRegistersAloneUnlessToldOtherwise) {
   board.state->values["SETUP"] = 1;
   EXPECT_EQ(withDevice(), ExitCode::ok);
   EXPECT_EQ(withDevice({}, true), ExitCode::general);
   EXPECT_EQ(board.out, "SETUP       0x00000001  0x00000000\n");
}

TEST_F(Diff, ComparesWhatMatchesThePatterns) {
   board.state->values = {{"ID", 5}, {"FAN[1]_PWM", 1}};
   EXPECT_EQ(withDevice({"FAN[0]*"}), ExitCode::ok);
   EXPECT_THAT(board.journal(), ElementsAre("read FAN[0]_PWM"));
   EXPECT_EQ(withDevice({"NOPE", "ID"}), ExitCode::unknownName);
   EXPECT_EQ(board.out, "ID  0x0005  0x0000\n");
}

TEST_F(Diff, AFailedReadIsNoDifferenceAndTheOthersAreCompared) {
   board.state->readFaults["ID"] = fail;
   other->state->readFaults["FAN[0]_PWM"] = fail;
   board.state->values["FAN[1]_PWM"] = 1;
   EXPECT_EQ(withDevice(), ExitCode::deviceError);
   EXPECT_EQ(board.out, "FAN[1]_PWM  0x01  0x00\n");
   EXPECT_THAT(board.err, testing::HasSubstr("cannot read ID: no acknowledge"));
   EXPECT_THAT(board.err, testing::HasSubstr("the other device: cannot read FAN[0]_PWM"));
   EXPECT_THAT(board.err, testing::HasSubstr("1 of 1 registers differ"));
}

TEST_F(Diff, ARegisterThatTheOtherListLacksIsReported) {
   other.reset();
   other = std::make_unique<Board>("0,ID,id,false,16\n");
   EXPECT_EQ(withDevice({"ID", "FAN[0]_PWM"}), ExitCode::unknownName);
   EXPECT_EQ(board.err, "tarnreg: error: the other device has no register FAN[0]_PWM\n");
}

TEST_F(Diff, ADumpIsComparedRegisterByRegisterOfItsOwn) {
   board.state->values = {{"ID", 5}, {"SETUP", 1}};
   EXPECT_EQ(withDump("SETUP  0x1\nID  4\n"), ExitCode::general);
   EXPECT_EQ(board.out, "ID     0x0005  0x0004\n");
   EXPECT_EQ(board.err, "tarnreg: error: 1 of 2 registers differ\n");
   EXPECT_THAT(board.journal(), ElementsAre("read SETUP", "read ID"));
   EXPECT_EQ(withDump("ID  5\n"), ExitCode::ok);
   EXPECT_EQ(withDump(""), ExitCode::ok);
}

TEST_F(Diff, WhatOnlyTheDumpOrOnlyTheListHasIsReportedAndNotRead) {
   EXPECT_EQ(withDump("NOPE  1\nID  0\n"), ExitCode::unknownName);
   EXPECT_EQ(board.err, "tarnreg: error: no register NOPE, which the dump has\n");
   EXPECT_THAT(board.journal(), ElementsAre("read ID"));
   board.journal().clear();
   EXPECT_EQ(withDump("ID  0\n", {"FAN[0]_PWM"}), ExitCode::unknownName);
   EXPECT_EQ(board.err, "tarnreg: error: the dump has no register FAN[0]_PWM\n");
   EXPECT_THAT(board.journal(), IsEmpty());
}

TEST_F(Diff, TheDocumentHasBothValues) {
   board.json = true;
   board.state->values["ID"] = 5;
   withDevice();
   ASSERT_THAT(board.document["registers"], SizeIs(1));
   EXPECT_EQ(board.document["registers"][0]["name"], "ID");
   EXPECT_EQ(board.document["registers"][0]["value"], 5);
   EXPECT_EQ(board.document["registers"][0]["other"], 0);
   EXPECT_EQ(board.document["errors"][0]["code"], "general");
   EXPECT_EQ(board.document["exitCode"], 1);
}

TEST_F(Diff, ADumpOfTheDeviceItselfIsEqualInBothForms) {
   board.state->values = {{"ID", 5}, {"FAN[1]_PWM", 200}};
   for (const bool json : {false, true}) {
      board.json = json;
      board.run([&](auto& report, auto&) { dumpRegisters(*board.device, {}, true, report); });
      const std::string saved = board.out;
      EXPECT_EQ(withDump(saved), ExitCode::ok) << saved;
   }
}

} // namespace
