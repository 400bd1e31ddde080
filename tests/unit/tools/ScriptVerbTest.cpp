// The commands of a script, one a line.

#include "tools/tarnreg/ScriptVerb.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "tools/tarnreg/Failure.h"

namespace TarnReg {
namespace {

using testing::ElementsAre;

class ScriptVerbTest : public testing::Test {
protected:
   /// Runs a script whose commands end with the code that their second word is.
   ExitCode run(const std::string& text, bool keepGoing = false) {
      std::istringstream in(text);
      std::istringstream nobody;
      std::ostringstream data;
      std::ostringstream talk;
      Console console(nobody, data, talk, false);
      Report report(console, "script", "commands", json, NumberBase::hex);
      const auto command = [&](const std::vector<std::string>& words) {
         done.push_back(words.front());
         left = in.tellg() == std::istream::pos_type(-1) ? "" : in.str().substr(in.tellg());
         Report part(console, words.front(), "registers", json, NumberBase::hex);
         if (words.size() > 1) {
            part.failure(static_cast<ExitCode>(std::stoi(words[1])), "it fails");
         }
         return part;
      };
      runScript(in, "name", keepGoing, command, console, report);
      const ExitCode code = report.finish();
      out = data.str();
      err = talk.str();
      return code;
   }

   bool json = false;
   std::vector<std::string> done;
   std::string left; // of the script when the last command began
   std::string out;
   std::string err;
};

TEST_F(ScriptVerbTest, EachLineIsACommandAndEmptyOnesAreNone) {
   EXPECT_EQ(run("a\n\n  # a comment\nb # another\r\nc"), ExitCode::ok);
   EXPECT_THAT(done, ElementsAre("a", "b", "c"));
   EXPECT_EQ(out + err, "");
}

TEST_F(ScriptVerbTest, ALineIsDoneBeforeTheNextIsAskedFor) {
   run("a 1\nb\nc\n");
   EXPECT_THAT(done, ElementsAre("a"));
   EXPECT_EQ(left, "b\nc\n");
}

TEST_F(ScriptVerbTest, TheFirstFailureEndsItWithPlaceAndCode) {
   EXPECT_EQ(run("a\n\nb 5\nc 3\n"), ExitCode::deviceError);
   EXPECT_THAT(done, ElementsAre("a", "b"));
   EXPECT_EQ(err, "tarnreg: error: name:3: it fails\n");
}

TEST_F(ScriptVerbTest, ItMayGoOnAndTheFirstFailureStillGivesTheCode) {
   EXPECT_EQ(run("a 5\n'\nb 3\nc\n", true), ExitCode::deviceError);
   EXPECT_THAT(done, ElementsAre("a", "b", "c"));
   EXPECT_EQ(err, "tarnreg: error: name:1: it fails\n"
                  "tarnreg: error: name:2: the quote in column 1 is not closed\n"
                  "tarnreg: error: name:3: it fails\n");
}

TEST_F(ScriptVerbTest, TheDocumentHasAnElementForEachCommand) {
   json = true;
   EXPECT_EQ(run("a\n\nb 3\n"), ExitCode::unknownName);
   const auto document = nlohmann::json::parse(out);
   ASSERT_EQ(document.at("commands").size(), 2U);
   EXPECT_EQ(document.at("commands").at(0).at("line"), 1);
   EXPECT_EQ(document.at("commands").at(0).at("exitCode"), 0);
   EXPECT_EQ(document.at("commands").at(1).at("line"), 3);
   EXPECT_EQ(document.at("commands").at(1).at("verb"), "b");
   EXPECT_EQ(document.at("errors").at(0).at("line"), 3);
   EXPECT_EQ(document.at("exitCode"), 3);
}

} // namespace
} // namespace TarnReg
