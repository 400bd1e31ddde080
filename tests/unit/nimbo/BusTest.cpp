#include "nimbo/Bus.h"

#include <cerrno>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "nimbo/BusTable.h"
#include "nimbo/Connection.h"
#include "platform/metrics/Registry.h"
#include "platform/trace/CaptureScope.h"
#include "tests/support/FakeSmbus.h"
#include "tests/support/SmbusRequests.h"

namespace Nimbo {
namespace {

using testing::ElementsAre;
using TestSupport::FakeSmbus;
using TestSupport::SmbusRequests;

/// A client's transaction, planned for a table.
class Planned {
public:
   Planned(const std::shared_ptr<const BusTable>& table, const SmbusRequests& requests)
      : _connection(0, TarnRegFile::Utils::UnixFdRes(-1), "a test") {
      again(table, requests);
   }
   void again(const std::shared_ptr<const BusTable>& table, const SmbusRequests& requests) {
      const std::string payload = requests.payload();
      EXPECT_TRUE((*this)->parse(SmbusRequests::bytes(payload)));
      (*this)->plan(table);
      EXPECT_FALSE((*this)->failed()) << (*this)->error();
   }
   Transaction& operator*() { return _connection.transaction(); }
   Transaction* operator->() { return &_connection.transaction(); }

   Smbus::TransactionResponse response() {
      std::string frame;
      (*this)->response(frame);
      Smbus::TransactionResponse message;
      EXPECT_TRUE(message.ParseFromString(frame.substr(4)));
      return message;
   }

private:
   Connection _connection;
};

class BusTest : public testing::Test {
protected:
   BusTest() {
      BusConfig config;
      config.name = "main";
      bus = fake->busNew(config);
      config.name = "other";
      config.number = 1;
      table = std::make_shared<const BusTable>(std::vector{bus, otherFake->busNew(config)});
   }

   /// Enters, which must not wait, and runs.
   void run(Planned& planned) {
      ASSERT_TRUE(bus->enter(*planned));
      bus->run(*planned);
   }

