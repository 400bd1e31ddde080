#include "nimbo/Server.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/entity/EventLoop.h"
#include "platform/trace/CaptureScope.h"
#include "tests/support/FakeSmbus.h"
#include "tests/support/NoDescriptorsLeft.h"
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

   std::uint64_t malformed() const { return server->counters().malformed.value(); }

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
   EXPECT_EQ(malformed(), 0U);
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

TEST_F(ServerTest, AHalfClosedClientGetsAllTheAnswersToWhatItHadSent) {
   start(1);
   SmbusClient client(path);
   for (std::uint64_t xid = 1; xid <= 20; ++xid) {
      ASSERT_TRUE(client.send(SmbusRequests(xid).read({}, 4).frame()));
   }
   client.halfClose();
   takeIn(1);
   for (std::uint64_t xid = 1; xid <= 20; ++xid) {
      const auto response = client.response();
      ASSERT_TRUE(response);
      EXPECT_EQ(response->xid(), xid);
   }
   EXPECT_TRUE(client.isEnded());
}

TEST_F(ServerTest, AClientThatHalfClosesWhileItsRequestIsAtWorkGetsItsAnswer) {
   start(1);
   fakes[0]->hang();
   const auto client = clientNew();
   ASSERT_TRUE(client->send(SmbusRequests(7).read({}, 4).frame()));
   fakes[0]->waitFor(1);
   client->halfClose();
   fakes[0]->letGo();
   ASSERT_TRUE(client->response());
   EXPECT_TRUE(client->isEnded());
   EXPECT_TRUE(hasConnections(0));
}

TEST_F(ServerTest, AClientThatGoesBeforeItsAnswerHoldsUpNobody) {
   start(1);
   fakes[0]->hang();
   auto client = clientNew();
   ASSERT_TRUE(client->send(SmbusRequests(1).read({}, 4).frame()));
   fakes[0]->waitFor(1);
   const auto other = clientNew();
   ASSERT_TRUE(other->send(SmbusRequests(2).read({}, 4).frame()));
   client.reset();
   fakes[0]->letGo();
   const auto response = other->response();
   ASSERT_TRUE(response);
   EXPECT_EQ(response->xid(), 2U);
   EXPECT_TRUE(hasConnections(1));
}

// -- frames --------------------------------------------------------------------------------------

TEST_F(ServerTest, TakesAFrameByteByByte) {
   start(1);
   const auto client = clientNew();
   for (const char byte : SmbusRequests(7).read({}, 4).frame()) {
      EXPECT_FALSE(client->hasInput());
      ASSERT_TRUE(client->send(std::string_view(&byte, 1)));
   }
   ASSERT_TRUE(client->response());
   EXPECT_EQ(fakes[0]->transfers(), 1U);
}

TEST_F(ServerTest, AnswersTheRequestsOfAConnectionInTheirOrder) {
   start(2);
   const auto client = clientNew();
   std::string frames;
   for (std::uint64_t xid = 0; xid < 300; ++xid) {
      frames += SmbusRequests(xid)
                   .read({.bus = static_cast<unsigned>(xid % 2),
                          .offset = static_cast<std::uint32_t>(xid & 0xff)},
                         3)
                   .frame();
   }
   ASSERT_TRUE(client->send(frames));
   for (std::uint64_t xid = 0; xid < 300; ++xid) {
      const auto response = client->response();
      ASSERT_TRUE(response);
      ASSERT_EQ(response->xid(), xid);
      ASSERT_EQ(response->responses(0).data(), valuesAt(0x50, {static_cast<std::uint8_t>(xid)}, 3));
   }
}

TEST_F(ServerTest, AnswersATransactionOfNoRequests) {
   start(1);
   const auto client = clientNew();
   ASSERT_TRUE(client->send(SmbusRequests(7).frame()));
   const auto response = client->response();
   ASSERT_TRUE(response);
   EXPECT_EQ(response->xid(), 7U);
   EXPECT_FALSE(response->failed());
   EXPECT_EQ(response->responses_size(), 0);
   EXPECT_EQ(fakes[0]->transfers(), 0U);
}

TEST_F(ServerTest, AnswersAnEmptyFrame) {
   start(1);
   const auto client = clientNew();
   ASSERT_TRUE(client->send(SmbusRequests::framed(1, "")));
   const auto response = client->response();
   ASSERT_TRUE(response);
   EXPECT_EQ(response->xid(), 0U);
   EXPECT_FALSE(response->failed());
}

TEST_F(ServerTest, TakesTheLongestFrame) {
   start(1);
   const auto client = clientNew();
   SmbusRequests requests(7);
   requests.write({}, std::vector<std::uint8_t>(8000, 0x5a));
   // What nobody knows is left alone, and makes up the rest.
   const std::string known = requests.payload();
   const std::size_t rest = FrameReader::longestRequest - known.size() - 5;
   std::string payload = known + '\x82' + '\x01'; // field 16, a string
   payload += static_cast<char>((rest & 0x7f) | 0x80);
   payload += static_cast<char>(((rest >> 7) & 0x7f) | 0x80);
   payload += static_cast<char>(rest >> 14);
   payload.append(rest, 'x');
   ASSERT_EQ(payload.size(), FrameReader::longestRequest);
   ASSERT_TRUE(client->send(SmbusRequests::framed(1, payload)));
   const auto response = client->response();
   ASSERT_TRUE(response);
   EXPECT_FALSE(response->failed()) << response->error();
   EXPECT_EQ(fakes[0]->transfers(), 1U);
}

struct Malformed {
   const char* what;
   std::string bytes;
   const char* why;
};

// Else its bytes are printed, those between its members included.
void PrintTo(const Malformed& malformed, std::ostream* out) {
   *out << malformed.what;
}

