#include "platform/entity/Fatal.h"

#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

namespace {

void report(std::string_view source, std::string_view function, std::string_view text) noexcept {
   std::fprintf(stderr, "reported %.*s|%.*s|%.*s\n", static_cast<int>(source.size()), source.data(),
                static_cast<int>(function.size()), function.data(), static_cast<int>(text.size()),
                text.data());
}

void reportByFailing(std::string_view, std::string_view, std::string_view) noexcept {
   Platform::fatalAssertion("reporter", "report", "fails itself");
}

} // namespace

TEST(FatalDeathTest, PrintsSourceFunctionAndTextThenAborts) {
   EXPECT_EXIT(
      {
         Platform::fatalReporterIs(nullptr);
         Platform::fatalAssertion("CoreSmBase", "regRead", "coreSm is not ready");
      },
      testing::KilledBySignal(SIGABRT),
      "^CoreSmBase: regRead: assertion failed: coreSm is not ready\n$");
}

TEST(FatalDeathTest, TextIsNotAFormat) {
   EXPECT_EXIT(
      {
         Platform::fatalReporterIs(nullptr);
         Platform::fatalAssertion("%s", "%n", "100% {}");
      },
      testing::KilledBySignal(SIGABRT), "^%s: %n: assertion failed: 100% \\{\\}\n$");
}

TEST(FatalDeathTest, TellsTheReporterBeforeAborting) {
   EXPECT_EXIT(
      {
         Platform::fatalReporterIs(&report);
         Platform::fatalAssertion("a", "b", "c");
      },
      testing::KilledBySignal(SIGABRT), "^a: b: assertion failed: c\nreported a\\|b\\|c\n$");
}

TEST(FatalDeathTest, ReporterThatAssertsItselfDoesNotRunForEver) {
   EXPECT_EXIT(
      {
         Platform::fatalReporterIs(&reportByFailing);
         Platform::fatalAssertion("a", "b", "c");
      },
      testing::KilledBySignal(SIGABRT),
      "^a: b: assertion failed: c\nreporter: report: assertion failed: fails itself\n$");
}

TEST(Fatal, InstallingAReporterReturnsTheOneThatWasThere) {
   const Platform::FatalReporter before = Platform::fatalReporterIs(&report);
   EXPECT_EQ(Platform::fatalReporterIs(&reportByFailing), &report);
   EXPECT_EQ(Platform::fatalReporterIs(before), &reportByFailing);
}
