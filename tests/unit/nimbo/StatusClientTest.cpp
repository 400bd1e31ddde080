#include "nimbo/StatusClient.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "nimbo/ListeningSocket.h"
#include "TarnRegFile/Utils.h"
#include "tests/support/TempDir.h"

namespace Nimbo {
namespace {

using namespace std::chrono_literals;
using TarnRegFile::Utils::UnixFdRes;

constexpr auto longTime = 60s;
constexpr const char* small = "{\"schema\": \"nimbod-status/1\", \"pid\": 3}\n";

class StatusClientTest : public testing::Test {
protected:
   /// What a client finds whom `answer` is said to.
   std::string found(const std::string& answer, const std::string& directory = "") {
      const ListeningSocket place(
         {.directory = directory.empty() ? dir.path() : directory, .file = "s"});
      ::fcntl(place.fd(), F_SETFL, 0);
      std::thread daemon([&] {
         const UnixFdRes client(::accept(place.fd(), nullptr, nullptr));
         for (std::size_t sent = 0; sent < answer.size();) {
            const ssize_t count =
               ::send(client.fd(), answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
            if (count < 0) {
               return; // it has heard enough
            }
            sent += static_cast<std::size_t>(count);
         }
      });
      const std::string result = text(place.path(), longTime);
      daemon.join();
      return result;
   }

   std::string text(const std::string& path, std::chrono::milliseconds patience) {
      try {
         return statusFrom(path, patience).dump();
      } catch (const std::runtime_error& error) {
         std::string what = error.what();
         const std::size_t at = what.find(dir.path());
         return at == std::string::npos ? what : what.replace(at, dir.path().size(), "DIR");
      }
   }

   const TestSupport::TempDir dir;
};

TEST_F(StatusClientTest, GivesTheDocument) {
   EXPECT_EQ(found(small), R"({"schema":"nimbod-status/1","pid":3})");
}

TEST_F(StatusClientTest, ReadsALongDocumentToItsEnd) {
   const std::string text =
      R"({"schema":"nimbod-status/1","x":")" + std::string(std::size_t{2} << 20, 'x') + "\"}";
   EXPECT_EQ(found(text), text);
}

TEST_F(StatusClientTest, ReachesALongPath) {
   EXPECT_EQ(found(small, dir.path(std::string(150, 'd'))),
             R"({"schema":"nimbod-status/1","pid":3})");
}

TEST_F(StatusClientTest, APathWithoutADirectoryIsInTheCurrentOne) {
   const auto before = std::filesystem::current_path();
   std::filesystem::current_path(dir.path());
   EXPECT_EQ(text("nothing", longTime), "nothing: no daemon is there");
   std::filesystem::current_path(before);
}

TEST_F(StatusClientTest, SaysWhereThereIsNoDaemon) {
   EXPECT_EQ(text(dir.path("s"), longTime), "DIR/s: no daemon is there");
   EXPECT_EQ(text(dir.path("no/directory"), longTime), "DIR/no/directory: no daemon is there");
   const std::string far = std::string(150, 'd') + "/s";
   EXPECT_EQ(text(dir.path(far), longTime), "DIR/" + far + ": no daemon is there");
   dir.write("file", "");
   EXPECT_EQ(text(dir.path("file"), longTime), "DIR/file: no daemon is there");
   EXPECT_EQ(text(dir.path("file/s"), longTime), "DIR/file/s: Not a directory");
}

TEST_F(StatusClientTest, ADaemonThatSaysNothingHasRefused) {
   EXPECT_EQ(found(""), "DIR/s: the daemon says nothing: its log has the reason");
}

TEST_F(StatusClientTest, WhatIsNoDocumentIsRefused) {
   for (const char* answer : {"x", "[]", "3", "{", "HTTP/1.1 400 Bad Request\r\n\r\n"}) {
      EXPECT_EQ(found(answer), "DIR/s: what is there does not speak as the daemon does") << answer;
   }
   for (const char* answer : {"{}", R"({"schema": 1})", R"({"schema": "nimbod-status/2"})"}) {
      EXPECT_EQ(found(answer), "DIR/s: the daemon's status is not of the schema nimbod-status/1")
         << answer;
   }
}

TEST_F(StatusClientTest, DoesNotListenForEver) {
   EXPECT_EQ(found(std::string((std::size_t{16} << 20) + 1, ' ')),
             "DIR/s: what is there says more than a daemon would");
   const ListeningSocket silent({.directory = dir.path(), .file = "silent"});
   EXPECT_EQ(text(silent.path(), 1ms), "DIR/silent: the daemon does not answer");
}

} // namespace
} // namespace Nimbo
