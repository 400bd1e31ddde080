#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>

#include "platform/hardware/SigbusException.h"
#include "tests/unit/tools/Board.h"

namespace {

using TarnReg::AccessError;
using TarnReg::ExitCode;
using testing::ElementsAre;
using testing::HasSubstr;
using TestSupport::Board;

const std::string lines = "0,A,status,true,32\n1,B,status,true,32\n";

/// The error that reading `name` ends with.
AccessError readError(Board& board, const std::string& name) {
   try {
      board.device->read(name);
   } catch (const AccessError& error) {
      return error;
   }
   ADD_FAILURE() << "reading " << name << " did not fail";
   return {ExitCode::ok, ""};
}

TEST(Device, AFailedReadSaysTheRegisterAndTheReason) {
   Board board(lines);
   board.state->readFaults["A"] = [] { throw std::runtime_error("no acknowledge"); };
   const AccessError error = readError(board, "A");
   EXPECT_STREQ(error.what(), "cannot read A: no acknowledge");
   EXPECT_EQ(error.code(), ExitCode::deviceError);
}

TEST(Device, AFailedWriteSaysTheRegisterAndTheReason) {
   Board board(lines);
   board.state->writeFaults["A"] = [] { throw std::runtime_error("no acknowledge"); };
   try {
      board.device->write("A", 1);
      FAIL();
   } catch (const AccessError& error) {
      EXPECT_STREQ(error.what(), "cannot write A: no acknowledge");
   }
}

TEST(Device, ARegisterThatHoldsAllOnesIsNoFailure) {
   Board board(lines);
   board.state->values["A"] = 0xFFFFFFFF;
   EXPECT_EQ(board.device->read("A"), 0xFFFFFFFF);
}

TEST(Device, AFailureDoesNotStickToTheNextAccess) {
   Board board(lines);
   board.state->readFaults["A"] = [] { throw std::runtime_error("gone"); };
   readError(board, "A");
   EXPECT_EQ(board.device->read("B"), 0U);
   board.state->readFaults.clear();
   EXPECT_EQ(board.device->read("A"), 0U);
}

TEST(Device, ATimeoutHasItsOwnCode) {
   Board board(lines);
   board.state->readFaults["A"] = [] {
      errno = ETIMEDOUT;
      throw std::runtime_error("no answer");
   };
   const AccessError error = readError(board, "A");
   EXPECT_EQ(error.code(), ExitCode::timeout);
   EXPECT_STREQ(error.what(), "cannot read A: no answer");
}

TEST(Device, AnOldErrnoIsNotTakenForATimeout) {
   Board board(lines);
   board.state->readFaults["A"] = [] { throw std::runtime_error("no acknowledge"); };
   errno = ETIMEDOUT;
   EXPECT_EQ(readError(board, "A").code(), ExitCode::deviceError);
}

TEST(Device, AVanishedDeviceIsAFailedAccess) {
   Board board(lines);
   board.state->readFaults["A"] = [] { throw Hardware::SigbusException(); };
   EXPECT_THAT(readError(board, "A").what(), HasSubstr("SIGBUS"));
}

TEST(Device, AnExceptionThatTheLibraryPassesOnIsAFailedAccessToo) {
   Board board(lines);
   board.state->readFaults["A"] = [] { throw std::logic_error("broken transport"); };
   EXPECT_STREQ(readError(board, "A").what(), "cannot read A: broken transport");
}

TEST(Device, ANameThatLooksLikeTheMessageDoesNotConfuseTheReason) {
   Board board("0,X': Y,status,true,8\n");
   board.state->readFaults["X': Y"] = [] { throw std::runtime_error("a 'b': c"); };
   EXPECT_STREQ(readError(board, "X': Y").what(), "cannot read X': Y: a 'b': c");
}

TEST(Device, FailuresThatAreNotTracedStillFail) {
   Board board(lines);
   const std::string levels = Platform::Trace::levels();
   Platform::Trace::levelsAre("*=off");
   board.state->readFaults["A"] = [] { throw std::runtime_error("gone"); };
   const AccessError error = readError(board, "A");
   Platform::Trace::levelsAre(levels);
   EXPECT_THAT(error.what(), HasSubstr("cannot read A: "));
}

TEST(Device, RegistersComeInOrderOfAddressAndThenOfName) {
   Board board("9,Z,id,true,8\n1,M,id,true,8\n9,B,id,true,8\n");
   std::vector<std::string> names;
   for (const auto* record : board.device->registers()) {
      names.push_back(record->name);
   }
   EXPECT_THAT(names, ElementsAre("M", "B", "Z"));
}

} // namespace
