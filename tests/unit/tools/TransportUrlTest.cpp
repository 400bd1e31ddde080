#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/EnvironmentVariable.h"
#include "tests/support/TempDir.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/TransportUrl.h"

namespace {

using TarnReg::TransportUrl;
using testing::HasSubstr;
using TestSupport::EnvironmentVariable;
using TestSupport::TempDir;

/// "<exit code>: <text>" of what `body` fails with.
template <typename Body>
std::string failure(Body body) {
   try {
      body();
   } catch (const TarnReg::Failure& error) {
      return std::to_string(static_cast<int>(error.code())) + ": " + error.what();
   }
   return "none";
}

TEST(TransportUrl, SplitsAtTheFirstColon) {
   const TransportUrl url("mock:/tmp/a:b");
   EXPECT_EQ(url.scheme(), "mock");
   EXPECT_EQ(url.rest(), "/tmp/a:b");
   EXPECT_EQ(TransportUrl("mock:").rest(), "");
}

TEST(TransportUrl, RefusesWhatItDoesNotKnow) {
   for (const char* text : {"", "mock", "Mock:", "i2c:/dev/i2c-0@0x50", ":", ":x", "mockx:"}) {
      EXPECT_THAT(failure([&] { TransportUrl url(text); }),
                  HasSubstr("is not known; there is mock:[VALUES-FILE]"))
         << text;
   }
   EXPECT_THAT(failure([] { TransportUrl url("usb:"); }), HasSubstr("2: transport 'usb:'"));
}

TEST(TransportUrl, ThePathGoesBeforeTheEnvironment) {
   const EnvironmentVariable variable("REG_VALUES_FILE", "/from/environment");
   EXPECT_EQ(TransportUrl("mock:").valuesFile(), "/from/environment");
   EXPECT_EQ(TransportUrl("mock:/given").valuesFile(), "/given");
   TransportUrl("mock:").descriptor();
   EXPECT_STREQ(std::getenv("REG_VALUES_FILE"), "/from/environment");
   TransportUrl("mock:/given").descriptor();
   EXPECT_STREQ(std::getenv("REG_VALUES_FILE"), "/given");
}

TEST(TransportUrl, WithoutAnyValuesFileThereIsNothingToCheck) {
   const EnvironmentVariable variable("REG_VALUES_FILE", std::nullopt);
   EXPECT_EQ(TransportUrl("mock:").valuesFile(), "");
   TransportUrl("mock:").checkValuesFile(true);
}

TEST(TransportUrl, AValuesFileThatCannotBeKeptIsRefused) {
   const TempDir dir;
   const std::string file = dir.write("values", "");
   EXPECT_EQ(failure([&] { TransportUrl("mock:" + dir.path()).checkValuesFile(false); }),
             "5: values file " + dir.path() + ": Is a directory");
   EXPECT_EQ(failure([&] { TransportUrl("mock:" + dir.path("no/v")).checkValuesFile(false); }),
             "5: values file " + dir.path("no/v") + ": No such file or directory");
   EXPECT_EQ(failure([&] { TransportUrl("mock:" + file + "/v").checkValuesFile(false); }),
             "5: values file " + file + "/v: Not a directory");
   TransportUrl("mock:" + file).checkValuesFile(true);
   TransportUrl("mock:" + dir.path("new")).checkValuesFile(true);
   EXPECT_FALSE(dir.has("new"));
}

TEST(TransportUrl, AReadOnlyValuesFileIsGoodForReading) {
   if (::geteuid() == 0) {
      GTEST_SKIP() << "root may write everywhere";
   }
   const TempDir dir;
   const std::string file = dir.write("values", "");
   ::chmod(file.c_str(), 0444);
   TransportUrl("mock:" + file).checkValuesFile(false);
   EXPECT_THAT(failure([&] { TransportUrl("mock:" + file).checkValuesFile(true); }),
               HasSubstr("Permission denied"));
}

} // namespace
