#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Failure.h"
#include "tests/unit/tools/Board.h"
#include "tools/tarnreg/Verbs.h"

namespace {

using TarnReg::ExitCode;
using TarnRegFile::ProblemSeverity;
using testing::HasSubstr;
using TestSupport::Board;
using TestSupport::Failure;
using TestSupport::TempDir;

const std::string header = "number,name,type,writeable,width\n";

class CheckVerb : public testing::Test {
protected:
   ExitCode check(const std::string& lines, ProblemSeverity failOn) {
      const std::string path = dir.write("l.csv", header + lines);
      return board.run([&](auto& report, auto&) { checkFile(path, failOn, report); });
   }

   TempDir dir;
   Board board{""};
};

TEST_F(CheckVerb, AGoodListSaysNothing) {
   EXPECT_EQ(check("0,A,id,true,8\n", ProblemSeverity::info), ExitCode::ok);
   EXPECT_EQ(board.out + board.err, "");
}

TEST_F(CheckVerb, FailsFromTheChosenSeverityOn) {
   const std::string info = "0,A,id,true,8,x\n";
   const std::string warning = "0,A,what,true,8\n";
   const std::string error = "0,A,id,true,33\n";
   EXPECT_EQ(check(info, ProblemSeverity::info), ExitCode::general);
   EXPECT_EQ(check(info, ProblemSeverity::warning), ExitCode::ok);
   EXPECT_EQ(check(warning, ProblemSeverity::warning), ExitCode::general);
   EXPECT_EQ(check(warning, ProblemSeverity::error), ExitCode::ok);
   EXPECT_EQ(check(error, ProblemSeverity::error), ExitCode::general);
   EXPECT_THAT(board.err, HasSubstr("has 1 problem of severity error or above"));
}

TEST_F(CheckVerb, EachProblemIsALineWithItsPlace) {
   EXPECT_EQ(check("0,A,id,true,33\n0,B,id,yes,8\n", ProblemSeverity::error), ExitCode::general);
   const std::string path = dir.path("l.csv");
   EXPECT_EQ(board.out, path + ":2:13: error: Unsupported register width: 33 is above 32\n" + path +
                           ":3:8: warning: writeable word 'yes' makes the register writable; only "
                           "'false' makes it read-only\n");
}

TEST_F(CheckVerb, TheDocumentHasThePlaceInMembers) {
   board.json = true;
   check("0,A,id,true,33\n", ProblemSeverity::error);
   const auto& problem = board.document.at("registers").at(0);
   EXPECT_EQ(problem.at("file"), dir.path("l.csv"));
   EXPECT_EQ(problem.at("line"), 2);
   EXPECT_EQ(problem.at("column"), 13);
   EXPECT_EQ(problem.at("severity"), "error");
   EXPECT_EQ(problem.at("text"), "Unsupported register width: 33 is above 32");
}

TEST_F(CheckVerb, HostileFieldsAreEscaped) {
   check("0,A,\x1b[2J,\xc2\x9b,8\n", ProblemSeverity::error);
   EXPECT_THAT(board.out, HasSubstr("'\\x1b[2J'"));
   EXPECT_THAT(board.out, testing::Not(HasSubstr("\x1b")));
   EXPECT_THAT(board.out, testing::Not(HasSubstr("\xc2\x9b")));
}

TEST_F(CheckVerb, AFileThatIsNotThereIsAnError) {
   EXPECT_EQ(Failure([&] {
                board.run([&](auto& report, auto&) {
                   checkFile("/no/such", ProblemSeverity::error, report);
                });
             }),
             Failure::system(ENOENT, "Error opening CSV file /no/such"));
}

} // namespace