class MalformedFrame : public ServerTest, public testing::WithParamInterface<Malformed> {};

TEST_P(MalformedFrame, EndsItsConnectionWithOneLineAndNothingElse) {
   start(1);
   const auto other = clientNew();
   const CaptureScope trace("nimbo/*=0");
   const auto client = clientNew();
   ASSERT_TRUE(client->send(GetParam().bytes));
   EXPECT_TRUE(client->isEnded());
   EXPECT_TRUE(hasConnections(1));
   EXPECT_THAT(trace.texts(),
               ElementsAre(fmt::format("Ended connection 2 of a test: {}", GetParam().why)));
   EXPECT_EQ(malformed(), 1U);
   EXPECT_EQ(fakes[0]->transfers(), 0U);
   ASSERT_TRUE(other->send(SmbusRequests(7).read({}, 4).frame()));
   EXPECT_TRUE(other->response());
}

TEST_P(MalformedFrame, ComesAfterTheAnswersToThoseBeforeIt) {
   start(1);
   const auto client = clientNew();
   const std::string good = SmbusRequests(7).read({}, 4).frame();
   ASSERT_TRUE(client->send(good + good + GetParam().bytes + good));
   EXPECT_TRUE(client->response());
   EXPECT_TRUE(client->response());
   EXPECT_TRUE(client->isEnded());
   EXPECT_TRUE(hasConnections(0));
   EXPECT_EQ(fakes[0]->transfers(), 2U);
}

INSTANTIATE_TEST_SUITE_P(
   All, MalformedFrame,
   testing::Values(Malformed{"Response", SmbusRequests::framed(2, ""),
                             "a frame of kind 2 instead of 1"},
                   Malformed{"OneByte", std::string(1, '\0'), "a frame of kind 0 instead of 1"},
                   Malformed{"Text", "GET / HTTP/1.0\r\n\r\n", "a frame of kind 71 instead of 1"},
                   Malformed{"TooLong", std::string("\x01\x00\x00\x01", 4),
                             "a frame of 65536 bytes; at most 65535 are possible"},
                   Malformed{"Longest", std::string("\x01\xff\xff\xff", 4),
                             "a frame of 16777215 bytes; at most 65535 are possible"},
                   Malformed{"NoMessage", SmbusRequests::framed(1, "\xff\xff\xff"),
                             "a frame whose message cannot be read"},
                   Malformed{"CutShort",
                             [] {
                                const std::string payload = SmbusRequests(7).read({}, 4).payload();
                                return SmbusRequests::framed(1,
                                                             payload.substr(0, payload.size() - 1));
                             }(),
                             "a frame whose message cannot be read"}),
   [](const auto& given) { return std::string(given.param.what); });

// -- transactions --------------------------------------------------------------------------------

TEST_F(ServerTest, AFailedTransactionSaysWhichRequestAndKeepsTheResponsesBefore) {
   start(1);
   fakes[0]->with([](FakeSmbus& bus) { bus.errors = {0, 0, ENXIO}; });
   const auto client = clientNew();
   SmbusRequests requests(7);
   requests.read({.offset = 1}, 2).write({.offset = 2}, {9}).read({.offset = 3}, 4).read({}, 1);
   ASSERT_TRUE(client->send(requests.frame()));
   const auto response = client->response();
   ASSERT_TRUE(response);
   EXPECT_EQ(response->xid(), 7U);
   EXPECT_TRUE(response->failed());
   EXPECT_EQ(response->error(), "request 3 of 4 (read of 4 bytes, bus 0 'bus0', device 0x50, "
                                "offset 0x3): No such device or address (6)");
   ASSERT_EQ(response->responses_size(), 2);
   EXPECT_EQ(response->responses(0).data(), valuesAt(0x50, {1}, 2));
   EXPECT_EQ(response->responses(1).data(), "");
   EXPECT_THAT(fakes[0]->journal(),
               ElementsAre("begin", "read 50 [01] 2", "write 50 [02] 09", "read 50 [03] 4", "end"));
   // The connection is as good as before.
   ASSERT_TRUE(client->send(SmbusRequests(8).read({}, 4).frame()));
   EXPECT_FALSE(client->response()->failed());
}

TEST_F(ServerTest, NothingIsDoneWhenOneRequestIsForNoBus) {
   start(1);
   const auto client = clientNew();
   ASSERT_TRUE(client->send(SmbusRequests(7).write({}, {1}).read({.bus = 5}, 4).frame()));
   const auto response = client->response();
   ASSERT_TRUE(response);
   EXPECT_TRUE(response->failed());
   EXPECT_EQ(response->error(), "request 2 of 2 (read of 4 bytes, bus 5, device 0x50, offset "
                                "0x0): there is no such bus");
   EXPECT_EQ(response->responses_size(), 0);
   EXPECT_EQ(fakes[0]->transfers(), 0U);
}

TEST_F(ServerTest, AnswersAnyNumberOfTransactionsThatNeedNoBus) {
   start(1);
   const auto client = clientNew();
   std::string frames;
   for (std::uint64_t xid = 0; xid < 500; ++xid) {
      frames += SmbusRequests(xid).read({.bus = 9}, 1).frame();
   }
   ASSERT_TRUE(client->send(frames));
   for (std::uint64_t xid = 0; xid < 500; ++xid) {
      const auto response = client->response();
      ASSERT_TRUE(response);
      ASSERT_EQ(response->xid(), xid);
   }
}

