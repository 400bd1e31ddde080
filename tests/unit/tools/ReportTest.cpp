#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "tools/tarnreg/Report.h"

namespace {

using TarnReg::Console;
using TarnReg::ExitCode;
using TarnReg::NumberBase;
using TarnReg::Report;
using TarnRegFile::HardwareRegister;
using testing::ElementsAre;

class ReportTest : public testing::Test {
protected:
   Report report(bool json) { return Report(console, "read", "registers", json, NumberBase::hex); }

   std::vector<std::string> keys() const {
      std::vector<std::string> names;
      const auto document = nlohmann::ordered_json::parse(out.str());
      for (const auto& [key, value] : document.items()) {
         names.push_back(key);
      }
      return names;
   }

   std::istringstream in;
   std::ostringstream out;
   std::ostringstream err;
   Console console{in, out, err, false};
};

HardwareRegister named(const std::string& name) {
   HardwareRegister record;
   record.name = name;
   record.width = 8;
   return record;
}

TEST_F(ReportTest, LinesArePrintedAsTheyCome) {
   Report lines = report(false);
   lines.row("one", {});
   EXPECT_EQ(out.str(), "one\n");
   lines.value(named("A"), 2);
   EXPECT_EQ(out.str(), "one\nA  0x02\n");
   EXPECT_EQ(lines.finish(), ExitCode::ok);
   EXPECT_EQ(out.str(), "one\nA  0x02\n");
}

TEST_F(ReportTest, ADocumentIsPrintedWhenItIsComplete) {
   Report document = report(true);
   document.value(named("A"), 2);
   document.failure(ExitCode::refused, "no", "B");
   EXPECT_EQ(out.str(), "");
   EXPECT_EQ(err.str(), "tarnreg: error: no\n");
   EXPECT_EQ(document.finish(), ExitCode::refused);
   EXPECT_THAT(keys(), ElementsAre("schema", "verb", "registers", "errors", "exitCode"));
}

TEST_F(ReportTest, ADocumentWithoutAnyResultHasTheSameKeys) {
   report(true).finish();
   EXPECT_THAT(keys(), ElementsAre("schema", "verb", "registers", "errors", "exitCode"));
}

TEST_F(ReportTest, TheFirstFailureDecides) {
   Report lines = report(false);
   lines.failure(ExitCode::deviceError, "a");
   lines.failure(ExitCode::usage, "b");
   EXPECT_EQ(lines.finish(), ExitCode::deviceError);
}

TEST_F(ReportTest, EveryCodeHasAName) {
   Report document = report(true);
   for (int code = 1; code <= 7; ++code) {
      document.failure(static_cast<ExitCode>(code), "x");
   }
   document.finish();
   std::vector<std::string> names;
   const auto printed = nlohmann::json::parse(out.str());
   for (const auto& error : printed.at("errors")) {
      names.push_back(error.at("code"));
   }
   EXPECT_THAT(names, ElementsAre("general", "usage", "unknown-name", "refused", "device-error",
                                  "timeout", "read-back-mismatch"));
}

TEST_F(ReportTest, InvalidUtf8IsReplacedInTheDocumentAndTheRestIsAscii) {
   Report document = report(true);
   document.value(named("a\xff\xc2\x9b\x1b\x7f"), 1);
   document.failure(ExitCode::general, "t\xfe", "n\xfd");
   document.finish();
   for (const char c : out.str()) {
      EXPECT_TRUE(c == '\n' || (c >= 0x20 && c < 0x7f)) << static_cast<int>(c);
   }
   const auto json = nlohmann::json::parse(out.str());
   EXPECT_EQ(json.at("registers").at(0).at("name"), "a\xef\xbf\xbd\xc2\x9b\x1b\x7f");
   EXPECT_EQ(json.at("errors").at(0).at("name"), "n\xef\xbf\xbd");
}

TEST_F(ReportTest, OutputThatCannotBeWrittenIsAFailure) {
   Report lines = report(false);
   out.setstate(std::ios::badbit);
   lines.row("one", {});
   EXPECT_EQ(lines.finish(), ExitCode::general);
   EXPECT_EQ(err.str(), "tarnreg: error: cannot write the output\n");
}

TEST_F(ReportTest, AnEarlierFailureIsNotHiddenByOutputThatCannotBeWritten) {
   Report lines = report(false);
   lines.failure(ExitCode::timeout, "slow");
   out.setstate(std::ios::badbit);
   EXPECT_EQ(lines.finish(), ExitCode::timeout);
}

TEST(NameColumnWidth, IsTheLongestShownNameWithinReason) {
   const HardwareRegister a = named("A");
   const HardwareRegister escape = named("\x1b");
   const HardwareRegister absurd = named(std::string(5000, 'x'));
   EXPECT_EQ(TarnReg::nameColumnWidth({}), 0U);
   EXPECT_EQ(TarnReg::nameColumnWidth({&a, &escape}), 6U);
   EXPECT_EQ(TarnReg::nameColumnWidth({&a, &absurd}), 60U);
}

} // namespace
