#include "tools/tarnreg/ValuesFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TempDir.h"
#include "tools/tarnreg/Failure.h"

namespace {

using TarnReg::checkValuesFile;
using testing::HasSubstr;
using TestSupport::TempDir;

/// "<exit code>: <text>" of what the check fails with.
std::string failure(const std::string& path, bool writing) {
   try {
      checkValuesFile(path, writing);
   } catch (const TarnReg::Failure& error) {
      return std::to_string(static_cast<int>(error.code())) + ": " + error.what();
   }
   return "none";
}

TEST(ValuesFile, WithoutAnyThereIsNothingToCheck) {
   EXPECT_EQ(failure("", true), "none");
}

TEST(ValuesFile, OneThatCannotBeKeptIsRefused) {
   const TempDir dir;
   const std::string file = dir.write("values", "");
   EXPECT_EQ(failure(dir.path(), false), "5: values file " + dir.path() + ": Is a directory");
   EXPECT_EQ(failure(dir.path("no/v"), false),
             "5: values file " + dir.path("no/v") + ": No such file or directory");
   EXPECT_EQ(failure(file + "/v", false), "5: values file " + file + "/v: Not a directory");
   EXPECT_EQ(failure(file, true), "none");
   EXPECT_EQ(failure(dir.path("new"), true), "none");
   EXPECT_FALSE(dir.has("new"));
}

TEST(ValuesFile, AReadOnlyOneIsGoodForReading) {
   if (::geteuid() == 0) {
      GTEST_SKIP() << "root may write everywhere";
   }
   const TempDir dir;
   const std::string file = dir.write("values", "");
   ::chmod(file.c_str(), 0444);
   EXPECT_EQ(failure(file, false), "none");
   EXPECT_THAT(failure(file, true), HasSubstr("Permission denied"));
}

} // namespace
