#include "nimbo/Connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "nimbo/BusTable.h"
#include "tests/support/SmbusRequests.h"

namespace Nimbo {
namespace {

using TarnRegFile::Utils::UnixFdRes;
using TestSupport::SmbusRequests;
using Received = Connection::Received;
using Sent = Connection::Sent;

/// A connection and its client's end.
class ConnectionTest : public testing::Test {
protected:
   ConnectionTest() {
      std::array<int, 2> ends{};
      EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()),
                0);
      connection = std::make_unique<Connection>(7, UnixFdRes(ends[0]), "a test");
      client = UnixFdRes(ends[1]);
   }

   void put(const std::string& bytes) {
      ASSERT_EQ(::write(client.fd(), bytes.data(), bytes.size()),
                static_cast<::ssize_t>(bytes.size()));
   }

   /// All that can be read at the client's end.
   std::string read() {
      std::string all;
      std::array<char, 4096> some{};
      for (::ssize_t count = 0; (count = ::read(client.fd(), some.data(), some.size())) > 0;) {
         all.append(some.data(), static_cast<std::size_t>(count));
      }
      return all;
   }

   /// Answers with so many bytes that were read.
   void answer(std::size_t size) {
      SmbusRequests requests(1);
      requests.read({.bus = 1}, 1); // for no bus, so that it is over at once
      const std::string payload = requests.payload();
      ASSERT_TRUE(connection->transaction().parse(SmbusRequests::bytes(payload)));
      connection->transaction().responseNew(size);
      connection->answerIs();
   }

   std::unique_ptr<Connection> connection;
   UnixFdRes client{-1};
};

TEST_F(ConnectionTest, SaysWhoItIs) {
   EXPECT_EQ(connection->id(), 7U);
   EXPECT_EQ(connection->peer(), "a test");
   EXPECT_EQ(connection->transactions().value(), 0U);
   EXPECT_GE(connection->fd(), 0);
   EXPECT_FALSE(connection->isAnswering());
   EXPECT_FALSE(connection->awaitsRoom());
}

// -- whose it is ---------------------------------------------------------------------------------

TEST_F(ConnectionTest, BelongsToWhoTookIt) {
   EXPECT_TRUE(connection->take(false));
   EXPECT_FALSE(connection->take(false));
   EXPECT_FALSE(connection->take(false));
}

TEST_F(ConnectionTest, CannotBeReleasedBeforeSomebodyHasLooked) {
   ASSERT_TRUE(connection->take(false));
   EXPECT_FALSE(connection->release()); // what made it ready was not looked at
   EXPECT_EQ(connection->receive(), Received::nothing);
   EXPECT_TRUE(connection->isDrained());
   EXPECT_TRUE(connection->release());
   EXPECT_TRUE(connection->take(false));
}

TEST_F(ConnectionTest, CannotBeReleasedWhenItHasBecomeReadyAgain) {
   ASSERT_TRUE(connection->take(false));
   EXPECT_EQ(connection->receive(), Received::nothing);
   EXPECT_FALSE(connection->take(false));
   EXPECT_FALSE(connection->release());
   EXPECT_EQ(connection->receive(), Received::nothing);
   EXPECT_TRUE(connection->release());
}

// Each byte is told to a thread of its own, and all of them are received.
TEST_F(ConnectionTest, NothingThatComesIsOverlookedHoweverThreadsMeet) {
   constexpr std::size_t frames = 500;
   constexpr int threads = 4;
   const std::string frame = SmbusRequests::framed(1, "");
   std::atomic<std::size_t> got = 0;
   std::atomic<std::size_t> told = 0;
   std::atomic<bool> isOver = false;
   std::atomic<int> owners = 0;
   std::atomic<bool> isShared = false;
   std::vector<std::thread> running;
   for (int i = 0; i < threads; ++i) {
      running.emplace_back([&] {
         std::size_t mine = 0;
         while (!isOver) {
            if (mine == told.load()) {
               std::this_thread::yield();
               continue;
            }
            mine = told.load();
            if (!connection->take(false)) {
               continue;
            }
            isShared = isShared || owners.fetch_add(1) != 0;
            for (;;) {
               if (connection->receive() == Received::frame) {
                  connection->reader().next();
                  ++got;
                  continue;
               }
               owners.fetch_sub(1);
               if (connection->release()) {
                  break;
               }
               owners.fetch_add(1);
            }
         }
      });
   }
   for (std::size_t i = 0; i < frames; ++i) {
      for (const char byte : frame) {
         put(std::string(1, byte));
         ++told;
      }
      // All that was told has to come without another word.
      while (got < i + 1) {
         std::this_thread::yield();
      }
   }
   isOver = true;
   for (std::thread& thread : running) {
      thread.join();
   }
   EXPECT_EQ(got, frames);
   EXPECT_FALSE(isShared);
}

// -- receiving -----------------------------------------------------------------------------------

TEST_F(ConnectionTest, ReceivesFramesOneByOne) {
   put(SmbusRequests::framed(1, "abc") + SmbusRequests::framed(1, "d"));
   ASSERT_TRUE(connection->take(false));
   ASSERT_EQ(connection->receive(), Received::frame);
   EXPECT_EQ(connection->reader().length(), 3U);
   EXPECT_FALSE(connection->isDrained());
   EXPECT_EQ(connection->receive(), Received::frame); // still the same
   connection->reader().next();
   EXPECT_FALSE(connection->isDrained());
   ASSERT_EQ(connection->receive(), Received::frame);
   EXPECT_EQ(connection->reader().length(), 1U);
   connection->reader().next();
   EXPECT_TRUE(connection->isDrained());
   EXPECT_EQ(connection->receive(), Received::nothing);
   EXPECT_TRUE(connection->release());
}

