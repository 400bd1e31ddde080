#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "TarnRegFile/RegisterFileChecker.h"
#include "TarnRegFile/RegisterFileHelper.h"
#include "tests/support/Failure.h"
#include "tests/support/TempDir.h"

namespace TarnRegFile {

bool operator==(const RegisterFileProblem& a, const RegisterFileProblem& b) {
   return a.line == b.line && a.column == b.column && a.severity == b.severity && a.text == b.text;
}

void PrintTo(const RegisterFileProblem& problem, std::ostream* out) {
   *out << problem.line << ':' << problem.column << ": " << Platform::enumString(problem.severity)
        << ": " << problem.text;
}

} // namespace TarnRegFile

namespace {

using TarnRegFile::ProblemSeverity;
using TarnRegFile::RegisterFileProblem;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::Failure;
using TestSupport::TempDir;

using Problem = RegisterFileProblem;
using Problems = std::vector<RegisterFileProblem>;

constexpr ProblemSeverity info = ProblemSeverity::info;
constexpr ProblemSeverity warning = ProblemSeverity::warning;
constexpr ProblemSeverity error = ProblemSeverity::error;

const std::string header = "number,name,type,writeable,width\n";

class RegisterFileChecker : public testing::Test {
protected:
   Problems content(const std::string& text) {
      return TarnRegFile::RegisterFileChecker().check(dir.write("list.csv", text));
   }
   Problems lines(const std::string& text) { return content(header + text); }