TEST_F(ServerTest, RequestsOfATransactionGoToSeveralBusesInTheirOrder) {
   start(2);
   const auto client = clientNew();
   SmbusRequests requests(7);
   requests.read({.bus = 0, .offset = 1}, 1)
      .read({.bus = 0, .offset = 2}, 1)
      .read({.bus = 1, .offset = 3}, 1)
      .read({.bus = 0, .offset = 4}, 1);
   ASSERT_TRUE(client->send(requests.frame()));
   const auto response = client->response();
   ASSERT_TRUE(response);
   ASSERT_EQ(response->responses_size(), 4);
   for (int i = 0; i < 4; ++i) {
      EXPECT_EQ(response->responses(i).data(),
                valuesAt(0x50, {static_cast<std::uint8_t>(i + 1)}, 1));
   }
   EXPECT_THAT(fakes[0]->journal(), ElementsAre("begin", "read 50 [01] 1", "read 50 [02] 1", "end",
                                                "begin", "read 50 [04] 1", "end"));
   EXPECT_THAT(fakes[1]->journal(), ElementsAre("begin", "read 50 [03] 1", "end"));
}

TEST_F(ServerTest, ATransactionThatFailsAtItsSecondBusEndsThere) {
   start(3);
   fakes[1]->with([](FakeSmbus& bus) { bus.errors = {EIO}; });
   const auto client = clientNew();
   ASSERT_TRUE(client->send(
      SmbusRequests(7).read({.bus = 0}, 1).read({.bus = 1}, 1).read({.bus = 2}, 1).frame()));
   const auto response = client->response();
   ASSERT_TRUE(response);
   EXPECT_TRUE(response->failed());
   EXPECT_EQ(response->responses_size(), 1);
   EXPECT_THAT(response->error(), testing::StartsWith("request 2 of 3 (read of 1 byte, bus 1"));
   EXPECT_EQ(fakes[2]->transfers(), 0U);
}

// -- who goes first ------------------------------------------------------------------------------

TEST_F(ServerTest, ConnectionsTakeTurnsByTheirRequests) {
   start(1);
   fakes[0]->hang();
   const auto greedy = clientNew();
   std::string frames;
   for (std::uint64_t xid = 1; xid <= 3; ++xid) {
      SmbusRequests requests(xid);
      for (int i = 0; i < 10; ++i) {
         requests.write({.device = 0x10}, {static_cast<std::uint8_t>(xid)});
      }
      frames += requests.frame();
   }
   ASSERT_TRUE(greedy->send(frames));
   fakes[0]->waitFor(1);
   const auto modest = clientNew();
   frames.clear();
   for (std::uint64_t xid = 1; xid <= 12; ++xid) {
      frames +=
         SmbusRequests(xid).write({.device = 0x20}, {static_cast<std::uint8_t>(xid)}).frame();
   }
   ASSERT_TRUE(modest->send(frames));
   const auto bus = server->buses()->buses()[0];
   ASSERT_TRUE(loopUntil([&] { return bus->waiting() == 1; }));
   fakes[0]->letGo();
   for (int i = 0; i < 3; ++i) {
      ASSERT_TRUE(greedy->response());
   }
   for (int i = 0; i < 12; ++i) {
      ASSERT_TRUE(modest->response());
   }
   std::string order;
   for (const std::string& line : fakes[0]->journal()) {
      if (line.starts_with("write")) {
         order += line.starts_with("write 10") ? 'g' : 'm';
      }
   }
   // Each ten requests of the one are followed by ten of the other.
   EXPECT_EQ(order, "gggggggggg"
                    "mmmmmmmmmm"
                    "gggggggggg"
                    "mm"
                    "gggggggggg");
}

TEST_F(ServerTest, NobodyComesBetweenTheRequestsOfATransaction) {
   start(1);
   fakes[0]->hang();
   std::vector<std::unique_ptr<SmbusClient>> clients;
   for (unsigned i = 0; i < 5; ++i) {
      clients.push_back(clientNew());
      SmbusRequests requests(i);
      for (int k = 0; k < 4; ++k) {
         requests.read({.device = 0x10 + i}, 1);
      }
      ASSERT_TRUE(clients.back()->send(requests.frame()));
   }
   fakes[0]->waitFor(1);
   fakes[0]->letGo();
   for (const auto& client : clients) {
      ASSERT_TRUE(client->response());
   }
   const std::vector<std::string> journal = fakes[0]->journal();
   ASSERT_EQ(journal.size(), 5U * 6);
   for (std::size_t run = 0; run < journal.size(); run += 6) {
      EXPECT_EQ(journal[run], "begin");
      for (std::size_t k = 2; k <= 4; ++k) {
         EXPECT_EQ(journal[run + k], journal[run + 1]);
      }
      EXPECT_EQ(journal[run + 5], "end");
   }
}

// -- buses that hang -----------------------------------------------------------------------------

TEST_F(ServerTest, AHungBusHoldsUpNobodyElseHoweverManyWaitForIt) {
   start(2);
   fakes[0]->hang();
   std::vector<std::unique_ptr<SmbusClient>> waiting;
   for (std::uint64_t i = 0; i < 10; ++i) {
      waiting.push_back(clientNew());
      const std::string frame = SmbusRequests(i).read({}, 1).frame();
      ASSERT_TRUE(waiting.back()->send(frame + frame + frame));
   }
   fakes[0]->waitFor(1);
   const auto client = clientNew();
   for (std::uint64_t xid = 0; xid < 20; ++xid) {
      ASSERT_TRUE(client->send(SmbusRequests(xid).read({.bus = 1}, 1).frame()));
      ASSERT_TRUE(client->response());
   }
   EXPECT_EQ(fakes[0]->transfers(), 1U);
   fakes[0]->letGo();
   for (const auto& each : waiting) {
      for (int i = 0; i < 3; ++i) {
         ASSERT_TRUE(each->response());
      }
   }
}

