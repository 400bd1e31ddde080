#include "nimbo/StatusDocument.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "nimbo/ListeningSocket.h"
#include "nimbo/UnixAddress.h"
#include "tests/support/TempDir.h"

namespace Nimbo {
namespace {

using namespace std::chrono_literals;
using nlohmann::ordered_json;
using TarnRegFile::Utils::UnixFdRes;
using testing::MatchesRegex;

/// A bus that nobody uses here.
class NoBackend : public BusBackend {
public:
   void begin() override {}
   void end() noexcept override {}
   int write(std::uint8_t, std::span<const std::uint8_t>, std::span<const std::uint8_t>) override {
      return ENXIO;
   }
   int read(std::uint8_t, std::span<const std::uint8_t>, std::span<std::uint8_t>) override {
      return ENXIO;
   }
};

class StatusDocumentTest : public testing::Test {
protected:
   void busesAre(const std::vector<BusConfig>& configs) {
      std::vector<std::shared_ptr<Bus>> buses;
      for (const BusConfig& config : configs) {
         buses.push_back(std::make_shared<Bus>(config, std::make_unique<NoBackend>()));
      }
      server.busesAre(std::make_shared<const BusTable>(std::move(buses)));
   }

   UnixFdRes client(const std::string& path) {
      UnixFdRes socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
      const UnixAddress address(path);
      EXPECT_EQ(::connect(socket.fd(), address.get(), address.size()), 0);
      return socket;
   }

   ordered_json status() const { return ordered_json::parse(document.text()); }

   Platform::EventLoop loop;
   Server server{loop, 2000, [](int, std::string& peer) {
                    peer = "somebody";
                    return true;
                 }};
   const StatusDocument document{server, "/run/x/smbus", 2000};
};

TEST_F(StatusDocumentTest, IsOneLineWithTheDaemonInIt) {
   const std::string text = document.text();
   EXPECT_EQ(text.find('\n'), text.size() - 1);
   const ordered_json found = status();
   EXPECT_EQ(found["schema"], "nimbod-status/1");
   EXPECT_THAT(found["version"].get<std::string>(), MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+"));
   EXPECT_EQ(found["pid"], ::getpid());
   EXPECT_THAT(found["started"].get<std::string>(),
               MatchesRegex("20[0-9][0-9]-[0-9][0-9]-[0-9][0-9]T[0-9][0-9]:[0-9][0-9]:[0-9][0-9]"
                            "\\.[0-9][0-9][0-9]Z"));
   EXPECT_GE(found["uptime_seconds"].get<double>(), 0);
   EXPECT_EQ(found["socket"], "/run/x/smbus");
   EXPECT_EQ(found["buses"], ordered_json::array());
   EXPECT_EQ(found["connections"], ordered_json::array());
   EXPECT_EQ(found["clients"], (ordered_json{{"connected", 0},
                                             {"limit", 2000},
                                             {"accepted", 0},
                                             {"refused", 0},
                                             {"over_limit", 0},
                                             {"malformed", 0}}));
}

TEST_F(StatusDocumentTest, HasEachBusAsItIsConfigured) {
   busesAre({{.name = "a", .number = 3, .device = "/dev/i2c-3"},
             {.name = "b",
              .number = 127,
              .pciBdf = 0x301,
              .controller = 0,
              .device = "x",
              .simulated = true}});
   EXPECT_EQ(status()["buses"], (ordered_json::array({{{"name", "a"},
                                                       {"number", 3},
                                                       {"device", "/dev/i2c-3"},
                                                       {"simulated", false},
                                                       {"controller", nullptr},
                                                       {"pci", nullptr},
                                                       {"transactions", 0},
                                                       {"requests", 0},
                                                       {"failures", 0},
                                                       {"waiting", 0},
                                                       {"busy_seconds", nullptr},
                                                       {"last_failure", nullptr}},
                                                      {{"name", "b"},
                                                       {"number", 127},
                                                       {"device", "x"},
                                                       {"simulated", true},
                                                       {"controller", 0},
                                                       {"pci", "0000:03:00.1"},
                                                       {"transactions", 0},
                                                       {"requests", 0},
                                                       {"failures", 0},
                                                       {"waiting", 0},
                                                       {"busy_seconds", nullptr},
                                                       {"last_failure", nullptr}}})));
}

TEST_F(StatusDocumentTest, BytesThatAreNoTextCanStillBeRead) {
   busesAre({{.name = "a", .device = "/dev/\xff\x1b"}});
   EXPECT_EQ(status()["buses"][0]["device"], "/dev/\xef\xbf\xbd\x1b");
}

TEST_F(StatusDocumentTest, HasEachClientTheOldestFirst) {
   const TestSupport::TempDir dir;
   const ListeningSocket place({.directory = dir.path(), .file = "s"});
   server.listenAt(place.fd());
   const UnixFdRes first = client(place.path());
   const UnixFdRes second = client(place.path());
   ASSERT_TRUE(loop.runUntil([&] { return server.counters().accepted.value() == 2; }, 60s));
   const ordered_json found = status();
   EXPECT_EQ(found["clients"]["connected"], 2);
   EXPECT_EQ(found["clients"]["accepted"], 2);
   const auto expected = [](int id) {
      return ordered_json{{"id", id},           {"pid", ::getpid()}, {"uid", ::geteuid()},
                          {"gid", ::getegid()}, {"transactions", 0}, {"requests", 0}};
   };
   EXPECT_EQ(found["connections"], (ordered_json::array({expected(1), expected(2)})));
}

TEST_F(StatusDocumentTest, DescribesSoManyClientsAndCountsTheRest) {
   constexpr std::size_t many = StatusDocument::mostConnections + 5;
   const TestSupport::TempDir dir;
   const ListeningSocket place({.directory = dir.path(), .file = "s"});
   server.listenAt(place.fd());
   std::vector<UnixFdRes> clients;
   for (std::size_t i = 0; i < many; ++i) {
      clients.push_back(client(place.path()));
      loop.poll();
   }
   ASSERT_TRUE(loop.runUntil([&] { return server.counters().accepted.value() == many; }, 60s));
   const ordered_json found = status();
   EXPECT_EQ(found["clients"]["connected"], many);
   ASSERT_EQ(found["connections"].size(), StatusDocument::mostConnections);
   EXPECT_EQ(found["connections"].front()["id"], 1);
   EXPECT_EQ(found["connections"].back()["id"], StatusDocument::mostConnections);
}

} // namespace
} // namespace Nimbo
