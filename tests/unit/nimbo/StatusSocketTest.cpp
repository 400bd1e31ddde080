#include "nimbo/StatusSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "nimbo/ListeningSocket.h"
#include "nimbo/UnixAddress.h"
#include "platform/trace/CaptureScope.h"
#include "tests/support/NoDescriptorsLeft.h"
#include "tests/support/TempDir.h"

namespace Nimbo {
namespace {

using namespace std::chrono_literals;
using Platform::Trace::CaptureScope;
using TarnRegFile::Utils::UnixFdRes;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr auto longTime = 60s;
constexpr std::size_t large = std::size_t{4} << 20; // more than a socket holds

class StatusSocketTest : public testing::Test {
protected:
   void start(PeerPolicy policy = {}, std::chrono::nanoseconds patience = longTime) {
      status.emplace(
         loop, place.fd(), std::move(policy),
         [this] {
            ++asked;
            return document();
         },
         patience);
   }

   UnixFdRes client() const {
      UnixFdRes socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      const UnixAddress address(place.path());
      EXPECT_EQ(::connect(socket.fd(), address.get(), address.size()), 0);
      return socket;
   }

   /// What a client has got, once the daemon closed the connection.
   std::string everything(const UnixFdRes& socket) {
      std::string text;
      std::array<char, 65536> buffer{};
      EXPECT_TRUE(loop.runUntil(
         [&] {
            for (;;) {
               const ssize_t count = ::read(socket.fd(), buffer.data(), buffer.size());
               if (count <= 0) {
                  return count == 0 || errno != EAGAIN;
               }
               text.append(buffer.data(), static_cast<std::size_t>(count));
            }
         },
         longTime));
      return text;
   }

   /// Until everybody who connected was looked at.
   void settle(std::size_t clients) {
      EXPECT_TRUE(loop.runUntil([&] { return asked >= clients; }, longTime));
   }