TEST_F(ServerTest, AllBusesButOneMayHang) {
   start(4);
   std::vector<std::unique_ptr<SmbusClient>> held;
   for (unsigned bus = 0; bus < 3; ++bus) {
      fakes[bus]->hang();
      held.push_back(clientNew());
      ASSERT_TRUE(held.back()->send(SmbusRequests(bus).read({.bus = bus}, 1).frame()));
      fakes[bus]->waitFor(1);
   }
   const auto client = clientNew();
   ASSERT_TRUE(client->send(SmbusRequests(7).read({.bus = 3}, 1).frame()));
   ASSERT_TRUE(client->response());
   // That there is no such bus is said even when all of them hang.
   fakes[3]->hang();
   held.push_back(clientNew());
   ASSERT_TRUE(held.back()->send(SmbusRequests(3).read({.bus = 3}, 1).frame()));
   fakes[3]->waitFor(2);
   ASSERT_TRUE(client->send(SmbusRequests(8).read({.bus = 4}, 1).frame()));
   ASSERT_TRUE(client->response());
   for (unsigned bus = 0; bus < 4; ++bus) {
      fakes[bus]->letGo();
      EXPECT_TRUE(held[bus]->response());
   }
}

TEST_F(ServerTest, ATransactionThatHangsAtItsSecondBusHoldsUpNobodyAtItsFirst) {
   start(2);
   fakes[1]->hang();
   std::vector<std::unique_ptr<SmbusClient>> over;
   for (std::uint64_t i = 0; i < 3; ++i) {
      over.push_back(clientNew());
      ASSERT_TRUE(over.back()->send(
         SmbusRequests(i).read({.bus = 0}, 1).read({.bus = 1}, 1).read({.bus = 0}, 1).frame()));
   }
   fakes[0]->waitFor(3);
   fakes[1]->waitFor(1);
   const auto client = clientNew();
   for (std::uint64_t xid = 0; xid < 10; ++xid) {
      ASSERT_TRUE(client->send(SmbusRequests(xid).read({.bus = 0}, 1).frame()));
      ASSERT_TRUE(client->response());
   }
   fakes[1]->letGo();
   for (const auto& each : over) {
      const auto response = each->response();
      ASSERT_TRUE(response);
      EXPECT_EQ(response->responses_size(), 3);
   }
}

TEST_F(ServerTest, TransactionsThatCrossEachOtherOverTwoBusesAllGetThrough) {
   start(3);
   fakes[0]->hang();
   fakes[1]->hang();
   std::vector<std::unique_ptr<SmbusClient>> clients;
   for (unsigned i = 0; i < 8; ++i) {
      clients.push_back(clientNew());
      SmbusRequests requests(i);
      for (unsigned k = 0; k < 6; ++k) {
         requests.read({.bus = (i + k) % 2}, 1);
      }
      ASSERT_TRUE(clients.back()->send(requests.frame() + requests.frame()));
   }
   fakes[0]->waitFor(1);
   fakes[1]->waitFor(1);
   const auto client = clientNew();
   ASSERT_TRUE(client->send(SmbusRequests(1).read({.bus = 2}, 1).frame()));
   ASSERT_TRUE(client->response());
   fakes[0]->letGo();
   ASSERT_TRUE(client->send(SmbusRequests(2).read({.bus = 0}, 1).frame()));
   ASSERT_TRUE(client->response());
   fakes[1]->letGo();
   for (const auto& each : clients) {
      for (int i = 0; i < 2; ++i) {
         const auto response = each->response();
         ASSERT_TRUE(response);
         EXPECT_EQ(response->responses_size(), 6);
      }
   }
}

// A batch of events that one thread takes has work for several buses in it.
TEST_F(ServerTest, RequestsForSeveralBusesThatComeAtOnceDoNotWaitForEachOther) {
   start(5);
   std::vector<std::unique_ptr<SmbusClient>> clients;
   for (unsigned i = 0; i < 15; ++i) {
      clients.push_back(std::make_unique<SmbusClient>(path));
      ASSERT_TRUE(clients.back()->send(SmbusRequests(i).read({.bus = i % 5}, 1).frame()));
   }
   for (unsigned bus = 0; bus < 4; ++bus) {
      fakes[bus]->hang();
   }
   takeIn(15);
   for (unsigned bus = 0; bus < 4; ++bus) {
      fakes[bus]->waitFor(1);
   }
   for (unsigned i = 4; i < 15; i += 5) {
      EXPECT_TRUE(clients[i]->response());
   }
   for (unsigned bus = 0; bus < 4; ++bus) {
      fakes[bus]->letGo();
   }
   for (unsigned i = 0; i < 15; ++i) {
      if (i % 5 != 4) {
         EXPECT_TRUE(clients[i]->response());
      }
   }
}

TEST_F(ServerTest, ABusThatCannotBeHadFailsItsTransactionsAndNoOthers) {
   start(2);
   fakes[0]->with([](FakeSmbus& bus) {
      bus.busy.emplace(ENOENT, std::generic_category(), "cannot open /dev/i2c-3");
   });
   const auto client = clientNew();
   ASSERT_TRUE(client->send(SmbusRequests(7).read({.bus = 1}, 1).read({.bus = 0}, 1).frame()));
   auto response = client->response();
   ASSERT_TRUE(response);
   EXPECT_EQ(response->error(),
             "request 2 of 2 (read of 1 byte, bus 0 'bus0', device 0x50, offset 0x0): cannot open "
             "/dev/i2c-3: No such file or directory");
   EXPECT_EQ(response->responses_size(), 1);
   fakes[0]->with([](FakeSmbus& bus) { bus.busy.reset(); });
   ASSERT_TRUE(client->send(SmbusRequests(8).read({.bus = 0}, 1).frame()));
   response = client->response();
   ASSERT_TRUE(response);
   EXPECT_FALSE(response->failed());
}

