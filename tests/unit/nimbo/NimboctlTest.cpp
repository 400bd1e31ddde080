#include "nimbo/Nimboctl.h"

#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "nimbo/ListeningSocket.h"
#include "nimbo/StatusSocket.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/TempDir.h"

namespace Nimbo {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using TestSupport::EnvironmentVariable;

class NimboctlTest : public testing::Test {
protected:
   ExitCode run(std::vector<const char*> words) {
      words.insert(words.begin(), "nimboctl");
      std::ostringstream outStream;
      std::ostringstream errStream;
      const ExitCode code =
         runNimboctl(static_cast<int>(words.size()), words.data(), outStream, errStream);
      out = outStream.str();
      err = errStream.str();
      return code;
   }

   /// Likewise, while a daemon serves a status at `file`.status in the directory.
   ExitCode runServed(const std::vector<const char*>& words, const std::string& file = "smbus") {
      const ListeningSocket place({.directory = dir.path(), .file = file + ".status"});
      Platform::EventLoop loop;
      StatusSocket status(loop, place.fd(), {},
                          [] { return R"({"schema": "nimbod-status/1", "pid": 3})"; });
      ExitCode code = ExitCode::general;
      std::thread client([&] {
         code = run(words);
         loop.stop();
      });
      loop.run();
      client.join();
      return code;
   }

   const TestSupport::TempDir dir;
   const EnvironmentVariable noDirectory{"NM_SOCKET_DIR", std::nullopt};
   const EnvironmentVariable noFile{"NM_SOCKET_FILE", std::nullopt};
   std::string out;
   std::string err;
};

TEST_F(NimboctlTest, PrintsATable) {
   EXPECT_EQ(runServed({"status", "--socket-dir", dir.path().c_str()}), ExitCode::ok);
   EXPECT_THAT(out, StartsWith("nimbod -, process 3, at -, up -\n"));
   EXPECT_EQ(err, "");
}

TEST_F(NimboctlTest, PrintsTheDocument) {
   EXPECT_EQ(runServed({"status", "--json", "--socket-dir", dir.path().c_str()}), ExitCode::ok);
   EXPECT_EQ(out, "{\n   \"schema\": \"nimbod-status/1\",\n   \"pid\": 3\n}\n");
   EXPECT_EQ(err, "");
}

TEST_F(NimboctlTest, FindsTheDaemonAsItsClientsDo) {
   EXPECT_EQ(
      runServed({"--socket-dir", dir.path().c_str(), "--socket-file", "other", "status"}, "other"),
      ExitCode::ok);
   const EnvironmentVariable directory("NM_SOCKET_DIR", dir.path());
   EXPECT_EQ(runServed({"status"}), ExitCode::ok);
   const EnvironmentVariable file("NM_SOCKET_FILE", "other");
   EXPECT_EQ(runServed({"status"}, "other"), ExitCode::ok);
   EXPECT_EQ(runServed({"status"}, "smbus"), ExitCode::general);
   EXPECT_EQ(runServed({"status", "--socket-file", "smbus"}, "smbus"), ExitCode::ok);
}

TEST_F(NimboctlTest, NoDaemonIsAFailureAndPrintsNoData) {
   EXPECT_EQ(run({"status", "--json", "--socket-dir", dir.path().c_str()}), ExitCode::general);
   EXPECT_EQ(out, "");
   EXPECT_EQ(err, "nimboctl: error: " + dir.path("smbus.status") + ": no daemon is there\n");
}

TEST_F(NimboctlTest, WrongUseIsTold) {
   for (const std::vector<const char*>& words : std::vector<std::vector<const char*>>{
           {}, {"--json"}, {"restart"}, {"status", "--nonsense"}, {"status", "more"}}) {
      EXPECT_EQ(run(words), ExitCode::usage);
      EXPECT_EQ(out, "");
      EXPECT_THAT(err, StartsWith("nimboctl: error: "));
   }
}

TEST_F(NimboctlTest, HelpAndVersionGoToStandardOutput) {
   EXPECT_EQ(run({"--help"}), ExitCode::ok);
   EXPECT_THAT(out, HasSubstr("--socket-dir"));
   EXPECT_EQ(run({"--version"}), ExitCode::ok);
   EXPECT_THAT(out, StartsWith("nimboctl "));
   EXPECT_EQ(err, "");
}

} // namespace
} // namespace Nimbo