   const TestSupport::TempDir dir;
   const ListeningSocket place{{.directory = dir.path(), .file = "s"}};
   Platform::EventLoop loop;
   std::function<std::string()> document = [] { return "the document"; };
   std::size_t asked = 0;
   std::optional<StatusSocket> status;
};

TEST_F(StatusSocketTest, GivesTheDocumentAndCloses) {
   start();
   EXPECT_EQ(everything(client()), "the document");
   EXPECT_EQ(status->clients(), 0u);
}

TEST_F(StatusSocketTest, AsksForTheDocumentAnewForEachClient) {
   start();
   document = [this] { return std::to_string(asked); };
   EXPECT_EQ(asked, 0u);
   EXPECT_EQ(everything(client()), "1");
   EXPECT_EQ(everything(client()), "2");
}

TEST_F(StatusSocketTest, ADocumentThatDoesNotFitIsSentAsTheClientReads) {
   document = [] { return std::string(large, 'x'); };
   start();
   const UnixFdRes slow = client();
   settle(1);
   EXPECT_EQ(status->clients(), 1u);
   EXPECT_EQ(everything(slow), std::string(large, 'x'));
   EXPECT_EQ(status->clients(), 0u);
}

TEST_F(StatusSocketTest, AClientThatDoesNotReadHoldsUpNobody) {
   document = [] { return std::string(large, 'x'); };
   start();
   const UnixFdRes stuck = client();
   settle(1);
   document = [] { return "short"; };
   EXPECT_EQ(everything(client()), "short");
   EXPECT_EQ(status->clients(), 1u);
}

TEST_F(StatusSocketTest, AClientThatDoesNotReadIsGivenUp) {
   document = [] { return std::string(large, 'x'); };
   const CaptureScope trace("nimbo/StatusSocket=0");
   start({}, 1ms);
   const UnixFdRes stuck = client();
   settle(1);
   EXPECT_TRUE(loop.runUntil([&] { return status->clients() == 0; }, longTime));
   EXPECT_THAT(trace.texts(),
               testing::ElementsAre("Gave up a client that does not read its status"));
   EXPECT_LT(everything(stuck).size(), large);
}

TEST_F(StatusSocketTest, ReadingInTimeCostsNobodyAnything) {
   document = [] { return std::string(large, 'x'); };
   const CaptureScope trace("nimbo/StatusSocket=0");
   start();
   EXPECT_EQ(everything(client()).size(), large);
   EXPECT_THAT(trace.texts(), IsEmpty());
}

TEST_F(StatusSocketTest, AClientThatGoesInTheMiddleIsForgotten) {
   document = [] { return std::string(large, 'x'); };
   start();
   UnixFdRes leaving = client();
   settle(1);
   ASSERT_EQ(status->clients(), 1u);
   leaving = UnixFdRes(-1);
   EXPECT_TRUE(loop.runUntil([&] { return status->clients() == 0; }, longTime));
}

TEST_F(StatusSocketTest, AClientThatHasGoneBeforeItsTurnDoesNoHarm) {
   start();
   { const UnixFdRes gone = client(); }
   EXPECT_EQ(everything(client()), "the document");
}

TEST_F(StatusSocketTest, WhatAClientSendsIsIgnored) {
   start();
   const UnixFdRes chatty = client();
   ASSERT_EQ(::send(chatty.fd(), "GET /", 5, MSG_NOSIGNAL), 5);
   EXPECT_EQ(everything(chatty), "the document");
}

TEST_F(StatusSocketTest, BearsSoManyThatDoNotReadAndNoMore) {
   document = [] { return std::string(large, 'x'); };
   const CaptureScope trace("nimbo/StatusSocket=0");
   start();
   std::vector<UnixFdRes> stuck;
   for (std::size_t i = 0; i < StatusSocket::mostClients; ++i) {
      stuck.push_back(client());
      settle(i + 1);
   }
   EXPECT_EQ(status->clients(), StatusSocket::mostClients);
   EXPECT_EQ(everything(client()), "");
   EXPECT_EQ(asked, StatusSocket::mostClients) << "no document was made for it";
   EXPECT_THAT(trace.texts(), Contains(HasSubstr(": 16 clients do not read")));
   stuck.pop_back();
   EXPECT_TRUE(
      loop.runUntil([&] { return status->clients() < StatusSocket::mostClients; }, longTime));
   EXPECT_EQ(everything(client()).size(), large);
}

TEST_F(StatusSocketTest, WhoIsNotAllowedGetsNothing) {
   const CaptureScope trace("nimbo/StatusSocket=0");
   start(PeerPolicy({::geteuid() + 1}, {}));
   EXPECT_EQ(everything(client()), "");
   EXPECT_EQ(asked, 0u);
   EXPECT_THAT(trace.texts(),
               testing::ElementsAre("Refused uid " + std::to_string(::geteuid()) + " gid " +
                                    std::to_string(::getegid()) + " pid " +
                                    std::to_string(::getpid()) + ": not on the list"));
}

TEST_F(StatusSocketTest, ADocumentThatCannotBeMadeCostsOnlyThatClient) {
   const CaptureScope trace("nimbo/StatusSocket=0");
   start();
   document = []() -> std::string { throw std::runtime_error("no memory"); };
   EXPECT_EQ(everything(client()), "");
   EXPECT_THAT(trace.texts(), testing::ElementsAre("No status for a client: no memory"));
   document = [] { return "fine"; };
   EXPECT_EQ(everything(client()), "fine");
}

TEST_F(StatusSocketTest, WithoutDescriptorsItTriesAgainLater) {
   SKIP_IF_THE_SANITIZER_NEEDS_DESCRIPTORS();
   const CaptureScope trace("nimbo/StatusSocket=0");
   start();
   const UnixFdRes waiting = client();
   {
      const TestSupport::NoDescriptorsLeft none;
      EXPECT_TRUE(loop.runUntil([&] { return !trace.texts().empty(); }, longTime));
   }
   EXPECT_THAT(trace.texts(),
               testing::ElementsAre("No connection can be taken in: Too many open files"));
   EXPECT_EQ(everything(waiting), "the document");
}

TEST_F(StatusSocketTest, MayGoWhileClientsHaveNotReadAll) {
   document = [] { return std::string(large, 'x'); };
   start();
   const UnixFdRes stuck = client();
   settle(1);
   status.reset();
   EXPECT_LT(everything(stuck).size(), large);
   EXPECT_EQ(loop.poll(), 0u);
}

} // namespace
} // namespace Nimbo