// -- clients that do not read --------------------------------------------------------------------

/// Sends copies of `frame` until the daemon has not taken any for a while; returns how many whole
/// ones it was given. Whatever the while is, what follows must hold.
std::size_t flood(SmbusClient& client, const std::string& frame, std::size_t most) {
   std::size_t sent = 0;
   while (sent < most * frame.size()) {
      const std::size_t some = client.sendSome(std::string_view(frame).substr(sent % frame.size()));
      sent += some;
      ::pollfd room = {client.fd(), POLLOUT, 0};
      if (some == 0 && ::poll(&room, 1, 200) == 0) {
         break;
      }
   }
   const std::size_t rest = (frame.size() - sent % frame.size()) % frame.size();
   // The rest of a frame that was begun goes once there is room.
   if (rest > 0) {
      EXPECT_LT(rest, frame.size());
   }
   return sent / frame.size();
}

TEST_F(ServerTest, AClientThatDoesNotReadIsNotServedUntilItDoes) {
   start(1);
   const auto client = clientNew();
   constexpr std::size_t most = 20000; // their answers take 160 MB
   const std::string frame = SmbusRequests(7).read({}, 8192).frame();
   const std::size_t sent = flood(*client, frame, most);
   EXPECT_LT(sent, most);
   EXPECT_LT(fakes[0]->transfers(), most / 10);
   // Nobody else is held up.
   const auto other = clientNew();
   ASSERT_TRUE(other->send(frame));
   ASSERT_TRUE(other->response());
   for (std::size_t i = 0; i < sent; ++i) {
      const auto response = client->response();
      ASSERT_TRUE(response);
      ASSERT_EQ(response->responses(0).data().size(), 8192U);
   }
   EXPECT_EQ(fakes[0]->transfers(), sent + 1);
}

TEST_F(ServerTest, AClientThatGoesWithoutReadingIsForgotten) {
   start(1);
   auto client = clientNew();
   flood(*client, SmbusRequests(7).read({}, 8192).frame(), 20000);
   client.reset();
   EXPECT_TRUE(hasConnections(0));
}

TEST_F(ServerTest, AHalfClosedClientThatReadsLateGetsAllItsAnswers) {
   start(1);
   SmbusClient client(path);
   constexpr std::size_t count = 100;
   const std::string frame = SmbusRequests(7).read({}, 8192).frame();
   for (std::size_t i = 0; i < count; ++i) {
      ASSERT_TRUE(client.send(frame));
   }
   client.halfClose();
   takeIn(1);
   ASSERT_TRUE(client.hasInput() || loopUntil([&] { return client.hasInput(); }));
   for (std::size_t i = 0; i < count; ++i) {
      ASSERT_TRUE(client.response());
   }
   EXPECT_TRUE(client.isEnded());
   EXPECT_TRUE(hasConnections(0));
}

// -- taking in -----------------------------------------------------------------------------------

TEST_F(ServerTest, TakesInNoMoreConnectionsThanItMay) {
   start(1, 2);
   auto one = clientNew();
   const auto two = clientNew();
   const CaptureScope trace("nimbo/*=0");
   const auto three = clientNew();
   EXPECT_TRUE(three->isEnded());
   EXPECT_THAT(trace.texts(), ElementsAre("Refused a test: there are 2 connections already"));
   EXPECT_EQ(server->counters().overLimit.value(), 1U);
   EXPECT_EQ(server->counters().accepted.value(), 2U);
   ASSERT_TRUE(two->send(SmbusRequests(7).read({}, 1).frame()));
   EXPECT_TRUE(two->response());
   one.reset();
   ASSERT_TRUE(hasConnections(1));
   const auto four = clientNew();
   ASSERT_TRUE(four->send(SmbusRequests(7).read({}, 1).frame()));
   EXPECT_TRUE(four->response());
}

TEST_F(ServerTest, RefusesWhoIsNotAdmitted) {
   start(1);
   isAdmitting = false;
   const CaptureScope trace("nimbo/*=0");
   SmbusClient client(path);
   ASSERT_TRUE(client.send(SmbusRequests(7).read({}, 1).frame()));
   takeIn(1);
   EXPECT_TRUE(client.isEnded());
   EXPECT_THAT(trace.texts(), ElementsAre("Refused a test: not on the list"));
   EXPECT_EQ(server->counters().refused.value(), 1U);
   EXPECT_EQ(server->counters().accepted.value(), 0U);
   EXPECT_EQ(fakes[0]->transfers(), 0U);
   EXPECT_TRUE(server->connections().empty());
}

TEST_F(ServerTest, TakesConnectionsInAgainWhenTheSystemHasRoomForThem) {
   SKIP_IF_THE_SANITIZER_NEEDS_DESCRIPTORS();
   start(1);
   const CaptureScope trace("nimbo/*=0");
   SmbusClient client(path);
   {
      const TestSupport::NoDescriptorsLeft none;
      EXPECT_TRUE(loopUntil([&] { return !trace.texts().empty(); }));
      loop.runFor(std::chrono::milliseconds(350)); // it is tried again, and not said again
   }
   EXPECT_THAT(trace.texts(), ElementsAre("No connection can be taken in: Too many open files"));
   takeIn(1);
   ASSERT_TRUE(client.send(SmbusRequests(7).read({}, 1).frame()));
   EXPECT_TRUE(client.response());
}

