#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/unit/tools/Board.h"
#include "tools/tarnreg/Verbs.h"

namespace {

using TarnReg::ExitCode;
using TarnReg::WriteOptions;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using TestSupport::Board;

const std::string lines = "0,ID,id,false,16\n"
                          "1,PWM[0:2],control,true,8\n"
                          "4,WORD,scratch,true,32\n"
                          "5,NONE,control,true,0\n"
                          "6,A=B,scratch,true,8\n";

const auto fail = [] { throw std::runtime_error("no acknowledge"); };

ExitCode write(Board& board, const std::vector<std::string>& assignments,
               const WriteOptions& options = {}) {
   return board.run([&](auto& report, auto& console) {
      writeRegisters(*board.device, assignments, options, console, report);
   });
}

WriteOptions dryRun() {
   WriteOptions options;
   options.dryRun = true;
   return options;
}
WriteOptions verify() {
   WriteOptions options;
   options.verify = true;
   return options;
}
WriteOptions confirm() {
   WriteOptions options;
   options.confirm = true;
   return options;
}
WriteOptions force() {
   WriteOptions options;
   options.force = true;
   return options;
}

TEST(WriteVerb, WritesInOrderAndShowsWhatWasWritten) {
   Board board(lines);
   EXPECT_EQ(write(board, {"WORD=0x1234", "PWM[0:1]=255", "A=B=0b11"}), ExitCode::ok);
   EXPECT_THAT(board.journal(),
               ElementsAre("write WORD", "write PWM[0]", "write PWM[1]", "write A=B"));
   EXPECT_EQ(board.out, "WORD    0x00001234\nPWM[0]  0xff\nPWM[1]  0xff\nA=B     0x03\n");
   EXPECT_EQ(board.err, "");
   EXPECT_EQ(board.state->values["WORD"], 0x1234U);
}

TEST(WriteVerb, NothingIsWrittenWhenOneAssignmentIsBad) {
   const std::pair<const char*, ExitCode> bad[] = {
      {"ID=1", ExitCode::refused},
      {"NOPE=1", ExitCode::unknownName},
      {"PWM[0]=256", ExitCode::usage},
      {"PWM[0]=-1", ExitCode::usage},
      {"WORD=4294967296", ExitCode::usage},
      {"WORD=", ExitCode::usage},
      {"WORD", ExitCode::usage},
      {"=1", ExitCode::usage},
      {"WORD=1x", ExitCode::usage},
      {"NONE=1", ExitCode::usage},
      {"PWM[2:0]=1", ExitCode::usage},
      {"*=1", ExitCode::refused},
   };
   for (const auto& [assignment, code] : bad) {
      Board board(lines);
      EXPECT_EQ(write(board, {"WORD=1", assignment, "PWM[1]=1"}), code) << assignment;
      EXPECT_THAT(board.journal(), IsEmpty()) << assignment;
      EXPECT_EQ(board.out, "") << assignment;
      EXPECT_THAT(board.err, testing::StartsWith("tarnreg: error: ")) << assignment;
   }
}

TEST(WriteVerb, EveryBadAssignmentIsReportedAndTheFirstDecidesTheCode) {
   Board board(lines);
   EXPECT_EQ(write(board, {"ID=1", "NOPE=1"}), ExitCode::refused);
   EXPECT_EQ(board.err, "tarnreg: error: ID is read-only; --force writes it all the same\n"
                        "tarnreg: error: no register NOPE; did you mean NONE?\n");
   EXPECT_EQ(write(board, {"NOPE=1", "ID=1"}), ExitCode::unknownName);
   EXPECT_THAT(board.journal(), IsEmpty());
}

TEST(WriteVerb, ForceWritesAReadOnlyRegister) {
   Board board(lines);
   EXPECT_EQ(write(board, {"ID=1"}, force()), ExitCode::ok);
   EXPECT_THAT(board.journal(), ElementsAre("write ID"));
}

TEST(WriteVerb, ForceDoesNotMakeAValueFit) {
   Board board(lines);
   EXPECT_EQ(write(board, {"ID=0x10000"}, force()), ExitCode::usage);
   EXPECT_THAT(board.journal(), IsEmpty());
}

TEST(WriteVerb, ADryRunTouchesNothing) {
   Board board(lines);
   EXPECT_EQ(write(board, {"PWM[*]=3"}, dryRun()), ExitCode::ok);
   EXPECT_THAT(board.journal(), IsEmpty());
   EXPECT_EQ(board.out, "PWM[0]  0x03\nPWM[1]  0x03\nPWM[2]  0x03\n");
   EXPECT_EQ(board.err, "tarnreg: note: dry run: nothing was written\n");
}

TEST(WriteVerb, ADryRunStillFindsBadAssignments) {
   Board board(lines);
   EXPECT_EQ(write(board, {"ID=1"}, dryRun()), ExitCode::refused);
   EXPECT_EQ(board.out, "");
}

TEST(WriteVerb, TheDocumentTellsADryRunFromAWrite) {
   Board board(lines);
   board.json = true;
   write(board, {"WORD=1"}, dryRun());
   EXPECT_EQ(board.document.at("dryRun"), true);
   EXPECT_EQ(board.document.at("registers").at(0).at("value"), 1);
   write(board, {"WORD=1"});
   EXPECT_EQ(board.document.at("dryRun"), false);
}

TEST(WriteVerb, ADeclinedQuestionTouchesNothingAndIsNoSuccess) {
   for (const char* answer : {"n\n", "\n", "", "no\n", "yess\n", "Yn", "q\n"}) {
      Board board(lines);
      board.answer = answer;
      EXPECT_EQ(write(board, {"WORD=1", "PWM[0]=1"}, confirm()), ExitCode::refused) << answer;
      EXPECT_THAT(board.journal(), IsEmpty());
      EXPECT_EQ(board.out, "");
      EXPECT_THAT(board.err, testing::StartsWith("Write WORD=0x1 and 1 more? [y/N] "));
      EXPECT_THAT(board.err, HasSubstr("tarnreg: error: declined: nothing was written\n"));
   }
}

TEST(WriteVerb, AConfirmedQuestionWrites) {
   for (const char* answer : {"y\n", "yes\n", "y"}) {
      Board board(lines);
      board.answer = answer;
      EXPECT_EQ(write(board, {"WORD=1"}, confirm()), ExitCode::ok) << answer;
      EXPECT_THAT(board.journal(), ElementsAre("write WORD"));
   }
}

TEST(WriteVerb, NoQuestionIsAskedForARefusedWrite) {
   Board board(lines);
   board.answer = "y\n";
   EXPECT_EQ(write(board, {"ID=1"}, confirm()), ExitCode::refused);
   EXPECT_THAT(board.err, testing::Not(HasSubstr("[y/N]")));
   EXPECT_THAT(board.journal(), IsEmpty());
}

TEST(WriteVerb, VerifyReadsBackBehindEachWrite) {
   Board board(lines);
   EXPECT_EQ(write(board, {"WORD=1", "PWM[0]=2"}, verify()), ExitCode::ok);
   EXPECT_THAT(board.journal(),
               ElementsAre("write WORD", "read WORD", "write PWM[0]", "read PWM[0]"));
}

TEST(WriteVerb, AReadBackMismatchFailsAndTheOthersAreWritten) {
   Board board(lines);
   board.state->readFaults["PWM[0]"] = [&] { board.state->values["PWM[0]"] = 9; };
   EXPECT_EQ(write(board, {"PWM[0:1]=2"}, verify()), ExitCode::readBackMismatch);
   EXPECT_EQ(board.err, "tarnreg: error: PWM[0] reads back as 0x9, not 0x2\n");
   EXPECT_EQ(board.state->values["PWM[1]"], 2U);
}

TEST(WriteVerb, VerifyComparesOnlyTheBitsThatCarryMeaning) {
   Board board(lines);
   board.state->readFaults["PWM[0]"] = [&] { board.state->values["PWM[0]"] = 0xABCDEF02; };
   EXPECT_EQ(write(board, {"PWM[0]=2"}, verify()), ExitCode::ok);
}

TEST(WriteVerb, AFailedReadBackIsADeviceErrorAndNotAMismatch) {
   Board board(lines);
   board.state->readFaults["WORD"] = fail;
   EXPECT_EQ(write(board, {"WORD=0xFFFFFFFF"}, verify()), ExitCode::deviceError);
}

TEST(WriteVerb, AFailedWriteIsNotReadBackAndTheOthersAreWritten) {
   Board board(lines);
   board.state->writeFaults["PWM[1]"] = fail;
   EXPECT_EQ(write(board, {"PWM[0:2]=2"}, verify()), ExitCode::deviceError);
   EXPECT_THAT(board.journal(), ElementsAre("write PWM[0]", "read PWM[0]", "write PWM[1]",
                                            "write PWM[2]", "read PWM[2]"));
   EXPECT_EQ(board.out, "PWM[0]  0x02\nPWM[2]  0x02\n");
}

TEST(WriteVerb, TheFirstFailureDecidesBetweenMismatchAndDeviceError) {
   Board board(lines);
   board.state->writeFaults["PWM[1]"] = fail;
   board.state->readFaults["PWM[0]"] = [&] { board.state->values["PWM[0]"] = 9; };
   EXPECT_EQ(write(board, {"PWM[0:1]=2"}, verify()), ExitCode::readBackMismatch);
   EXPECT_EQ(write(board, {"PWM[1]=2", "PWM[0]=2"}, verify()), ExitCode::deviceError);
}

TEST(WriteVerb, TheDocumentIsCompleteWhenWritesFail) {
   Board board(lines);
   board.json = true;
   board.state->writeFaults["WORD"] = fail;
   EXPECT_EQ(write(board, {"WORD=1", "PWM[0]=1"}), ExitCode::deviceError);
   EXPECT_EQ(board.document.at("registers").size(), 1U);
   EXPECT_EQ(board.document.at("errors").at(0).at("name"), "WORD");
   EXPECT_EQ(board.document.at("errors").at(0).at("code"), "device-error");
   EXPECT_EQ(board.document.at("exitCode"), 5);
}

} // namespace
