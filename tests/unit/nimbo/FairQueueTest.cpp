#include "nimbo/FairQueue.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "nimbo/Connection.h"

namespace Nimbo {
namespace {

/// A connection whose transactions wait: it takes part in the queue with a name.
class Client {
public:
   explicit Client(std::string name)
      : _connection(0, TarnRegFile::Utils::UnixFdRes(-1), std::move(name)) {}
   Transaction& transaction() { return _connection.transaction(); }
   Flow& flow() { return _connection.transaction().flow(); }

private:
   Connection _connection;
};

std::string takeName(FairQueue& queue) {
   return queue.take().connection().peer();
}

TEST(FairQueue, GivesEqualOnesInTheOrderOfArrival) {
   FairQueue queue(1);
   std::vector<std::unique_ptr<Client>> clients;
   for (int i = 0; i < 20; ++i) {
      clients.push_back(std::make_unique<Client>(std::to_string(i)));
      queue.push(clients.back()->transaction(), clients.back()->flow(), 1);
   }
   EXPECT_EQ(queue.size(), 20U);
   for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(takeName(queue), std::to_string(i));
   }
   EXPECT_TRUE(queue.empty());
}

/// Lets each of `clients` have one transaction of so many requests waiting at any time, and says
/// who got the bus in `turns` turns.
std::string turns(FairQueue& queue, std::vector<std::pair<Client*, std::size_t>> clients,
                  std::size_t turns) {
   for (const auto& [client, requests] : clients) {
      queue.push(client->transaction(), client->flow(), requests);
   }
   std::string order;
   for (std::size_t i = 0; i < turns; ++i) {
      Transaction& taken = queue.take();
      order += taken.connection().peer();
      for (const auto& [client, requests] : clients) {
         if (&client->transaction() == &taken) {
            queue.push(taken, client->flow(), requests);
         }
      }
   }
   return order;
}

TEST(FairQueue, EqualConnectionsTakeTurns) {
   FairQueue queue(1);
   Client a("a");
   Client b("b");
   Client c("c");
   EXPECT_EQ(turns(queue, {{&a, 1}, {&b, 1}, {&c, 1}}, 9), "abcabcabc");
}

TEST(FairQueue, TurnsAreWeighedByRequests) {
   FairQueue queue(1);
   Client greedy("G");
   Client a("a");
   Client b("b");
   const std::string order = turns(queue, {{&greedy, 100}, {&a, 1}, {&b, 1}}, 603);
   // After one of 100 each of the others has 100 of its own.
   EXPECT_EQ(std::count(order.begin(), order.end(), 'G'), 3);
   EXPECT_EQ(order[0], 'G');
   EXPECT_EQ(order.find('G', 1), 201U);
   EXPECT_EQ(order.find('G', 202), 402U);
   EXPECT_EQ(std::count(order.begin(), order.end(), 'a'),
             std::count(order.begin(), order.end(), 'b'));
}

TEST(FairQueue, AnotherWaitsForNoMoreThanOneTransactionOfTheGreedyOne) {
   FairQueue queue(1);
   Client greedy("G");
   Client modest("m");
   for (int i = 0; i < 10; ++i) {
      queue.pass(greedy.flow(), 100);
   }
   queue.push(modest.transaction(), modest.flow(), 1);
   queue.push(greedy.transaction(), greedy.flow(), 100);
   EXPECT_EQ(takeName(queue), "m");
   EXPECT_EQ(takeName(queue), "G");
}

TEST(FairQueue, ANewcomerHasSavedNothingUp) {
   FairQueue queue(1);
   Client busy("b");
   Client late("l");
   for (int i = 0; i < 1000; ++i) {
      queue.pass(busy.flow(), 1);
   }
   EXPECT_EQ(turns(queue, {{&busy, 1}, {&late, 1}}, 9), "lblblblbl");
}

TEST(FairQueue, WhoWasIdleHasSavedNothingUp) {
   FairQueue queue(1);
   Client busy("b");
   Client idle("i");
   queue.pass(idle.flow(), 1);
   for (int i = 0; i < 1000; ++i) {
      queue.pass(busy.flow(), 1);
   }
   EXPECT_EQ(turns(queue, {{&busy, 1}, {&idle, 1}}, 9), "ibibibibi");
}

TEST(FairQueue, WhatPassedWithoutWaitingCounts) {
   FairQueue queue(1);
   Client a("a");
   Client b("b");
   queue.pass(a.flow(), 3);
   queue.push(a.transaction(), a.flow(), 1); // from 3 on
   queue.push(b.transaction(), b.flow(), 2); // from 0 on
   EXPECT_EQ(takeName(queue), "b");
   queue.push(b.transaction(), b.flow(), 2); // from 2 on
   EXPECT_EQ(takeName(queue), "b");
   queue.push(b.transaction(), b.flow(), 2); // from 4 on
   EXPECT_EQ(takeName(queue), "a");
   EXPECT_EQ(takeName(queue), "b");
}

TEST(FairQueue, OneBusDoesNotCountOnAnother) {
   FairQueue one(1);
   FairQueue other(2);
   Client a("a");
   Client b("b");
   one.pass(a.flow(), 1000);
   other.push(a.transaction(), a.flow(), 1);
   other.push(b.transaction(), b.flow(), 1);
   EXPECT_EQ(takeName(other), "a");
}

TEST(Flow, RemembersItsShareOfEachBus) {
   Flow flow;
   EXPECT_EQ(flow.end(1), 0U);
   flow.endIs(1, 10);
   flow.endIs(2, 20);
   flow.endIs(1, 11);
   EXPECT_EQ(flow.end(1), 11U);
   EXPECT_EQ(flow.end(2), 20U);
   EXPECT_EQ(flow.end(3), 0U);
}

TEST(Flow, ForgetsTheOldestOfVeryManyBuses) {
   Flow flow;
   for (std::uint64_t bus = 1; bus <= 200; ++bus) {
      flow.endIs(bus, bus * 10);
   }
   EXPECT_EQ(flow.end(200), 2000U);
   EXPECT_EQ(flow.end(73), 730U);
   EXPECT_EQ(flow.end(72), 0U);
}

} // namespace
} // namespace Nimbo