TEST_F(ConnectionTest, AFrameThatFillsTheSpaceIsNoSignThatThereIsNoMore) {
   // The reader's space is used up exactly.
   const std::size_t space = connection->reader().space().size();
   put(SmbusRequests::framed(1, std::string(space - 4, 'x')));
   ASSERT_TRUE(connection->take(false));
   ASSERT_EQ(connection->receive(), Received::frame);
   connection->reader().next();
   EXPECT_FALSE(connection->isDrained());
   EXPECT_EQ(connection->receive(), Received::nothing);
   EXPECT_TRUE(connection->isDrained());
}

TEST_F(ConnectionTest, ReceivesALongFrameInOneGo) {
   const std::string frame = SmbusRequests::framed(1, std::string(60000, 'x'));
   put(frame);
   ASSERT_TRUE(connection->take(false));
   ASSERT_EQ(connection->receive(), Received::frame);
   EXPECT_EQ(connection->reader().payload().size(), 60000U);
}

TEST_F(ConnectionTest, TheEndComesBehindAllFrames) {
   put(SmbusRequests::framed(1, "abc"));
   ::shutdown(client.fd(), SHUT_WR);
   ASSERT_TRUE(connection->take(true));
   ASSERT_EQ(connection->receive(), Received::frame);
   connection->reader().next();
   EXPECT_FALSE(connection->isDrained());
   EXPECT_EQ(connection->receive(), Received::end);
   EXPECT_TRUE(connection->reader().empty());
}

TEST_F(ConnectionTest, TheEndInAFrameShows) {
   put("\x01\x05");
   client = UnixFdRes(-1);
   ASSERT_TRUE(connection->take(true));
   EXPECT_EQ(connection->receive(), Received::end);
   EXPECT_FALSE(connection->reader().empty());
}

TEST_F(ConnectionTest, AnEndThatIsToldToAnotherThreadIsNotOverlooked) {
   put("\x01\x05");
   ASSERT_TRUE(connection->take(false));
   EXPECT_EQ(connection->receive(), Received::nothing);
   EXPECT_FALSE(connection->take(true)); // another is told
   EXPECT_FALSE(connection->release());
   client = UnixFdRes(-1);
   EXPECT_EQ(connection->receive(), Received::end);
}

TEST_F(ConnectionTest, WhatIsNoRequestIsBroken) {
   put("\x02");
   ASSERT_TRUE(connection->take(false));
   EXPECT_EQ(connection->receive(), Received::broken);
   EXPECT_FALSE(connection->isDrained());
   EXPECT_EQ(connection->receive(), Received::broken);
}

// -- answering -----------------------------------------------------------------------------------

TEST_F(ConnectionTest, SendsItsAnswerAndThenNothing) {
   answer(3);
   EXPECT_TRUE(connection->isAnswering());
   EXPECT_EQ(connection->transactions().value(), 1U);
   EXPECT_EQ(connection->send(), Sent::all);
   EXPECT_FALSE(connection->isAnswering());
   const std::string sent = read();
   EXPECT_EQ(sent[0], 2);
   EXPECT_EQ(connection->send(), Sent::all);
   EXPECT_EQ(read(), "");
}

TEST_F(ConnectionTest, SendsTheRestWhenThereIsRoom) {
   const int small = 1;
   ASSERT_EQ(::setsockopt(connection->fd(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
   constexpr std::size_t size = 200000;
   answer(size);
   std::string sent;
   int parts = 0;
   while (connection->send() == Sent::part) {
      EXPECT_TRUE(connection->isAnswering());
      ++parts;
      sent += read();
   }
   sent += read();
   EXPECT_GT(parts, 0);
   EXPECT_GT(sent.size(), size);
   EXPECT_FALSE(connection->isAnswering());
   Smbus::TransactionResponse response;
   ASSERT_TRUE(response.ParseFromString(sent.substr(4)));
   EXPECT_EQ(response.responses(0).data().size(), size);
}

TEST_F(ConnectionTest, KnowsWhenTheClientWillNeverRead) {
   client = UnixFdRes(-1);
   answer(3);
   EXPECT_EQ(connection->send(), Sent::gone); // and no SIGPIPE
}

// One word about room and about input may come as one.
TEST_F(ConnectionTest, LooksForInputAfterItWaitedForRoom) {
   ASSERT_TRUE(connection->take(false));
   EXPECT_EQ(connection->receive(), Received::nothing);
   EXPECT_TRUE(connection->isDrained());
   connection->awaitsRoomIs(true);
   EXPECT_TRUE(connection->awaitsRoom());
   answer(3);
   put(SmbusRequests::framed(1, "abc"));
   EXPECT_FALSE(connection->take(false));
   EXPECT_EQ(connection->send(), Sent::all);
   EXPECT_FALSE(connection->isDrained());
   EXPECT_EQ(connection->receive(), Received::frame);
}

} // namespace
} // namespace Nimbo
