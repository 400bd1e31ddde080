#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/unit/tools/Board.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/Verbs.h"

namespace {

using TarnReg::ExitCode;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using TestSupport::Board;

const std::string lines = "0,A,scratch,true,32\n1,R[0:1],status,false,8\n";

/// Calls, and takes a Failure for what the command makes of it.
ExitCode call(Board& board, const std::string& operation,
              const std::vector<std::string>& arguments) {
   return board.run([&](auto& report, auto&) {
      try {
         callOperation(*board.device, operation, arguments, report);
      } catch (const TarnReg::Failure& failure) {
         report.failure(failure.code(), failure.what());
      }
   });
}

ExitCode describe(Board& board, const std::string& type) {
   return board.run([&](auto& report, auto&) {
      try {
         TarnReg::describeType(type, report);
      } catch (const TarnReg::Failure& failure) {
         report.failure(failure.code(), failure.what());
      }
   });
}

TEST(CallVerb, PrintsTheResult) {
   Board board(lines);
   board.state->values["A"] = 42;
   EXPECT_EQ(call(board, "regRead", {"A"}), ExitCode::ok);
   EXPECT_EQ(board.out, "42\n");
   EXPECT_EQ(call(board, "getRegArraySize", {"R[1]"}), ExitCode::ok);
   EXPECT_EQ(board.out, "2\n");
}

TEST(CallVerb, AnOperationWithoutResultPrintsNothing) {
   Board board(lines);
   EXPECT_EQ(call(board, "regWrite", {"A", "0x10"}), ExitCode::ok);
   EXPECT_EQ(board.out, "");
   EXPECT_EQ(board.state->values["A"], 16U);
}

TEST(CallVerb, AFailedAccessIsADeviceErrorAndNoValue) {
   Board board(lines);
   board.state->readFaults["A"] = [] { throw std::runtime_error("no acknowledge"); };
   EXPECT_EQ(call(board, "regRead", {"A"}), ExitCode::deviceError);
   EXPECT_EQ(board.out, "");
   EXPECT_THAT(board.err, HasSubstr("no acknowledge"));
}

TEST(CallVerb, ADumpThatFailsIsADeviceError) {
   Board board(lines);
   board.state->readFaults["A"] = [] { throw std::runtime_error("no acknowledge"); };
   testing::internal::CaptureStderr();
   EXPECT_EQ(call(board, "dumpAll", {}), ExitCode::deviceError);
   testing::internal::GetCapturedStderr();
}

TEST(CallVerb, AnUnknownRegisterIsToldWithoutAnAccess) {
   Board board(lines);
   EXPECT_EQ(call(board, "regRead", {"AA"}), ExitCode::unknownName);
   EXPECT_EQ(board.err, "tarnreg: error: no register AA; did you mean A?\n");
   EXPECT_THAT(board.journal(), IsEmpty());
   EXPECT_EQ(call(board, "hasRegName", {"AA"}), ExitCode::ok);
   EXPECT_EQ(board.out, "false\n");
   EXPECT_EQ(call(board, "regAddrToName", {"99"}), ExitCode::unknownName);
}

TEST(CallVerb, AnUnknownOperationIsAnUnknownName) {
   Board board(lines);
   EXPECT_EQ(call(board, "regread", {"A"}), ExitCode::unknownName);
   EXPECT_THAT(board.err, HasSubstr("describe TransportMethod"));
}

TEST(CallVerb, BadArgumentsAreAUsageErrorWithoutAnAccess) {
   Board board(lines);
   EXPECT_EQ(call(board, "regRead", {}), ExitCode::usage);
   EXPECT_EQ(call(board, "regRead", {"A", "B"}), ExitCode::usage);
   EXPECT_EQ(call(board, "regWrite", {"A", "-1"}), ExitCode::usage);
   EXPECT_EQ(call(board, "regWrite", {"A", "4294967296"}), ExitCode::usage);
   EXPECT_THAT(board.journal(), IsEmpty());
}

TEST(CallVerb, ACollectionIsPrintedElementByElement) {
   Board board(lines);
   EXPECT_EQ(call(board, "regList", {}), ExitCode::ok);
   EXPECT_THAT(board.out, HasSubstr("reg[0]="));
   EXPECT_THAT(board.out, HasSubstr("reg[2]="));
   board.json = true;
   call(board, "regList", {});
   EXPECT_EQ(board.document.at("registers").size(), 3U);
   EXPECT_EQ(board.document.at("registers").at(1).at("key"), "1");
}

TEST(DescribeVerb, ListsTheTypesOrDescribesOne) {
   Board board("");
   EXPECT_EQ(describe(board, ""), ExitCode::ok);
   EXPECT_THAT(board.out, HasSubstr("TarnRegFile::TransportMethod\n"));
   EXPECT_EQ(describe(board, "TransportMethod"), ExitCode::ok);
   EXPECT_THAT(board.out, HasSubstr("operation regRead(regName: String) -> U32\n"));
   const std::string shortName = board.out;
   EXPECT_EQ(describe(board, "TarnRegFile::TransportMethod"), ExitCode::ok);
   EXPECT_EQ(board.out, shortName);
   EXPECT_EQ(describe(board, "Method"), ExitCode::unknownName);
   EXPECT_EQ(board.out, "");
}

TEST(DescribeVerb, TheDocumentHasAttributesAndOperations) {
   Board board("");
   board.json = true;
   describe(board, "RegList");
   const auto& type = board.document.at("registers").at(0);
   EXPECT_EQ(type.at("name"), "TarnRegFile::RegList");
   EXPECT_EQ(type.at("base"), "Platform::Node");
   EXPECT_EQ(type.at("attributes").at(0).at("key"), "U32");
   EXPECT_EQ(type.at("operations").at(0).at("arguments").at(0).at("name"), "address");
   EXPECT_EQ(type.at("operations").at(0).at("result"), "void");
}

} // namespace
