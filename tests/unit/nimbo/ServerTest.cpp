#include "nimbo/Server.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/entity/EventLoop.h"
#include "platform/trace/CaptureScope.h"
#include "tests/support/FakeSmbus.h"
#include "tests/support/SmbusClient.h"
#include "tests/support/SmbusRequests.h"
#include "tests/support/TempDir.h"

namespace Nimbo {
namespace {

using Platform::Trace::CaptureScope;
using TarnRegFile::Utils::UnixFdRes;
using testing::ElementsAre;
using TestSupport::FakeSmbus;
using TestSupport::SmbusClient;
using TestSupport::SmbusRequests;

constexpr auto patience = std::chrono::seconds(60);

/// A server with buses 0, 1, 2 ... that a test makes hang or fail, and clients at a real socket.
/// The event loop runs only where a test waits; the server's threads run all the time.
class ServerTest : public testing::Test {
protected:
   ServerTest() {
      ::sockaddr_un address = {};
      address.sun_family = AF_UNIX;
      std::copy(path.begin(), path.end(), address.sun_path);
      EXPECT_EQ(::bind(listener.fd(), reinterpret_cast<::sockaddr*>(&address), sizeof address), 0);
      EXPECT_EQ(::listen(listener.fd(), 64), 0);
   }

   ~ServerTest() override {
      for (const auto& fake : fakes) {
         fake->letGo(); // the server's end waits for whoever has a bus
      }
      server.reset();
      for (const auto& fake : fakes) {
         EXPECT_FALSE(fake->isMisused());
      }
   }

   void start(std::size_t buses, std::size_t maxConnections = 64) {
      server.emplace(loop, maxConnections, [this](int, std::string& peer) {
         peer = "a test";
         return isAdmitting;
      });
      busesAre(buses);
      server->listenAt(listener.fd());
   }

   /// A table of `count` new buses.
   void busesAre(std::size_t count) {
      std::vector<std::shared_ptr<Bus>> buses;
      fakes.clear();
      for (std::size_t i = 0; i < count; ++i) {
         fakes.push_back(std::make_shared<FakeSmbus>());
         buses.push_back(fakes.back()->busNew({.name = fmt::format("bus{}", i),
                                               .number = static_cast<std::uint8_t>(i),
                                               .device = ""}));
      }
      server->busesAre(std::make_shared<const BusTable>(std::move(buses)));
   }

   bool loopUntil(const std::function<bool()>& predicate) {
      return loop.runUntil(predicate, patience);
   }

   /// Connects, and waits until the server has looked at it.
   std::unique_ptr<SmbusClient> clientNew() {
      auto client = std::make_unique<SmbusClient>(path);
      takeIn(1);
      return client;
   }

   void takeIn(std::uint64_t count) {
      const Server::Counters& counters = server->counters();
      _looked += count;
      EXPECT_TRUE(loopUntil([&] {
         return counters.accepted.value() + counters.refused.value() + counters.overLimit.value() >=
                _looked;
      }));
   }

   bool hasConnections(std::size_t count) {
      return loopUntil([&] { return server->connections().size() == count; });
   }

   TestSupport::TempDir directory;
   const std::string path = directory.path("socket");
   UnixFdRes listener{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
   Platform::EventLoop loop;
   std::vector<std::shared_ptr<FakeSmbus>> fakes;
   bool isAdmitting = true;
   std::optional<Server> server;

private:
   std::uint64_t _looked = 0;
};

/// The bytes that FakeSmbus gives.
std::string valuesAt(unsigned device, std::vector<std::uint8_t> offset, std::size_t length) {
   std::string values;
   for (std::size_t i = 0; i < length; ++i) {
      values.push_back(
         static_cast<char>(FakeSmbus::valueAt(static_cast<std::uint8_t>(device), offset, i)));
   }
   return values;
}

TEST_F(ServerTest, AnswersARead) {
   start(1);
   const auto client = clientNew();
   ASSERT_TRUE(client->send(SmbusRequests(7).read({.device = 0x51, .offset = 0x12}, 4).frame()));
   const auto response = client->response();
   ASSERT_TRUE(response);
   EXPECT_EQ(response->xid(), 7U);
   EXPECT_FALSE(response->failed());
   EXPECT_EQ(response->error(), "");
   ASSERT_EQ(response->responses_size(), 1);
   EXPECT_EQ(response->responses(0).data(), valuesAt(0x51, {0x12}, 4));
   EXPECT_THAT(fakes[0]->journal(), ElementsAre("begin", "read 51 [12] 4", "end"));
}

// What a client does before the server looks comes in one event with its end.

TEST_F(ServerTest, AClientThatHalfClosesAtOnceGetsItsAnswerAndThenTheEnd) {
   start(1);
   SmbusClient client(path);
   ASSERT_TRUE(client.send(SmbusRequests(7).read({}, 4).frame()));
   client.halfClose();
   takeIn(1);
   const auto response = client.response();
   ASSERT_TRUE(response);
   EXPECT_EQ(response->xid(), 7U);
   EXPECT_TRUE(client.isEnded());
   EXPECT_TRUE(hasConnections(0));
}

TEST_F(ServerTest, AClientThatGoesInTheMiddleOfAFrameIsForgotten) {
   start(1);
   {
      SmbusClient client(path);
      ASSERT_TRUE(client.send(SmbusRequests(7).read({}, 4).frame().substr(0, 9)));
   }
   takeIn(1);
   EXPECT_TRUE(hasConnections(0));
   EXPECT_EQ(fakes[0]->transfers(), 0U);
   EXPECT_EQ(server->malformed(), 0U);
}

TEST_F(ServerTest, AClientThatHalfClosesInTheMiddleOfASecondFrameGetsTheFirstAnswerAndTheEnd) {
   start(1);
   SmbusClient client(path);
   const std::string frame = SmbusRequests(7).read({}, 4).frame();
   ASSERT_TRUE(client.send(frame + frame.substr(0, 9)));
   client.halfClose();
   takeIn(1);
   EXPECT_TRUE(client.response());
   EXPECT_TRUE(client.isEnded());
   EXPECT_TRUE(hasConnections(0));
   EXPECT_EQ(fakes[0]->transfers(), 1U);
}

} // namespace
} // namespace Nimbo