TEST_F(ServerTest, ShowsItsConnections) {
   start(1);
   const auto one = clientNew();
   const auto two = clientNew();
   for (std::uint64_t xid = 0; xid < 3; ++xid) {
      ASSERT_TRUE(two->send(SmbusRequests(xid).read({}, 1).frame()));
      ASSERT_TRUE(two->response());
   }
   std::vector<Server::ConnectionStatus> connections = server->connections();
   ASSERT_EQ(connections.size(), 2U);
   std::sort(connections.begin(), connections.end(),
             [](const auto& left, const auto& right) { return left.id < right.id; });
   EXPECT_EQ(connections[0].id, 1U);
   EXPECT_EQ(connections[0].peer, "a test");
   EXPECT_EQ(connections[0].transactions, 0U);
   EXPECT_EQ(connections[1].id, 2U);
   EXPECT_EQ(connections[1].transactions, 3U);
}

// -- other buses ---------------------------------------------------------------------------------

TEST_F(ServerTest, WithoutABusItSaysSo) {
   start(0);
   const auto client = clientNew();
   ASSERT_TRUE(client->send(SmbusRequests(7).read({}, 1).frame()));
   EXPECT_THAT(client->response()->error(), testing::EndsWith("there is no such bus"));
}

TEST_F(ServerTest, ATransactionEndsWithTheBusesThatItBeganWith) {
   start(2);
   const std::vector<std::shared_ptr<FakeSmbus>> old = fakes;
   const std::weak_ptr<Bus> oldBus = server->buses()->buses()[1];
   old[0]->hang();
   const auto client = clientNew();
   ASSERT_TRUE(client->send(SmbusRequests(1).read({.bus = 0}, 1).read({.bus = 1}, 1).frame()));
   old[0]->waitFor(1);
   busesAre(1); // the old ones have not gone yet
   const auto other = clientNew();
   ASSERT_TRUE(other->send(SmbusRequests(2).read({.bus = 0}, 1).frame()));
   ASSERT_TRUE(other->response());
   ASSERT_TRUE(other->send(SmbusRequests(3).read({.bus = 1}, 1).frame()));
   EXPECT_TRUE(other->response()->failed());
   EXPECT_FALSE(oldBus.expired());
   old[0]->letGo();
   const auto response = client->response();
   ASSERT_TRUE(response);
   EXPECT_FALSE(response->failed());
   EXPECT_EQ(old[1]->transfers(), 1U);
   EXPECT_EQ(fakes[0]->transfers(), 1U);
   // They go with the last that used them.
   EXPECT_TRUE(loopUntil([&] { return oldBus.expired(); }));
   EXPECT_FALSE(old[0]->isMisused());
}

TEST_F(ServerTest, BusesThatHangAreReplacedAgainAndAgain) {
   start(2);
   std::vector<std::shared_ptr<FakeSmbus>> old;
   std::vector<std::unique_ptr<SmbusClient>> held;
   for (std::uint64_t round = 0; round < 6; ++round) {
      for (unsigned bus = 0; bus < 2; ++bus) {
         fakes[bus]->hang();
         held.push_back(clientNew());
         ASSERT_TRUE(held.back()->send(SmbusRequests(round).read({.bus = bus}, 1).frame()));
         fakes[bus]->waitFor(1);
      }
      old.insert(old.end(), fakes.begin(), fakes.end());
      busesAre(2);
      const auto client = clientNew();
      for (unsigned bus = 0; bus < 2; ++bus) {
         ASSERT_TRUE(client->send(SmbusRequests(round).read({.bus = bus}, 1).frame()));
         ASSERT_TRUE(client->response());
      }
      busesAre(2);
   }
   for (const auto& each : old) {
      each->letGo();
   }
   for (const auto& each : held) {
      EXPECT_TRUE(each->response());
   }
}

TEST_F(ServerTest, BusesMayBeKeptFromOneTableToTheNext) {
   start(2);
   fakes[0]->hang();
   const auto client = clientNew();
   ASSERT_TRUE(client->send(SmbusRequests(1).read({.bus = 0}, 1).frame()));
   fakes[0]->waitFor(1);
   server->busesAre(std::make_shared<const BusTable>(server->buses()->buses()));
   const auto other = clientNew();
   ASSERT_TRUE(other->send(SmbusRequests(2).read({.bus = 0}, 1).frame()));
   ASSERT_TRUE(loopUntil([&] { return server->buses()->buses()[0]->waiting() == 1; }));
   fakes[0]->letGo();
   EXPECT_TRUE(client->response());
   EXPECT_TRUE(other->response());
}

// -- the end -------------------------------------------------------------------------------------

TEST_F(ServerTest, StopClosesIdleConnectionsAndSaysWhenItIsDone) {
   start(1);
   const auto one = clientNew();
   const auto two = clientNew();
   ASSERT_TRUE(two->send(SmbusRequests(7).read({}, 1).frame()));
   ASSERT_TRUE(two->response());
   int stopped = 0;
   server->stop([&] { ++stopped; });
   EXPECT_EQ(stopped, 0);
   EXPECT_TRUE(loopUntil([&] { return stopped > 0; }));
   EXPECT_TRUE(one->isEnded());
   EXPECT_TRUE(two->isEnded());
   EXPECT_TRUE(hasConnections(0));
   loop.poll();
   EXPECT_EQ(stopped, 1);
}

