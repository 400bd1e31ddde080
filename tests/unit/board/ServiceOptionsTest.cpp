// What all daemons can be told alike.

#include "board/ServiceOptions.h"

#include <gtest/gtest.h>

#include <string>

#include "board/FileError.h"
#include "tests/support/Failure.h"

namespace Board {
namespace {

using TestSupport::Failure;

ServiceOptions optionsOf(const std::string& text) {
   const toml::table root = tomlFromText(text, "b.toml");
   const std::string path = "b.toml";
   TomlTable table(path, root, "the file");
   ServiceOptions options{"1", "*=2", LogTarget::systemLog};
   options.takeFrom(table);
   table.finish();
   return options;
}

TEST(ServiceOptions, ATraceLevelAloneIsForAllSources) {
   EXPECT_EQ(traceLevelsFrom("0"), "*=0");
   EXPECT_EQ(traceLevelsFrom("9"), "*=9");
   EXPECT_EQ(traceLevelsFrom("nimbo/*=8, *x=off"), "nimbo/*=8,*x=off");
   EXPECT_THROW(traceLevelsFrom("10"), std::invalid_argument);
   EXPECT_THROW(traceLevelsFrom("a=b"), std::invalid_argument);
}

TEST(ServiceOptions, TheLogGoesToOneOfTwoPlaces) {
   EXPECT_EQ(logTargetFrom("stderr"), LogTarget::standardError);
   EXPECT_EQ(logTargetFrom("syslog"), LogTarget::systemLog);
   EXPECT_EQ(Failure([] { logTargetFrom("file"); }),
             Failure::invalidArgument("'file' is no place for the log: stderr, syslog"));
}

TEST(ServiceOptions, AMetricsAddressIsCheckedAndComesBackAsItWas) {
   EXPECT_EQ(metricsAddressFrom("[::1]:9100"), "[::1]:9100");
   EXPECT_EQ(metricsAddressFrom("9100"), "9100");
   EXPECT_THROW(metricsAddressFrom("example.org:9100"), std::invalid_argument);
}

TEST(ServiceOptions, AreTakenFromAFileAsFarAsTheyAreThere) {
   const ServiceOptions none = optionsOf("");
   EXPECT_EQ(none.metrics, "1");
   EXPECT_EQ(none.traceLevels, "*=2");
   EXPECT_EQ(none.log, LogTarget::systemLog);
   const ServiceOptions all = optionsOf("metrics = \"9100\"\ntrace = 7\nlog = \"stderr\"\n");
   EXPECT_EQ(all.metrics, "9100");
   EXPECT_EQ(all.traceLevels, "*=7");
   EXPECT_EQ(all.log, LogTarget::standardError);
   EXPECT_EQ(optionsOf("trace = \"a/*=3\"\n").traceLevels, "a/*=3");
}

TEST(ServiceOptions, WhatIsWrongInAFileIsSaidWithItsPlace) {
   for (const char* text : {"metrics = 9100\n", "metrics = \"x\"\n", "trace = 10\n",
                            "trace = \"x\"\n", "log = \"file\"\n"}) {
      try {
         optionsOf(text);
         ADD_FAILURE() << text;
      } catch (const FileError& error) {
         EXPECT_EQ(std::string(error.what()).substr(0, 9), "b.toml:1:") << text;
      }
   }
}

TEST(ServiceOptions, ACommandLineReplacesOnlyWhatItSays) {
   ServiceOptions options{"1", "*=2", LogTarget::systemLog};
   ServiceArguments arguments;
   arguments.replaceIn(options);
   EXPECT_EQ(options.metrics, "1");
   EXPECT_EQ(options.traceLevels, "*=2");
   EXPECT_EQ(options.log, LogTarget::systemLog);
   arguments.metrics = "";
   arguments.traceLevels = "*=3";
   arguments.log = LogTarget::standardError;
   arguments.replaceIn(options);
   EXPECT_EQ(options.metrics, "");
   EXPECT_EQ(options.traceLevels, "*=3");
   EXPECT_EQ(options.log, LogTarget::standardError);
}

} // namespace
} // namespace Board