   TempDir dir;
};

TEST_F(RegisterFileChecker, AGoodListHasNoProblem) {
   EXPECT_THAT(lines(""), IsEmpty());
   EXPECT_THAT(lines("0,A,id,true,32\r\n\r\n\n1,B[0:3],status,false,0\n7,C[2],led,true,1"),
               IsEmpty());
   EXPECT_THAT(content("number,name,type,writeable,width,comment\n0,A,id,true,8\n"), IsEmpty());
   EXPECT_THAT(content("number,name,type,writeable,width"), IsEmpty());
   EXPECT_THAT(lines("007,A,id,true,08\n"), IsEmpty()) << "digits are digits";
}

TEST_F(RegisterFileChecker, TellsAWrongHeader) {
   const std::string text =
      "Wrong CSV header: the first line must begin with 'number,name,type,writeable,width'";
   EXPECT_THAT(content(""), ElementsAre(Problem{1, 1, error, text}));
   EXPECT_THAT(content("number,name"), ElementsAre(Problem{1, 1, error, text}));
   EXPECT_THAT(content("Number,name,type,writeable,width\n"),
               ElementsAre(Problem{1, 1, error, text}));
   EXPECT_THAT(content("\xef\xbb\xbf" + header),
               ElementsAre(Problem{1, 1, error, text + ", and no byte order mark before it"}));
}

TEST_F(RegisterFileChecker, GoesOnBehindAWrongHeader) {
   const Problems problems = content("nummer,name,type,writeable,width\n0,A,id,true,33\n");
   ASSERT_EQ(problems.size(), 2U);
   EXPECT_EQ(problems[1], (Problem{2, 13, error, "Unsupported register width: 33 is above 32"}));
}

TEST_F(RegisterFileChecker, TellsEveryBadLineAndNotOnlyTheFirst) {
   EXPECT_THAT(lines("x,A,id,true,8\n\n0,B,id,true,8\n1,C,id,true,99\n"),
               ElementsAre(Problem{2, 1, error, "stoi: 'x' is no decimal number"},
                           Problem{5, 13, error, "Unsupported register width: 99 is above 32"}));
}

TEST_F(RegisterFileChecker, TellsANumberThatIsNone) {
   EXPECT_THAT(lines("x,A,id,true,8\n"),
               ElementsAre(Problem{2, 1, error, "stoi: 'x' is no decimal number"}));
   EXPECT_THAT(lines(",A,id,true,8\n"),
               ElementsAre(Problem{2, 1, error, "stoi: '' is no decimal number"}));
   EXPECT_THAT(lines("   \n"),
               ElementsAre(Problem{2, 1, error, "stoi: '   ' is no decimal number"}));
   EXPECT_THAT(lines("# A comment\n"),
               ElementsAre(Problem{2, 1, error,
                                   "stoi: '# A comment' is no decimal number; there are no "
                                   "comments in a register list"}));
   EXPECT_THAT(
      lines("2147483648,A,id,true,8\n"),
      ElementsAre(Problem{2, 1, error, "stoi: number '2147483648' does not fit in 32 bits"}));
   EXPECT_THAT(lines("2147483647,A,id,true,8\n"), IsEmpty());
}

TEST_F(RegisterFileChecker, TellsANegativeNumber) {
   EXPECT_THAT(lines("-1,A,id,true,8\n"),
               ElementsAre(Problem{2, 1, error,
                                   "Invalid address token: register number -1 is not within 0 to "
                                   "4294967295"}));
}

TEST_F(RegisterFileChecker, TellsANumberThatIsReadInPart) {
   const auto text = [](const std::string& field, const std::string& number) {
      return fmt::format("number '{}' is read as {}; only decimal digits count", field, number);
   };
   EXPECT_THAT(lines("0x10,A,id,true,8\n"), ElementsAre(Problem{2, 1, warning, text("0x10", "0")}));
   EXPECT_THAT(lines("12abc,A,id,true,8\n"),
               ElementsAre(Problem{2, 1, warning, text("12abc", "12")}));
   EXPECT_THAT(lines(" 5,A,id,true,8\n"), ElementsAre(Problem{2, 1, warning, text(" 5", "5")}));
   EXPECT_THAT(lines("+5,A,id,true,8\n"), ElementsAre(Problem{2, 1, warning, text("+5", "5")}));
   EXPECT_THAT(lines("-0,A,id,true,8\n"), ElementsAre(Problem{2, 1, warning, text("-0", "0")}));
}

TEST_F(RegisterFileChecker, TellsABadWidth) {
   const auto text = [](const std::string& field) {
      return fmt::format("Invalid width token: '{}' is not a number of decimal digits only", field);
   };
   EXPECT_THAT(lines("0,A,id,true, 8\n"), ElementsAre(Problem{2, 13, error, text(" 8")}));
   EXPECT_THAT(lines("0,A,id,true,8 \n"), ElementsAre(Problem{2, 13, error, text("8 ")}));
   EXPECT_THAT(lines("0,A,id,true,0x8\n"), ElementsAre(Problem{2, 13, error, text("0x8")}));
   EXPECT_THAT(lines("0,A,id,true,-1\n"), ElementsAre(Problem{2, 13, error, text("-1")}));
   EXPECT_THAT(lines("0,A,id,true,4294967296\n"),
               ElementsAre(Problem{2, 13, error, text("4294967296")}));
   EXPECT_THAT(lines("0,A,id,true,,x\n"),
               ElementsAre(Problem{2, 14, info, "fields after the fifth are ignored"},
                           Problem{2, 13, error, text("")}));
   EXPECT_THAT(lines("0,A,id,true,33\n"),
               ElementsAre(Problem{2, 13, error, "Unsupported register width: 33 is above 32"}));
   EXPECT_THAT(
      lines("0,A,id,true,4294967295\n"),
      ElementsAre(Problem{2, 13, error, "Unsupported register width: 4294967295 is above 32"}));
}

TEST_F(RegisterFileChecker, TellsABadRange) {
   const std::string bound =
      "stoi: a bound of an array range is no decimal number that fits in 32 bits";
   EXPECT_THAT(lines("0,A[x:1],id,true,8\n"), ElementsAre(Problem{2, 3, error, bound}));
   EXPECT_THAT(lines("0,A[0:],id,true,8\n"), ElementsAre(Problem{2, 3, error, bound}));
   EXPECT_THAT(lines("0,A[0:9999999999],id,true,8\n"), ElementsAre(Problem{2, 3, error, bound}));
   EXPECT_THAT(lines("0,A[3:1],id,true,8\n"),
               ElementsAre(Problem{2, 3, error,
                                   "incorrect sub-array index values: the lower bound of a range "
                                   "is above the upper; loading this stops the process"}));
   EXPECT_THAT(lines("0,A,id,[2:1],8\n").front().severity, error) << "in any field";
   EXPECT_THAT(lines("0,A[2],id,true,8\n1,B[[0:1]],id,true,8\n"), IsEmpty());
}

TEST_F(RegisterFileChecker, TellsARangeThatDefinesTooMuch) {
   const Problem width{2, 24, error, "Unsupported register width: 99 is above 32"};
   EXPECT_THAT(lines("0,A[0:1048575],id,true,99\n"), ElementsAre(width)) << "just fits";
   const Problems problems = lines("0,A[0:1048576],id,true,8\n1,B,id,true,8\n");
   ASSERT_EQ(problems.size(), 1U);
   EXPECT_EQ(problems[0].line, 2U);
   EXPECT_EQ(problems[0].column, 3U);
   EXPECT_EQ(problems[0].severity, error);
   EXPECT_THAT(problems[0].text,
               testing::StartsWith("Register array expands to more than 1048576 registers"));
}

TEST_F(RegisterFileChecker, TellsOnceThatTheFileDefinesTooMuch) {
   std::string text;
   for (int i = 0; i < 4; ++i) {
      // Counted, but refused before any of it is remembered.
      text += "0,A[0:1048575],id,true,99\n";
   }
   text += "0,B,id,true,8\n1,C,id,true,8\n2,D,id,true,8\n";
   const Problems problems = lines(text);
   ASSERT_EQ(problems.size(), 5U);
   EXPECT_EQ(problems[3].text, "Unsupported register width: 99 is above 32");
   EXPECT_EQ(problems[4],
             (Problem{6, 3, error,
                      "up to this line the file defines more than 4194304 registers, or their "
                      "lines expand to more than 1073741824 bytes"}));
}

TEST_F(RegisterFileChecker, TellsMissingFields) {
   const auto text = [](int found, const std::string& field) {
      return fmt::format("Incomplete CSV fields. Found {} fields only. From {} on the values of "
                         "the record before are taken",
                         found, field);
   };
   EXPECT_THAT(lines("0,A,id,true,8\n1,B,id,true\n"),
               ElementsAre(Problem{3, 12, warning, text(4, "width")}));
   EXPECT_THAT(lines("0,A,id,true,8\n1,B,id,true,\n"),
               ElementsAre(Problem{3, 13, warning, text(4, "width")}));
   EXPECT_THAT(lines("0,A,id,true,8\n1,B,id\n"),
               ElementsAre(Problem{3, 7, warning, text(3, "writeable")}));
   EXPECT_THAT(lines("0,A,id,true,8\n1,B\n"), ElementsAre(Problem{3, 4, warning, text(2, "type")}));
   EXPECT_THAT(lines("0,A,id,true,8\n1\n"),
               ElementsAre(Problem{3, 2, warning, text(1, "name")},
                           Problem{3, 2, warning,
                                   "name 'A' is taken on line 2; this record replaces that one"}));
}

TEST_F(RegisterFileChecker, TellsMissingFieldsOfAnArrayOnce) {
   EXPECT_EQ(lines("0,A[0:9],id,true\n").size(), 1U);
}

TEST_F(RegisterFileChecker, TellsAnUnknownType) {
   EXPECT_THAT(lines("0,A,what,true,8\n"),
               ElementsAre(Problem{2, 5, warning, "Unknown register type 'what'"}));
   EXPECT_THAT(lines("0,A,,true,8\n"),
               ElementsAre(Problem{2, 5, warning, "Unknown register type ''"}));
   EXPECT_THAT(lines("0,A, id,true,8\n"),
               ElementsAre(Problem{2, 5, warning, "Unknown register type ' id'"}));
   EXPECT_THAT(lines("0,A,\x1b[2J,true,8\n"),
               ElementsAre(Problem{2, 5, warning, "Unknown register type '\\x1b[2J'"}));
   EXPECT_THAT(lines("0,A," + std::string(70, 'x') + ",true,8\n"),
               ElementsAre(Problem{2, 5, warning,
                                   "Unknown register type '" + std::string(60, 'x') + "'..."}));
}

TEST_F(RegisterFileChecker, TellsAnOddWriteableWord) {
   const auto text = [](const std::string& word) {
      return fmt::format("writeable word '{}' makes the register writable; only 'false' makes it "
                         "read-only",
                         word);
   };
   EXPECT_THAT(lines("0,A,id,False,8\n"), ElementsAre(Problem{2, 8, warning, text("False")}));
   EXPECT_THAT(lines("0,A,id,,8\n"), ElementsAre(Problem{2, 8, warning, text("")}));
   EXPECT_THAT(lines("0,A,id, false,8\n"), ElementsAre(Problem{2, 8, warning, text(" false")}));
}

TEST_F(RegisterFileChecker, TellsFieldsAfterTheFifthOnce) {
   EXPECT_THAT(lines("0,A,id,true,8,x,y,z\n"),
               ElementsAre(Problem{2, 15, info, "fields after the fifth are ignored"}));
   EXPECT_THAT(lines("0,A,id,true,8,\n"), IsEmpty());
}

TEST_F(RegisterFileChecker, TellsAnOddName) {
   EXPECT_THAT(lines("0,,id,true,8\n"),
               ElementsAre(Problem{2, 3, warning, "the register has no name"}));
   EXPECT_THAT(lines("0, A,id,true,8\n"),
               ElementsAre(Problem{2, 3, warning,
                                   "name ' A' begins or ends with a blank, which belongs to the "
                                   "name"}));
   EXPECT_THAT(lines("0,A\t,id,true,8\n"),
               ElementsAre(Problem{2, 3, warning,
                                   "name 'A\\t' begins or ends with a blank, which belongs to the "
                                   "name"},
                           Problem{2, 3, warning, "name 'A\\t' holds a control character"}));
   EXPECT_THAT(lines("0,A\x1b,id,true,8\n"),
               ElementsAre(Problem{2, 3, warning, "name 'A\\x1b' holds a control character"}));
}

TEST_F(RegisterFileChecker, TellsADuplicateName) {
   EXPECT_THAT(
      lines("0,A,id,true,8\n1,A,id,true,8\n2,A,id,true,8\n"),
      ElementsAre(
         Problem{3, 3, warning, "name 'A' is taken on line 2; this record replaces that one"},
         Problem{4, 3, warning, "name 'A' is taken on line 3; this record replaces that one"}));
   EXPECT_THAT(lines("0,A[1],id,true,8\n5,A[0:9],id,true,8\n"),
               ElementsAre(Problem{3, 3, warning,
                                   "name 'A[1]' is taken on line 2; this record replaces that "
                                   "one"}));
   EXPECT_THAT(lines("0,A,id,[0:2],8\n").back(),
               (Problem{2, 3, warning,
                        "name 'A' is taken on line 2; this record replaces that "
                        "one"}))
      << "a range in another field repeats the name";
}

TEST_F(RegisterFileChecker, TellsADuplicateNumber) {
   EXPECT_THAT(lines("0,A,id,true,8\n0,B,id,true,8\n"),
               ElementsAre(Problem{3, 1, warning,
                                   "number 0 is taken by 'A' on line 2; the address now names "
                                   "'B'"}));
   EXPECT_THAT(lines("0,A[0:4],id,true,8\n3,B[0:4],id,true,8\n"),
               ElementsAre(Problem{3, 1, warning,
                                   "number 3 is taken by 'A[3]' on line 2; the address now names "
                                   "'B[0]'"}));
}

TEST_F(RegisterFileChecker, ARecordRepeatedIsADuplicateNameOnly) {
   EXPECT_THAT(lines("0,A,id,true,8\n0,A,id,true,8\n"),
               ElementsAre(Problem{3, 3, warning,
                                   "name 'A' is taken on line 2; this record replaces that one"}));
}

TEST_F(RegisterFileChecker, LongFieldsAreNotShownInFull) {
   const Problems problems = lines(std::string(100000, 'x') + "\n");
   ASSERT_EQ(problems.size(), 1U);
   EXPECT_LT(problems[0].text.size(), 200U);
}

TEST_F(RegisterFileChecker, WhatCannotBeOpenedIsAnException) {
   const auto check = [](const std::string& path) {
      return Failure([&] { TarnRegFile::RegisterFileChecker().check(path); });
   };
   EXPECT_EQ(check("/no/such"), Failure::system(ENOENT, "Error opening CSV file /no/such"));
   const auto refusal = [](int code, const std::string& path) {
      return Failure("errno exception", code,
                     Failure::system(code, "Error opening CSV file " + path).text);
   };
   EXPECT_EQ(check(dir.path()), refusal(EISDIR, dir.path()));
   EXPECT_EQ(check("/dev/zero"), refusal(EINVAL, "/dev/zero"));
}

TEST_F(RegisterFileChecker, BinaryFilesAreAWrongHeader) {
   EXPECT_EQ(content(std::string(1 << 20, '\0')).size(), 1U);
   EXPECT_EQ(content(std::string("\0abc", 4)).size(), 1U);
}

TEST_F(RegisterFileChecker, ReadsAPipe) {
   const std::string path = dir.path("pipe");
   ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
   const auto check = [&](const std::string& text) {
      std::thread writer([&] { std::ofstream(path) << text; });
      Problems problems = TarnRegFile::RegisterFileChecker().check(path);
      writer.join();
      return problems;
   };
   EXPECT_THAT(check(header + "0,A,id,true,8\n"), IsEmpty());
   EXPECT_EQ(check(header + "0,A,id,true,33\n").size(), 1U);
}

TEST_F(RegisterFileChecker, TheStoppingLineIsTheFirstWithReversedBounds) {
   const auto stopping = [&](const std::string& text) {
      return TarnRegFile::RegisterFileChecker::stoppingLine(dir.write("s.csv", text));
   };
   EXPECT_EQ(stopping(header + "0,A[0:3],id,true,8\n\n1,B[3:1],id,true,8\n2,C[2:1],id,true,8\n"),
             4U);
   EXPECT_EQ(stopping(header + "0,A[0:3],id,true,8\n"), 0U);
   EXPECT_EQ(stopping(header + "0[3:1],A,id,true,8\n"), 0U) << "the number is not expanded";
   EXPECT_EQ(stopping(header + "0,A,id,true,8,[3:1]\n"), 0U) << "nor is what is ignored";
   EXPECT_EQ(stopping("wrong\n0,B[3:1],id,true,8\n"), 0U) << "the header fails first";
   EXPECT_EQ(TarnRegFile::RegisterFileChecker::stoppingLine(dir.path()), 0U);
   EXPECT_EQ(TarnRegFile::RegisterFileChecker::stoppingLine("/dev/zero"), 0U);
   EXPECT_EQ(TarnRegFile::RegisterFileChecker::stoppingLine("/no/such"), 0U);
}

/// What loading a file does to the process that does it.
enum class Load { works, throws, stops };

/// Loads in this process; only for files that do not stop it.
Load load(const std::string& path) {
   try {
      TarnRegFile::regFileHelperFactory("h")->parseCsv(path, 4);
      return Load::works;
   } catch (const std::exception&) {
      return Load::throws;
   }
}

Load loadInChild(const std::string& path) {
   const pid_t child = ::fork();
   if (child == 0) {
      // Neither a core file nor the assertion's text among the test's output.
      const rlimit none{0, 0};
      ::setrlimit(RLIMIT_CORE, &none);
      ::close(STDERR_FILENO);
      ::signal(SIGABRT, SIG_DFL);
      ::_exit(load(path) == Load::works ? 0 : 1);
   }
   int status = 0;
   ::waitpid(child, &status, 0);
   if (WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) {
      return Load::stops;
   }
   return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? Load::works : Load::throws;
}

/// Small lists that are mostly right, with every quirk of the format among their parts.
class RandomList {
public:
   explicit RandomList(unsigned seed) : _random(seed) {}