TEST_F(ServerTest, StopFinishesAndAnswersWhatHasBegunAndNothingElse) {
   start(1);
   fakes[0]->hang();
   std::vector<std::unique_ptr<SmbusClient>> clients;
   for (std::uint64_t i = 0; i < 4; ++i) {
      clients.push_back(clientNew());
      const std::string frame = SmbusRequests(i).read({}, 1).frame();
      ASSERT_TRUE(clients.back()->send(frame + frame)); // the second is not begun
   }
   const auto bus = server->buses()->buses()[0];
   ASSERT_TRUE(loopUntil([&] { return bus->waiting() == 3; }));
   const auto half = clientNew();
   ASSERT_TRUE(half->send(SmbusRequests(9).read({}, 1).frame().substr(0, 6)));
   int stopped = 0;
   server->stop([&] { ++stopped; });
   EXPECT_TRUE(half->isEnded());
   loop.poll();
   EXPECT_EQ(stopped, 0);
   fakes[0]->letGo();
   EXPECT_TRUE(loopUntil([&] { return stopped > 0; }));
   for (std::uint64_t i = 0; i < 4; ++i) {
      const auto response = clients[i]->response();
      ASSERT_TRUE(response);
      EXPECT_EQ(response->xid(), i);
      EXPECT_FALSE(response->failed());
      EXPECT_TRUE(clients[i]->isEnded());
   }
   EXPECT_EQ(fakes[0]->transfers(), 4U);
   loop.poll();
   EXPECT_EQ(stopped, 1);
}

TEST_F(ServerTest, StopFinishesATransactionAtAllItsBuses) {
   start(2);
   fakes[0]->hang();
   const auto client = clientNew();
   ASSERT_TRUE(client->send(SmbusRequests(7).read({.bus = 0}, 1).read({.bus = 1}, 1).frame()));
   fakes[0]->waitFor(1);
   bool stopped = false;
   server->stop([&] { stopped = true; });
   fakes[0]->letGo();
   EXPECT_TRUE(loopUntil([&] { return stopped; }));
   EXPECT_EQ(client->response()->responses_size(), 2);
}

TEST_F(ServerTest, StopTakesNoMoreConnectionsIn) {
   start(1);
   bool stopped = false;
   server->stop([&] { stopped = true; });
   SmbusClient client(path);
   EXPECT_TRUE(loopUntil([&] { return stopped; }));
   loop.poll();
   EXPECT_EQ(server->counters().accepted.value(), 0U);
}

TEST_F(ServerTest, StopWaitsForAClientThatHasToReadItsAnswerFirst) {
   start(1);
   const auto client = clientNew();
   const std::string frame = SmbusRequests(7).read({}, 8192).frame();
   flood(*client, frame, 20000);
   bool stopped = false;
   server->stop([&] { stopped = true; });
   std::size_t answers = 0;
   while (client->response()) {
      ++answers;
   }
   EXPECT_TRUE(loopUntil([&] { return stopped; }));
   EXPECT_EQ(answers, fakes[0]->transfers());
}

TEST_F(ServerTest, MayGoWhenItHasStoppedWhateverIsStillOnItsWay) {
   start(1);
   fakes[0]->hang();
   std::vector<std::unique_ptr<SmbusClient>> clients;
   for (std::uint64_t i = 0; i < 8; ++i) {
      clients.push_back(clientNew());
      ASSERT_TRUE(clients.back()->send(SmbusRequests(i).read({}, 1).frame()));
   }
   fakes[0]->waitFor(1);
   int stopped = 0;
   server->stop([&] {
      ++stopped;
      server.reset();
   });
   for (const auto& client : clients) {
      client->sendSome(SmbusRequests(99).read({}, 1).frame());
   }
   fakes[0]->letGo();
   EXPECT_TRUE(loopUntil([&] { return stopped > 0; }));
   loop.poll();
   EXPECT_EQ(stopped, 1);
}

TEST_F(ServerTest, SaysNothingOnceItIsGone) {
   start(1);
   bool stopped = false;
   server->stop([&] { stopped = true; });
   server.reset();
   loop.poll();
   EXPECT_FALSE(stopped);
}

TEST_F(ServerTest, ItsEndDropsWhatIsQueued) {
   start(2);
   fakes[0]->hang();
   std::vector<std::unique_ptr<SmbusClient>> clients;
   for (std::uint64_t i = 0; i < 3; ++i) {
      clients.push_back(clientNew());
      ASSERT_TRUE(
         clients.back()->send(SmbusRequests(i).read({.bus = 0}, 1).read({.bus = 1}, 1).frame()));
   }
   fakes[0]->waitFor(1);
   std::thread letsGo([&] { fakes[0]->letGo(); });
   server.reset();
   letsGo.join();
   EXPECT_FALSE(fakes[0]->isMisused());
}

TEST_F(ServerTest, ItsEndDoesNotWaitForClientsThatGoOnAndOn) {
   start(1);
   std::vector<std::thread> threads;
   for (int i = 0; i < 2; ++i) {
      threads.emplace_back([client = std::shared_ptr<SmbusClient>(clientNew())] {
         const std::string frame = SmbusRequests(7).read({}, 1).frame();
         bool isServed = client->send(frame + frame + frame);
         while (isServed) {
            isServed = client->send(frame) && client->response();
         }
      });
   }
   fakes[0]->waitFor(100);
   server.reset();
   for (std::thread& thread : threads) {
      thread.join();
   }
}

// -- all at once ---------------------------------------------------------------------------------

