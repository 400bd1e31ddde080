#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// The lines that the child writes on both outputs, without the time.
std::vector<std::string> runChild(const char* levels, const std::string& argument = "") {
   if (levels != nullptr) {
      ::setenv("TARN_TRACE", levels, 1);
   } else {
      ::unsetenv("TARN_TRACE");
   }
   const std::string command = std::string("'" TRACE_TEST_CHILD "' ") + argument + " 2>&1";
   std::FILE* const pipe = ::popen(command.c_str(), "r");
   ::unsetenv("TARN_TRACE");
   if (pipe == nullptr) {
      ADD_FAILURE() << "cannot run " << command;
      return {};
   }
   std::string output;
   std::array<char, 4096> buffer{};
   while (const std::size_t got = std::fread(buffer.data(), 1, buffer.size(), pipe)) {
      output.append(buffer.data(), got);
   }
   EXPECT_EQ(::pclose(pipe), 0);

   const std::string_view time = "2024-05-31T12:34:56.789012Z ";
   std::vector<std::string> lines;
   std::size_t begin = 0;
   for (std::size_t end = output.find('\n'); end != std::string::npos;
        begin = end + 1, end = output.find('\n', begin)) {
      std::string line = output.substr(begin, end - begin);
      if (line.size() > time.size() && line[time.size() - 2] == 'Z') {
         line.erase(0, time.size());
      }
      lines.push_back(std::move(line));
   }
   EXPECT_EQ(begin, output.size()) << "the last line has no end";
   return lines;
}

TEST(TraceEnvironment, WithoutItOnlyFailuresAreTraced) {
   EXPECT_THAT(runChild(nullptr), ElementsAre("0 child/main traceEachLevel: level 0"));
}

TEST(TraceEnvironment, EmptyIsAsIfItWereNotSet) {
   EXPECT_THAT(runChild(""), ElementsAre("0 child/main traceEachLevel: level 0"));
}

TEST(TraceEnvironment, SetsTheThresholdOfTheSourceThatItNames) {
   EXPECT_THAT(runChild("child/main=2"), ElementsAre("0 child/main traceEachLevel: level 0",
                                                     "1 child/main traceEachLevel: level 1",
                                                     "2 child/main traceEachLevel: level 2"));
}

TEST(TraceEnvironment, HoldsInStaticInitialisersOfOtherFilesAndInStaticDestructors) {
   EXPECT_THAT(
      runChild("child/e*=4,child/main=off"),
      ElementsAre("4 child/early traceEarly: before main", "4 child/exit traceAtExit: after main"));
}

TEST(TraceEnvironment, OffSilencesFailuresToo) {
   EXPECT_THAT(runChild("*=off"), IsEmpty());
}

TEST(TraceEnvironment, BadEntriesAreReportedOneLineEachAndTheOthersApply) {
   EXPECT_THAT(
      runChild("child/mian,child/main=1,child/main=10,=3,"),
      ElementsAre(
         "0 platform/trace TARN_TRACE: bad trace level 'child/mian': expected NAME=LEVEL; "
         "the entry is ignored",
         "0 platform/trace TARN_TRACE: bad trace level 'child/main=10': expected a level, "
         "0 to 9 or off, after the '='; the entry is ignored",
         "0 platform/trace TARN_TRACE: bad trace level '=3': expected a source name before "
         "the '='; the entry is ignored",
         "0 child/main traceEachLevel: level 0", "1 child/main traceEachLevel: level 1"));
}

TEST(TraceEnvironment, ABadEntryCannotSteerTheTerminal) {
   EXPECT_THAT(runChild("\x1b[31m\nx"),
               ElementsAre("0 platform/trace TARN_TRACE: bad trace level '\\x1b[31m\\nx': expected "
                           "NAME=LEVEL; the entry is ignored",
                           "0 child/main traceEachLevel: level 0"));
}

TEST(TraceEnvironment, IsWhatTheProgramIsToldIsInForce) {
   EXPECT_THAT(runChild(" child/* = off ,,other=3 ", "levels"), ElementsAre("child/*=off,other=3"));
}

} // namespace
