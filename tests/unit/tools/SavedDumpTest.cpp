#include "tools/tarnreg/SavedDump.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TempDir.h"
#include "tools/tarnreg/Failure.h"

namespace {

using TarnReg::SavedDump;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

class Saved : public testing::Test {
protected:
   SavedDump read(const std::string& content) { return SavedDump(dir.write("dump", content)); }

   /// What is wrong with the content, without the path.
   std::string failure(const std::string& content) {
      try {
         read(content);
      } catch (const TarnReg::Failure& error) {
         EXPECT_EQ(error.code(), TarnReg::ExitCode::general);
         const std::string text = error.what();
         const std::string path = dir.path("dump");
         EXPECT_TRUE(text.starts_with(path)) << text;
         return text.substr(std::min(path.size(), text.size()));
      }
      return "nothing";
   }

   const TestSupport::TempDir dir;
};

TEST_F(Saved, ReadsLinesInEveryBase) {
   const SavedDump dump = read("A          0x0012\nFAN[0]_PWM  18\r\n\nC  0b11");
   EXPECT_THAT(dump.entries(), ElementsAre(Pair("A", 18), Pair("FAN[0]_PWM", 18), Pair("C", 3)));
   ASSERT_NE(dump.find("FAN[0]_PWM"), nullptr);
   EXPECT_EQ(*dump.find("FAN[0]_PWM"), 18u);
   EXPECT_EQ(dump.find("FAN[1]_PWM"), nullptr);
}

TEST_F(Saved, ANameMayHoldBlanksSinceTheValueIsTheLastWord) {
   EXPECT_THAT(read("TWO WORDS  0x1\n").entries(), ElementsAre(Pair("TWO WORDS", 1)));
}

TEST_F(Saved, ReadsADocument) {
   const SavedDump dump = read(R"({"schema": "tarnreg/1", "verb": "dump", "registers": [
      {"name": "B", "address": 4, "value": 4294967295}, {"name": "A", "value": 0}],
      "errors": [], "exitCode": 0})");
   EXPECT_THAT(dump.entries(), ElementsAre(Pair("B", 0xffffffff), Pair("A", 0)));
}

TEST_F(Saved, AnEmptyFileHasNothing) {
   EXPECT_THAT(read("").entries(), IsEmpty());
   EXPECT_THAT(read("\n\n").entries(), IsEmpty());
}

TEST_F(Saved, RefusesLinesThatAreNone) {
   EXPECT_EQ(failure("A  0x1\nB\n"), ":2: no line of a dump: a name and a value");
   EXPECT_EQ(failure("  0x1\n"), ":1: no line of a dump: a name and a value");
   EXPECT_THAT(failure("A  x1\n"), HasSubstr(":1: value: "));
   EXPECT_THAT(failure("A  0x100000000\n"), HasSubstr(":1: value: "));
   EXPECT_EQ(failure("'A\\x1b'  0x1\n"),
             ":1: a name in quotes cannot be read back; save the dump with --json");
}

TEST_F(Saved, RefusesANameThatIsThereTwice) {
   EXPECT_EQ(failure("A  1\nB  1\nA  1\n"), ": A is there twice");
}

TEST_F(Saved, RefusesDocumentsThatAreNone) {
   EXPECT_THAT(failure("{\"schema\": "), HasSubstr("parse error"));
   EXPECT_EQ(failure("{}"), ": no document of schema tarnreg/1");
   EXPECT_EQ(failure(R"({"schema": "tarnreg/2", "registers": []})"),
             ": no document of schema tarnreg/1");
   EXPECT_EQ(failure(R"({"schema": "tarnreg/1"})"), ": the document has no registers");
   for (const char* element :
        {"1", R"({"value": 1})", R"({"name": "A"})", R"({"name": 1, "value": 1})",
         R"({"name": "A", "value": -1})", R"({"name": "A", "value": 4294967296})",
         R"({"name": "A", "value": 1.5})", R"({"name": "A", "value": "1"})"}) {
      EXPECT_EQ(failure(std::string(R"({"schema": "tarnreg/1", "registers": [)") + element + "]}"),
                ": register 1 of the document has no name or no value of 32 bits")
         << element;
   }
}

TEST_F(Saved, RefusesWhatCannotBeRead) {
   for (const std::string& path : {dir.path("missing"), dir.path()}) {
      try {
         SavedDump dump(path);
         FAIL() << path;
      } catch (const TarnReg::Failure& error) {
         EXPECT_THAT(error.what(), HasSubstr(path + ": "));
      }
   }
}

} // namespace