TEST_F(ServerTest, ClientsThatComeAndGoAnyHowLeaveNothingBehind) {
   constexpr int clients = 8;
   constexpr int rounds = 60;
   start(3, clients * rounds);
   std::atomic<int> over = 0;
   std::atomic<unsigned> wrong = 0;
   std::vector<std::thread> threads;
   for (int i = 0; i < clients; ++i) {
      threads.emplace_back([&, i] {
         std::mt19937 random(static_cast<unsigned>(i) + 1);
         const auto upTo = [&random](unsigned limit) {
            return static_cast<unsigned>(random() % limit);
         };
         for (int round = 0; round < rounds; ++round) {
            SmbusClient client(path);
            const unsigned whole = upTo(6);
            std::string bytes;
            for (unsigned k = 0; k < whole; ++k) {
               bytes += SmbusRequests(k)
                           .read({.bus = upTo(4)}, 1 + upTo(8192))
                           .write({.bus = upTo(4)}, {1})
                           .frame();
            }
            switch (upTo(6)) {
            case 0: // goes at once
               client.send(bytes);
               break;
            case 1: // goes in a frame
               client.send(bytes + bytes.substr(0, bytes.size() / 3));
               break;
            case 2: // is no client
               client.send(bytes + "garbage");
               break;
            case 3: // reads a bit
               client.send(bytes);
               if (whole > 0 && !client.response()) {
                  ++wrong;
               }
               break;
            case 4: // stops reading
               for (unsigned k = 0; k < 100; ++k) {
                  client.sendSome(SmbusRequests(k).read({}, 8192).frame());
               }
               break;
            default: // is a good client
               client.send(bytes);
               client.halfClose();
               for (unsigned k = 0; k < whole; ++k) {
                  const auto response = client.response();
                  wrong += !response || response->xid() != k ? 1 : 0;
               }
               wrong += client.isEnded() ? 0 : 1;
            }
         }
         ++over;
      });
   }
   std::vector<std::shared_ptr<FakeSmbus>> old;
   for (std::size_t count = 1; over < clients; count = count % 4 + 1) {
      loop.runUntil([&] { return over == clients; }, std::chrono::milliseconds(20));
      old.insert(old.end(), fakes.begin(), fakes.end());
      busesAre(count);
   }
   for (std::thread& thread : threads) {
      thread.join();
   }
   EXPECT_EQ(wrong, 0U);
   EXPECT_TRUE(hasConnections(0));
   for (const auto& fake : old) {
      EXPECT_FALSE(fake->isMisused());
   }
   busesAre(1);
   takeIn(clients * rounds);
   const auto client = clientNew();
   ASSERT_TRUE(client->send(SmbusRequests(7).read({}, 1).frame()));
   EXPECT_TRUE(client->response());
}

TEST_F(ServerTest, ManyClientsAtOnceAllGetTheirOwnAnswers) {
   constexpr unsigned clients = 16;
   constexpr unsigned buses = 3;
   constexpr std::uint64_t transactions = 300;
   start(buses, clients);
   std::vector<std::unique_ptr<SmbusClient>> connected;
   for (unsigned i = 0; i < clients; ++i) {
      connected.push_back(clientNew());
   }
   std::atomic<unsigned> wrong = 0;
   std::vector<std::thread> threads;
   for (unsigned i = 0; i < clients; ++i) {
      threads.emplace_back([&, i] {
         SmbusClient& client = *connected[i];
         std::mt19937 random(i + 1);
         const auto upTo = [&random](unsigned limit) {
            return static_cast<unsigned>(random() % limit);
         };
         struct Expected {
            std::uint64_t xid;
            bool isFailure;
            std::vector<std::string> data;
         };
         std::deque<Expected> expected;
         std::uint64_t next = 0;
         while (next < transactions || !expected.empty()) {
            std::string frames;
            for (unsigned burst = 1 + upTo(5); burst > 0 && next < transactions; --burst) {
               SmbusRequests requests(i * 1000 + next);
               expected.push_back({i * 1000 + next, false, {}});
               Expected& each = expected.back();
               ++next;
               for (unsigned request = 1 + upTo(4); request > 0; --request) {
                  const unsigned device = 0x10 + upTo(0x60);
                  const std::uint32_t offset = upTo(0x100);
                  if (upTo(20) == 0) {
                     requests.read({.bus = 77}, 1);
                     each.isFailure = true;
                     each.data.clear();
                     break;
                  }
                  if (upTo(3) == 0) {
                     requests.write({.bus = upTo(buses), .device = device}, {1, 2, 3});
                     each.data.emplace_back();
                  } else {
                     const std::size_t length = 1 + upTo(upTo(10) == 0 ? 4000 : 16);
                     requests.read(
                        {.bus = upTo(buses), .device = device, .offset = offset, .offsetBytes = 2},
                        length);
                     each.data.push_back(
                        valuesAt(device, {0, static_cast<std::uint8_t>(offset)}, length));
                  }
               }
               frames += requests.frame();
            }
            while (!frames.empty()) { // in pieces of any size
               const std::size_t piece = std::min<std::size_t>(frames.size(), 1 + upTo(200));
               if (!client.send(frames.substr(0, piece))) {
                  ++wrong;
                  return;
               }
               frames.erase(0, piece);
            }
            for (unsigned count = upTo(6); !expected.empty() && (count > 0 || next == transactions);
                 count -= count > 0 ? 1 : 0) {
               const auto response = client.response();
               const Expected each = expected.front();
               expected.pop_front();
               if (!response || response->xid() != each.xid ||
                   response->failed() != each.isFailure ||
                   response->responses_size() != static_cast<int>(each.data.size())) {
                  ++wrong;
                  return;
               }
               for (int k = 0; k < response->responses_size(); ++k) {
                  if (response->responses(k).data() != each.data[static_cast<std::size_t>(k)]) {
                     ++wrong;
                  }
               }
            }
         }
      });
   }
   for (std::thread& thread : threads) {
      thread.join();
   }
   EXPECT_EQ(wrong, 0U);
   const auto connections = server->connections();
   EXPECT_EQ(connections.size(), clients);
   for (const Server::ConnectionStatus& each : connections) {
      EXPECT_EQ(each.transactions, transactions);
   }
   bool stopped = false;
   server->stop([&] { stopped = true; });
   EXPECT_TRUE(loopUntil([&] { return stopped; }));
}

} // namespace
} // namespace Nimbo
