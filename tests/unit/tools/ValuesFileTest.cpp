#include "tools/tarnreg/ValuesFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/TempDir.h"
#include "tools/tarnreg/Failure.h"

namespace {

using TarnReg::checkValuesFile;
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

/// Lets access() judge as for a user who may not write everywhere, where the test runs as root.
class OrdinaryUser {
public:
   OrdinaryUser() {
      if (::geteuid() == 0) {
         EXPECT_EQ(::setresuid(nobody, 0, 0), 0);
      }
   }
   ~OrdinaryUser() {
      if (::geteuid() == 0) {
         EXPECT_EQ(::setresuid(0, 0, 0), 0);
      }
   }
   OrdinaryUser(const OrdinaryUser&) = delete;
   OrdinaryUser& operator=(const OrdinaryUser&) = delete;

private:
   static constexpr uid_t nobody = 65534;
};

TEST(ValuesFile, AReadOnlyOneIsGoodForReading) {
   const TempDir dir;
   const std::string file = dir.write("values", "");
   ::chmod(dir.path().c_str(), 0755);
   ::chmod(file.c_str(), 0444);
   const OrdinaryUser user;
   EXPECT_EQ(failure(file, false), "none");
   EXPECT_EQ(failure(file, true), "5: values file " + file + ": Permission denied");
}

} // namespace