   std::string next() {
      std::string text =
         _chance(20) ? _pick({"", "Number,name\n", "\xef\xbb\xbf" + header, "\n"}) : header;
      for (std::size_t i = _below(4); i > 0; --i) {
         text += _line();
      }
      for (std::size_t i = _chance(2) ? 0 : _below(3); i > 0; --i) {
         _mutate(text);
      }
      return text;
   }

private:
   std::size_t _below(std::size_t n) { return _random() % n; }
   bool _chance(std::size_t oneIn) { return _below(oneIn) == 0; }
   std::string _pick(const std::vector<std::string>& parts) { return parts[_below(parts.size())]; }

   std::string _line() {
      if (_chance(15)) {
         return _pick({"\n", "\r\n", " \n", "#x\n", "5\n", "5,\n", ",\n"});
      }
      const std::vector<std::string> fields = {
         _chance(4) ? _pick({"0x10", "-1", "-0", "+3", " 7", "2147483647", "2147483648", "x", "",
                             "12a", "1[0:1]"})
                    : std::to_string(_below(20)),
         _chance(3)
            ? _pick({"", "A[0:3]", "B[2]", "[0:1][0:1]", "C[1:0]", "D[x:1]", "E[0:", "]F[",
                     "G[[0:1]]", "H[-2:1]", "I[0:0]", "J[:]", "K[0:99999999]", " L", "[5:1]]"})
            : _pick({"A", "B", "C"}),
         _chance(5) ? _pick({"", "what", "T[0:1]", "T[3:2]", " id"}) : "id",
         _chance(5) ? _pick({"", "False", "[0:1]", "[1:0]", "false "}) : _pick({"true", "false"}),
         _chance(4) ? _pick({"", "33", "32", "0", "[0:1]", "[1]", " 8", "8 ", "0x8", "4294967296",
                             "[2:1]", "-1", "00000000000008"})
                    : std::to_string(_below(33))};
      std::string text = fields[0];
      for (std::size_t i = 1; i < (_chance(6) ? _below(5) + 1 : 5); ++i) {
         text += "," + fields[i];
      }
      if (_chance(6)) {
         text += _pick({",", ",x", ",[1:0]", ",[0:1],y", ",,,", ",[x:1]", ",12[3:1]"});
      }
      return text + _pick({"\n", "\n", "\n", "\r\n", ""});
   }