   std::shared_ptr<FakeSmbus> fake = std::make_shared<FakeSmbus>();
   std::shared_ptr<FakeSmbus> otherFake = std::make_shared<FakeSmbus>();
   std::shared_ptr<Bus> bus;
   std::shared_ptr<const BusTable> table;
};

TEST_F(BusTest, IsIdleAtFirst) {
   EXPECT_EQ(bus->name(), "main");
   EXPECT_EQ(bus->waiting(), 0U);
   EXPECT_FALSE(bus->busySince());
   EXPECT_FALSE(bus->lastFailure());
   EXPECT_EQ(bus->transactions().value(), 0U);
   EXPECT_EQ(bus->requests().value(), 0U);
   EXPECT_EQ(bus->failures().value(), 0U);
   EXPECT_EQ(bus->latency().snapshot().count, 0U);
}

TEST_F(BusTest, DoesTheRequestsOfATransactionBetweenOneBeginAndOneEnd) {
   Planned planned(table, SmbusRequests()
                             .write({.device = 0x51, .offset = 1}, {0xaa, 0xbb})
                             .read({.device = 0x52, .offset = 2}, 4)
                             .write({.device = 0x53, .offset = 3}, {}));
   run(planned);
   EXPECT_THAT(fake->journal(), ElementsAre("begin", "write 51 [01] aa bb", "read 52 [02] 4",
                                            "write 53 [03]", "end"));
   EXPECT_EQ(planned->bus(), nullptr);
   EXPECT_FALSE(planned->failed());
   EXPECT_EQ(planned.response().responses_size(), 3);
   EXPECT_EQ(bus->next(), nullptr);
   EXPECT_EQ(bus->transactions().value(), 1U);
   EXPECT_EQ(bus->requests().value(), 3U);
   EXPECT_EQ(bus->failures().value(), 0U);
   EXPECT_FALSE(fake->isMisused());
}

TEST_F(BusTest, SendsAsManyBytesOfTheOffsetAsItSaysTheMostSignificantFirst) {
   Planned planned(table, SmbusRequests()
                             .write({.offset = 0x12, .offsetBytes = 1}, {9})
                             .write({.offset = 0x1234, .offsetBytes = 2}, {9})
                             .read({.offset = 0x12, .offsetBytes = 2}, 1)
                             .read({.offset = 0x12345678, .offsetBytes = 4}, 1)
                             .write({.offset = 1, .offsetBytes = 4}, {9}));
   run(planned);
   EXPECT_THAT(fake->journal(),
               ElementsAre("begin", "write 50 [12] 09", "write 50 [12 34] 09", "read 50 [00 12] 1",
                           "read 50 [12 34 56 78] 1", "write 50 [00 00 00 01] 09", "end"));
}

TEST_F(BusTest, DoesOnlyTheRequestsThatAreForIt) {
   Planned planned(
      table, SmbusRequests().read({.offset = 1}, 1).read({.bus = 1}, 1).read({.offset = 3}, 1));
   run(planned);
   EXPECT_THAT(fake->journal(), ElementsAre("begin", "read 50 [01] 1", "end"));
   EXPECT_EQ(otherFake->transfers(), 0U);
   EXPECT_EQ(planned->bus(), table->buses()[1].get());
   EXPECT_EQ(bus->next(), nullptr);
   EXPECT_EQ(bus->requests().value(), 1U);
}

TEST_F(BusTest, AFailureEndsTheTransactionAndTheTurn) {
   fake->with([](FakeSmbus& each) { each.errors = {0, ENXIO}; });
   Planned planned(table,
                   SmbusRequests(0xab).read({.offset = 1}, 1).read({.offset = 2}, 1).read({}, 1));
   const Platform::Trace::CaptureScope trace("nimbo/Bus=3");
   const auto before = std::chrono::system_clock::now();
   run(planned);
   const std::string text = "request 2 of 3 (read of 1 byte, bus 0 'main', device 0x50, offset "
                            "0x2): No such device or address (6)";
   EXPECT_THAT(fake->journal(), ElementsAre("begin", "read 50 [01] 1", "read 50 [02] 1", "end"));
   EXPECT_EQ(planned->error(), text);
   EXPECT_EQ(planned.response().responses_size(), 1);
   EXPECT_THAT(trace.texts(), ElementsAre("Transaction 0xab: " + text));
   EXPECT_EQ(bus->failures().value(), 1U);
   EXPECT_EQ(bus->requests().value(), 2U);
   const auto failure = bus->lastFailure();
   ASSERT_TRUE(failure);
   EXPECT_EQ(failure->text, text);
   EXPECT_GE(failure->when, before);
   EXPECT_LE(failure->when, std::chrono::system_clock::now());
   EXPECT_EQ(bus->next(), nullptr);
}

TEST_F(BusTest, AFailedWriteLeavesNoResponse) {
   fake->with([](FakeSmbus& each) { each.errors = {EIO}; });
   Planned planned(table, SmbusRequests().write({}, {1}));
   run(planned);
   EXPECT_EQ(planned.response().responses_size(), 0);
   EXPECT_TRUE(planned->error().ends_with("): Input/output error (5)")) << planned->error();
}

TEST_F(BusTest, ThatCannotBeHadFailsTheTransactionAndEndsNothing) {
   fake->with([](FakeSmbus& each) {
      each.busy.emplace(ENOENT, std::generic_category(), "cannot open /dev/i2c-3");
   });
   Planned planned(table, SmbusRequests().read({}, 1));
   run(planned);
   EXPECT_THAT(fake->journal(), ElementsAre("cannot begin"));
   EXPECT_EQ(planned->error(), "request 1 of 1 (read of 1 byte, bus 0 'main', device 0x50, offset "
                               "0x0): cannot open /dev/i2c-3: No such file or directory");
   EXPECT_EQ(planned.response().responses_size(), 0);
   EXPECT_EQ(bus->failures().value(), 1U);
   EXPECT_EQ(bus->requests().value(), 0U);
   EXPECT_EQ(bus->latency().snapshot().count, 1U);
   EXPECT_EQ(bus->next(), nullptr);
}

TEST_F(BusTest, WhateverABackendThrowsEndsTheTurnAndFailsTheTransaction) {
   fake->with([](FakeSmbus& each) {
      each.onTransfer = [] { throw std::runtime_error("the backend is upset"); };
   });
   Planned planned(table, SmbusRequests().read({}, 1).read({}, 1));
   run(planned);
   EXPECT_THAT(fake->journal(), ElementsAre("begin", "read 50 [00] 1", "end"));
   EXPECT_TRUE(planned->error().ends_with("): the backend is upset")) << planned->error();
   EXPECT_EQ(planned.response().responses_size(), 0);
}

TEST_F(BusTest, TransactionsWaitForTheirTurnAndTakeIt) {
   std::vector<std::unique_ptr<Planned>> planned;
   for (unsigned i = 0; i < 4; ++i) {
      planned.push_back(
         std::make_unique<Planned>(table, SmbusRequests(i).read({.device = 0x10 + i}, 1)));
   }
   ASSERT_TRUE(bus->enter(**planned[0]));
   for (unsigned i = 1; i < 4; ++i) {
      EXPECT_FALSE(bus->enter(**planned[i]));
      EXPECT_EQ(bus->waiting(), i);
   }
   EXPECT_TRUE(fake->journal().empty());
   std::vector<std::uint64_t> order;
   for (Transaction* each = &**planned[0]; each; each = bus->next()) {
      order.push_back(each->xid());
      bus->run(*each);
   }
   EXPECT_THAT(order, ElementsAre(0, 1, 2, 3));
   EXPECT_EQ(bus->waiting(), 0U);
   EXPECT_FALSE(bus->busySince());
   // Given back, it can be had again.
   planned[0]->again(table, SmbusRequests().read({}, 1));
   EXPECT_TRUE(bus->enter(**planned[0]));
   EXPECT_EQ(bus->next(), nullptr);
}

TEST_F(BusTest, IsBusyFromTheTimeTheTransactionCameUntilItIsGivenBack) {
   Planned one(table, SmbusRequests().read({}, 1));
   Planned two(table, SmbusRequests().read({}, 1));
   ASSERT_TRUE(bus->enter(*one));
   ASSERT_TRUE(bus->busySince());
   EXPECT_EQ(*bus->busySince(), one->begin());
   EXPECT_FALSE(bus->enter(*two));
   EXPECT_EQ(*bus->busySince(), one->begin());
   const auto before = std::chrono::steady_clock::now();
   EXPECT_EQ(bus->next(), &*two);
   EXPECT_GE(*bus->busySince(), before); // not since `two` began to wait
   EXPECT_EQ(bus->next(), nullptr);
   EXPECT_FALSE(bus->busySince());
}

TEST_F(BusTest, IsNotBusyForTheTimeThatATransactionSpentAtAnotherBus) {
   Planned planned(table, SmbusRequests().read({.bus = 1}, 1).read({.bus = 0}, 1));
   Bus& other = *table->buses()[1];
   ASSERT_TRUE(other.enter(*planned));
   other.run(*planned);
   EXPECT_EQ(other.next(), nullptr);
   const auto before = std::chrono::steady_clock::now();
   ASSERT_TRUE(bus->enter(*planned));
   EXPECT_GE(*bus->busySince(), before);
   EXPECT_EQ(bus->next(), nullptr);
}

TEST_F(BusTest, ObservesHowLongEachTransactionTook) {
   for (int i = 0; i < 3; ++i) {
      Planned planned(table, SmbusRequests().read({}, 1).read({}, 1));
      run(planned);
      EXPECT_EQ(bus->next(), nullptr);
   }
   const auto snapshot = bus->latency().snapshot();
   EXPECT_EQ(snapshot.count, 3U);
   EXPECT_GT(snapshot.sum, 0U);
   EXPECT_EQ(bus->latency().perShownUnit(), 1'000'000'000U);
   EXPECT_EQ(bus->latency().upperBounds().front(), 10'000U);
   EXPECT_EQ(bus->latency().upperBounds().back(), 10'000'000'000U);
}

TEST_F(BusTest, TracesEveryRequestAtTheHighestLevel) {
   SmbusRequests requests(0xab);
   requests.read({.offset = 1}, 2).last().set_mastertype(Smbus::MASTER_TYPE_BLOCK);
   Planned planned(table, requests);
   const Platform::Trace::CaptureScope trace("nimbo/Bus=9");
   run(planned);
   EXPECT_THAT(trace.texts(), ElementsAre("Transaction 0xab: read of 2 bytes, bus 0 'main', device "
                                          "0x50, offset 0x1, master type 2"));
}

TEST_F(BusTest, CountsHowManyThereAre) {
   const std::size_t before = Bus::alive();
   const auto more = std::make_shared<FakeSmbus>()->busNew(BusConfig());
   EXPECT_EQ(Bus::alive(), before + 1);
}

TEST_F(BusTest, ThreadsTakeItOneAtATimeAndNoTransactionIsLost) {
   constexpr int threads = 6;
   constexpr int rounds = 300;
   std::vector<std::thread> running;
   std::atomic<int> done = 0;
   for (int i = 0; i < threads; ++i) {
      running.emplace_back([&] {
         // What waits is done by another thread, and must stay where it is until then.
         std::vector<std::unique_ptr<Planned>> mine;
         for (int round = 0; round < rounds; ++round) {
            mine.push_back(std::make_unique<Planned>(table, SmbusRequests().read({}, 1)));
            if (bus->enter(**mine.back())) {
               for (Transaction* each = &**mine.back(); each; each = bus->next()) {
                  bus->run(*each);
                  ++done;
               }
            }
         }
         while (done < threads * rounds) {
            std::this_thread::yield();
         }
      });
   }
   for (std::thread& thread : running) {
      thread.join();
   }
   EXPECT_EQ(done, threads * rounds);
   EXPECT_EQ(bus->transactions().value(), static_cast<std::uint64_t>(threads * rounds));
   EXPECT_FALSE(fake->isMisused());
}

} // namespace
} // namespace Nimbo