   void _mutate(std::string& text) {
      static const std::string alphabet("0123456789,,[]::-+ \r\n\0Atf\xff", 27);
      const char c = alphabet[_below(alphabet.size())];
      const std::size_t at = _below(text.size() + 1);
      switch (_below(3)) {
      case 0:
         text.insert(at, 1, c);
         break;
      case 1:
         text.erase(at, 1 + _below(3));
         break;
      default:
         if (at < text.size()) {
            text[at] = c;
         }
         break;
      }
   }

   std::mt19937 _random;
};

TEST_F(RegisterFileChecker, AListHasAnErrorExactlyWhenItDoesNotLoad) {
   RandomList lists(20260531);
   int loads = 0;
   int refused = 0;
   int stopping = 0;
   for (int i = 0; i < 3000; ++i) {
      const std::string text = lists.next();
      const std::string path = dir.write("list.csv", text);
      const Problems problems = TarnRegFile::RegisterFileChecker().check(path);
      const bool bad = std::any_of(problems.begin(), problems.end(),
                                   [](const Problem& p) { return p.severity == error; });
      const bool mayStop = std::any_of(problems.begin(), problems.end(), [](const Problem& p) {
         return p.text.starts_with("incorrect sub-array index values");
      });
      const Load loaded = mayStop ? loadInChild(path) : load(path);
      ASSERT_EQ(bad, loaded != Load::works) << testing::PrintToString(text);
      const bool headerGood = text.starts_with(header.substr(0, header.size() - 1));
      const bool foundBeforeLoading = TarnRegFile::RegisterFileChecker::stoppingLine(path) != 0;
      if (foundBeforeLoading) {
         ASSERT_TRUE(bad) << testing::PrintToString(text);
      } else {
         ASSERT_FALSE(mayStop && headerGood) << testing::PrintToString(text);
      }
      loads += loaded == Load::works;
      refused += loaded == Load::throws;
      stopping += loaded == Load::stops;
   }
   // The lists must not all be of one kind.
   EXPECT_GT(loads, 200);
   EXPECT_GT(refused, 200);
   EXPECT_GT(stopping, 50);
}

TEST_F(RegisterFileChecker, ALargeListIsChecked) {
   std::string text = header;
   constexpr int count = 200'000;
   for (int i = 0; i < count; ++i) {
      text += fmt::format("{},BLOCK_{}_REGISTER_{},counter,false,32\n", i, i / 1000, i);
   }
   EXPECT_THAT(content(text), IsEmpty());
   // Every line has a problem, and every line is a duplicate.
   EXPECT_EQ(content(text + text.substr(header.size())).size(), static_cast<std::size_t>(count));
}

} // namespace
