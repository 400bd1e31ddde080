// The access manager: requests of several clients on buses with workers of their own. No test waits
// for time to pass but where a deadline is what it is about.

#include "platform/hardware/Sorn.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/entity/CallbackNotifiee.h"
#include "platform/entity/Errors.h"
#include "platform/entity/EventLoop.h"
#include "platform/entity/TypeData.h"
#include "platform/hardware/SimulatedSornBackend.h"
#include "platform/hardware/SornManager.h"
#include "tests/support/AllocatedBytes.h"
#include "tests/support/GatedSornBackend.h"

namespace Hardware {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::SizeIs;

constexpr std::uint8_t deviceAddress = 0x50;
constexpr auto patience = std::chrono::seconds(60);

std::uint64_t word(std::uint16_t registerAddress, std::uint8_t device = deviceAddress) {
   return std::uint64_t{device} << 32 | registerAddress;
}

class SornTest : public testing::Test {
protected:
   Ptr<SornDesc> gatedBus(const String& name = "bus") {
      return manager->busNew(name, std::make_unique<TestSupport::GatedSornBackend>(gate));
   }

   /// A request that reads into `values`.
   Ptr<SornRequest> read(const Ptr<Sorn>& sorn, std::uint16_t registerAddress,
                         std::uint32_t& value) {
      const Ptr<SornRequest> request = sorn->newRequest();
      request->makeReadOp(word(registerAddress), value, ReadByteSwap::swap, 0);
      request->stateIs(SornRequestState::submitted);
      return request;
   }

   bool ends(const Ptr<SornRequest>& request) {
      return loop.runUntil([&] { return request->status() >= SornStatus::failed; }, patience);
   }

   Platform::EventLoop loop;
   std::shared_ptr<TestSupport::GatedSornBackend::State> gate =
      std::make_shared<TestSupport::GatedSornBackend::State>();
   std::unique_ptr<SornManager> manager = std::make_unique<SornManager>(loop);
};

TEST_F(SornTest, AReadSetsTheRegisterPointerAndReadsFourBytes) {
   gate->registers[0x1234] = 0xdeadbeef;
   const auto sorn = gatedBus()->sorn();
   std::uint32_t value = 0;
   const auto request = read(sorn, 0x1234, value);
   EXPECT_EQ(request->status(), SornStatus::pending);
   EXPECT_EQ(value, 0U);
   ASSERT_TRUE(ends(request));
   EXPECT_EQ(request->status(), SornStatus::success);
   EXPECT_EQ(request->error(), 0);
   EXPECT_EQ(value, 0xdeadbeefU);
   EXPECT_THAT(gate->lines(), ElementsAre("begin", "write 80 18: 52", "read 80 18: 4", "end"));
}

TEST_F(SornTest, WritesPutTheValueBehindTheRegistersAddress) {
   const auto sorn = gatedBus()->sorn();
   const auto wide = sorn->newRequest();
   wide->makeWriteOp(word(0x1234), std::uint32_t{0x01020304}, WriteByteSwap::swap, 0);
   wide->stateIs(SornRequestState::submitted);
   const auto narrow = sorn->newRequest();
   narrow->makeWriteOp(word(0x00ff, 0x7f), std::uint16_t{0x0506}, WriteByteSwap::swap, 0);
   narrow->stateIs(SornRequestState::submitted);
   ASSERT_TRUE(ends(wide));
   ASSERT_TRUE(ends(narrow));
   EXPECT_THAT(gate->lines(), ElementsAre("begin", "write 80 18: 52 1 2 3 4", "end", "begin",
                                          "write 127 0: 255 5 6", "end"));
}

TEST_F(SornTest, WithoutSwapTheLeastSignificantByteComesFirst) {
   gate->registers[0x10] = 0x01020304;
   const auto sorn = gatedBus()->sorn();
   const auto write = sorn->newRequest();
   write->makeWriteOp(word(0x20), std::uint32_t{0x01020304}, WriteByteSwap::none, 0);
   write->stateIs(SornRequestState::submitted);
   const auto read = sorn->newRequest();
   std::uint32_t value = 0;
   read->makeReadOp(word(0x10), value, ReadByteSwap::none, 0);
   read->stateIs(SornRequestState::submitted);
   ASSERT_TRUE(ends(read));
   EXPECT_EQ(value, 0x04030201U);
   EXPECT_EQ(gate->lines().at(1), "write 80 0: 32 4 3 2 1");
}

TEST_F(SornTest, TheStatusChangesToPendingAndThenToTheEnd) {
   const auto sorn = gatedBus()->sorn();
   std::vector<SornStatus> seen;
   std::uint32_t value = 0;
   const auto request = sorn->newRequest();
   const auto subscription = Platform::subscribe(*request, SornRequest::statusAttr,
                                                 [&](auto&) { seen.push_back(request->status()); });
   EXPECT_EQ(request->status(), SornStatus::idle);
   request->makeReadOp(word(1), value, ReadByteSwap::swap, 0);
   EXPECT_THAT(seen, SizeIs(0));
   request->stateIs(SornRequestState::submitted);
   ASSERT_TRUE(ends(request));
   EXPECT_THAT(seen, ElementsAre(SornStatus::pending, SornStatus::success));
}

TEST_F(SornTest, EachFailureHasAStatusOfItsOwn) {
   const auto sorn = gatedBus()->sorn();
   for (const auto& [error, status] : std::map<int, SornStatus>{{ENXIO, SornStatus::noDevice},
                                                                {ENODEV, SornStatus::noDevice},
                                                                {EREMOTEIO, SornStatus::noDevice},
                                                                {ETIMEDOUT, SornStatus::timedOut},
                                                                {EIO, SornStatus::busError},
                                                                {EAGAIN, SornStatus::busError}}) {
      gate->transferError = error;
      std::uint32_t value = 7;
      const auto request = read(sorn, 1, value);
      ASSERT_TRUE(ends(request));
      EXPECT_EQ(request->status(), status) << error;
      EXPECT_EQ(request->error(), error);
      EXPECT_EQ(value, 7U) << "nothing is written for a read that failed";
   }
   gate->beginError = EACCES;
   std::uint32_t value = 7;
   const auto request = read(sorn, 1, value);
   ASSERT_TRUE(ends(request));
   EXPECT_EQ(request->status(), SornStatus::failed);
   EXPECT_EQ(request->error(), EACCES);
   EXPECT_EQ(gate->lines().back(), "begin") << "what was not begun is not ended";
}

TEST_F(SornTest, AnAddressWithOtherBitsAndFlagsAreRefused) {
   const auto sorn = gatedBus()->sorn();
   const auto request = sorn->newRequest();
   std::uint32_t value = 0;
   for (const std::uint64_t address : {std::uint64_t{1} << 16, std::uint64_t{1} << 31,
                                       std::uint64_t{1} << 39, std::uint64_t{1} << 63}) {
      EXPECT_THROW(request->makeReadOp(address, value, ReadByteSwap::swap, 0),
                   Platform::RangeError);
   }
   EXPECT_THROW(request->makeReadOp(word(1), value, ReadByteSwap::swap, 1), Platform::RangeError);
   EXPECT_THROW(request->stateIs(SornRequestState::submitted), std::system_error);
   EXPECT_EQ(request->state(), SornRequestState::idle);
   EXPECT_THAT(gate->lines(), SizeIs(0));
}

TEST_F(SornTest, ARequestCanBeUsedAgain) {
   gate->registers[1] = 11;
   gate->registers[2] = 22;
   const auto sorn = gatedBus()->sorn();
   std::uint32_t value = 0;
   const auto request = read(sorn, 1, value);
   ASSERT_TRUE(ends(request));
   request->stateIs(SornRequestState::idle);
   EXPECT_EQ(request->status(), SornStatus::idle);
   request->makeReadOp(word(2), value, ReadByteSwap::swap, 0);
   request->stateIs(SornRequestState::submitted);
   ASSERT_TRUE(ends(request));
   EXPECT_EQ(value, 22U);
}

TEST_F(SornTest, AnIdleRequestThatIsSetIdleForgetsWhatWasDescribed) {
   const auto sorn = gatedBus()->sorn();
   const auto request = sorn->newRequest();
   auto value = std::make_unique<std::uint32_t>(0);
   request->makeReadOp(word(1), *value, ReadByteSwap::swap, 0);
   int changes = 0;
   const auto subscription = Platform::subscribe(*request, [&](auto&) { ++changes; });
   request->stateIs(SornRequestState::idle);
   EXPECT_EQ(changes, 0);
   value.reset(); // written to, it would be found
   EXPECT_THROW(request->stateIs(SornRequestState::submitted), std::system_error);
   EXPECT_THAT(gate->lines(), SizeIs(0));
}

TEST_F(SornTest, ARequestIsNotDescribedWhileItIsSubmitted) {
   gate->gateIs(false);
   const auto sorn = gatedBus()->sorn();
   std::uint32_t value = 0;
   const auto request = read(sorn, 1, value);
   EXPECT_THROW(request->makeWriteOp(word(1), std::uint32_t{1}, WriteByteSwap::swap, 0),
                std::system_error);
   gate->gateIs(true);
   EXPECT_TRUE(ends(request));
}

TEST_F(SornTest, AClientWithManyRequestsDelaysAnothersByOneOperation) {
   gate->gateIs(false);
   const auto desc = gatedBus();
   const auto greedy = desc->sorn();
   const auto modest = desc->sorn();
   std::vector<std::uint32_t> values(1000);
   std::vector<Ptr<SornRequest>> requests;
   for (std::uint32_t& value : values) {
      requests.push_back(read(greedy, 1, value));
   }
   gate->awaitArrivals(1);
   std::uint32_t value = 0;
   const auto single = read(modest, 0x77, value);
   gate->gateIs(true);
   ASSERT_TRUE(ends(single));
   const auto lines = gate->lines();
   // The one that was under way, one more of the greedy client's, then the single one.
   EXPECT_EQ(lines.at(2 * 4 + 1), "write 80 0: 119");
   ASSERT_TRUE(ends(requests.back()));
}

TEST_F(SornTest, AHangingBusHoldsUpNoOtherBus) {
   gate->gateIs(false);
   const auto hanging = gatedBus("hanging")->sorn();
   auto free = std::make_shared<TestSupport::GatedSornBackend::State>();
   const auto healthy =
      manager->busNew("healthy", std::make_unique<TestSupport::GatedSornBackend>(free))->sorn();
   std::uint32_t hangingValue = 0;
   const auto stuck = read(hanging, 1, hangingValue);
   gate->awaitArrivals(1);
   for (int i = 0; i < 100; ++i) {
      std::uint32_t value = 0;
      const auto request = read(healthy, 1, value);
      ASSERT_TRUE(ends(request));
   }
   EXPECT_EQ(stuck->status(), SornStatus::pending);
   gate->gateIs(true);
   EXPECT_TRUE(ends(stuck));
}

TEST_F(SornTest, ADroppedRequestWritesNothingToTheClientsMemory) {
   gate->gateIs(false);
   gate->registers[1] = 0x55;
   const auto sorn = gatedBus()->sorn();
   auto value = std::make_unique<std::uint32_t>(0);
   auto underWay = read(sorn, 1, *value);
   gate->awaitArrivals(1);
   auto queuedValue = std::make_unique<std::uint32_t>(0);
   auto queued = read(sorn, 2, *queuedValue);
   underWay.reset();
   queued.reset();
   value.reset(); // written to, it would be found
   queuedValue.reset();
   gate->gateIs(true);
   std::uint32_t last = 0;
   ASSERT_TRUE(ends(read(sorn, 3, last)));
   EXPECT_THAT(gate->lines(), ElementsAre("begin", "write 80 0: 1", "read 80 0: 4", "end", "begin",
                                          "write 80 0: 3", "read 80 0: 4", "end"))
      << "what had not begun is not done";
}

TEST_F(SornTest, ARequestThatIsTakenBackIsNotHeardOfAgain) {
   gate->gateIs(false);
   const auto sorn = gatedBus()->sorn();
   std::uint32_t value = 9;
   const auto request = read(sorn, 1, value);
   gate->awaitArrivals(1);
   request->stateIs(SornRequestState::idle);
   EXPECT_EQ(request->status(), SornStatus::idle);
   gate->gateIs(true);
   std::uint32_t other = 0;
   ASSERT_TRUE(ends(read(sorn, 2, other)));
   EXPECT_EQ(request->status(), SornStatus::idle);
   EXPECT_EQ(value, 9U);
}

TEST_F(SornTest, ARequestEndsAtItsDeadlineWhateverTheBusDoes) {
   gate->gateIs(false);
   const auto desc = gatedBus();
   Ptr<Sorn> sorn;
   std::uint32_t values[2] = {1, 2};
   std::uint32_t timeout = 10;
   Ptr<SornRequest> underWay;
   do { // until the bus takes it up before its deadline, which on a busy machine may take longer
      timeout *= 2;
      desc->timeoutIs(timeout);
      sorn = desc->sorn();
      EXPECT_EQ(sorn->timeout(), timeout);
      underWay = read(sorn, 1, values[0]);
   } while (!gate->arrivesIn(std::chrono::milliseconds(timeout)));
   const auto queued = read(sorn, 2, values[1]);
   EXPECT_EQ(queued->timeout(), timeout);
   ASSERT_TRUE(ends(underWay));
   ASSERT_TRUE(ends(queued));
   EXPECT_EQ(underWay->status(), SornStatus::timedOut);
   EXPECT_EQ(underWay->error(), ETIMEDOUT);
   EXPECT_EQ(queued->status(), SornStatus::timedOut);
   gate->gateIs(true);
   const auto later = sorn->newRequest();
   later->timeoutIs(0);
   std::uint32_t value = 0;
   later->makeReadOp(word(3), value, ReadByteSwap::swap, 0);
   later->stateIs(SornRequestState::submitted);
   ASSERT_TRUE(ends(later));
   EXPECT_EQ(later->status(), SornStatus::success);
   EXPECT_EQ(values[0], 1U) << "what comes after the deadline is not stored";
   EXPECT_EQ(gate->lines().at(5), "write 80 0: 3") << "what timed out in the queue is not done";
}

TEST_F(SornTest, TheManagersEndCancelsWhatHasNotEnded) {
   gate->gateIs(false);
   const auto sorn = gatedBus()->sorn();
   std::uint32_t values[3] = {1, 2, 3};
   std::vector<Ptr<SornRequest>> requests;
   for (std::uint32_t& value : values) {
      requests.push_back(read(sorn, 1, value));
   }
   gate->awaitArrivals(1);
   manager.reset(); // does not wait for the worker, which is held at the gate
   for (const auto& request : requests) {
      EXPECT_EQ(request->status(), SornStatus::cancelled);
      EXPECT_EQ(request->error(), ECANCELED);
   }
   EXPECT_THAT(values, ElementsAre(1, 2, 3));
   std::uint32_t value = 0;
   const auto late = sorn->newRequest();
   late->makeReadOp(word(1), value, ReadByteSwap::swap, 0);
   EXPECT_THROW(late->stateIs(SornRequestState::submitted), std::system_error);
   EXPECT_EQ(late->status(), SornStatus::idle);
   gate->gateIs(true);
   gate->awaitGone(); // the worker has ended by itself, and let everything go
   loop.poll();
   EXPECT_THAT(values, ElementsAre(1, 2, 3));
}

TEST_F(SornTest, TheManagerMayGoInsideANotification) {
   const auto sorn = gatedBus()->sorn();
   std::vector<std::uint32_t> values(10);
   std::vector<Ptr<SornRequest>> requests;
   std::vector<Platform::Subscription> subscriptions;
   int ended = 0;
   gate->gateIs(false);
   for (std::uint32_t& value : values) {
      requests.push_back(read(sorn, 1, value));
      subscriptions.push_back(
         Platform::subscribe(*requests.back(), SornRequest::statusAttr, [&](auto&) {
            ++ended;
            manager.reset();
         }));
   }
   gate->gateIs(true);
   ASSERT_TRUE(loop.runUntil([&] { return ended == 10; }, patience));
}

TEST_F(SornTest, AnObserverThatThrowsKeepsNoOtherFromBeingTold) {
   const auto sorn = gatedBus()->sorn();
   std::vector<std::uint32_t> values(20);
   std::vector<Ptr<SornRequest>> requests;
   std::vector<Platform::Subscription> subscriptions;
   gate->gateIs(false);
   for (std::uint32_t& value : values) {
      requests.push_back(read(sorn, 1, value));
      subscriptions.push_back(Platform::subscribe(*requests.back(), SornRequest::statusAttr,
                                                  [](auto&) { throw std::runtime_error("no"); }));
   }
   gate->gateIs(true);
   int thrown = 0;
   const auto allEnded = [&] {
      return std::all_of(requests.begin(), requests.end(), [](const auto& request) {
         return request->status() == SornStatus::success;
      });
   };
   while (!allEnded()) {
      try {
         ASSERT_TRUE(loop.runUntil(allEnded, patience));
      } catch (const std::runtime_error&) {
         ++thrown;
      }
   }
   EXPECT_EQ(thrown, 20);
}

TEST_F(SornTest, AnObserverMayRunTheLoopAndWaitForAnotherRequest) {
   const auto sorn = gatedBus()->sorn();
   std::vector<std::uint32_t> values(5);
   std::vector<Ptr<SornRequest>> requests;
   gate->gateIs(false);
   for (std::uint32_t& value : values) {
      requests.push_back(read(sorn, 1, value));
   }
   bool waited = false;
   const auto subscription =
      Platform::subscribe(*requests.front(), SornRequest::statusAttr, [&](auto&) {
         waited = loop.runUntil([&] { return requests.back()->status() == SornStatus::success; },
                                patience);
      });
   gate->gateIs(true);
   ASSERT_TRUE(loop.runUntil([&] { return waited; }, patience));
}

TEST_F(SornTest, TenThousandRequestsWithMixedOutcomesEachEndOnce) {
   constexpr int count = 10'000;
   auto bus = std::make_shared<SimulatedI2cBus>();
   auto device = std::make_shared<SimulatedI2cDevice>(SimulatedI2cKind::block);
   for (std::uint16_t i = 0; i < 256; ++i) {
      device->registerIs(i * 4, 1000U + i);
   }
   device->faults().add({.kind = FaultKind::ioError, .first = 100, .count = 50});
   bus->deviceIs(deviceAddress, device);
   const auto desc = manager->busNew("simulated", std::make_unique<SimulatedSornBackend>(bus));
   std::vector<std::uint32_t> values(count);
   std::vector<int> ends(count);
   std::vector<Ptr<SornRequest>> requests;
   std::vector<Platform::Subscription> subscriptions;
   std::vector<Ptr<Sorn>> clients;
   for (int i = 0; i < 7; ++i) {
      clients.push_back(desc->sorn());
   }
   int ended = 0;
   int failed = 0;
   for (int i = 0; i < count; ++i) {
      const auto request = clients[i % clients.size()]->newRequest();
      subscriptions.push_back(Platform::subscribe(*request, SornRequest::statusAttr, [&, i](auto&) {
         if (requests[i]->status() < SornStatus::failed) {
            return;
         }
         ++ends[i];
         ++ended;
         if (requests[i]->status() != SornStatus::success) {
            ++failed;
         } else if (i % 3 != 0) {
            EXPECT_EQ(values[i], 1000U + i % 256);
         }
      }));
      requests.push_back(request);
      const bool isElsewhere = i % 3 == 0;
      request->makeReadOp(word((i % 256) * 4, isElsewhere ? 0x11 : deviceAddress), values[i],
                          ReadByteSwap::swap, 0);
      request->stateIs(SornRequestState::submitted);
   }
   ASSERT_TRUE(loop.runUntil([&] { return ended == count; }, patience));
   loop.poll();
   EXPECT_THAT(ends, Each(1));
   EXPECT_GT(failed, count / 3);
   EXPECT_LE(failed, count / 3 + 1 + 50);
}

TEST_F(SornTest, AnObserverOfATimeoutThatThrowsKeepsNoOtherFromTimingOut) {
   gate->gateIs(false);
   const auto desc = gatedBus();
   desc->timeoutIs(5);
   const auto sorn = desc->sorn();
   std::vector<std::uint32_t> values(20);
   std::vector<Ptr<SornRequest>> requests;
   std::vector<Platform::Subscription> subscriptions;
   for (std::uint32_t& value : values) {
      requests.push_back(read(sorn, 1, value));
      subscriptions.push_back(Platform::subscribe(*requests.back(), SornRequest::statusAttr,
                                                  [](auto&) { throw std::runtime_error("no"); }));
   }
   int thrown = 0;
   const auto allEnded = [&] {
      return std::all_of(requests.begin(), requests.end(), [](const auto& request) {
         return request->status() == SornStatus::timedOut;
      });
   };
   while (!allEnded()) {
      try {
         ASSERT_TRUE(loop.runUntil(allEnded, patience));
      } catch (const std::runtime_error&) {
         ++thrown;
      }
   }
   EXPECT_EQ(thrown, 20);
   gate->gateIs(true);
}

TEST_F(SornTest, AnObserverOfATimeoutMayRunTheLoopUntilAnotherTimesOut) {
   gate->gateIs(false);
   const auto desc = gatedBus();
   desc->timeoutIs(5);
   const auto sorn = desc->sorn();
   std::vector<std::uint32_t> values(3);
   std::vector<Ptr<SornRequest>> requests;
   for (std::uint32_t& value : values) {
      requests.push_back(read(sorn, 1, value));
   }
   bool waited = false;
   const auto subscription =
      Platform::subscribe(*requests.front(), SornRequest::statusAttr, [&](auto&) {
         waited = loop.runUntil([&] { return requests.back()->status() == SornStatus::timedOut; },
                                patience);
      });
   ASSERT_TRUE(ends(requests.front()));
   EXPECT_TRUE(waited);
   gate->gateIs(true);
}

/// Submitted again at each end, with a deadline that is over as soon as it is given.
TEST_F(SornTest, RequestsThatTimeOutAndAreSubmittedAnewLeaveTheLoopTimeForOthers) {
   gate->gateIs(false);
   const auto desc = gatedBus();
   desc->timeoutIs(1);
   const auto sorn = desc->sorn();
   std::vector<std::uint32_t> values(500);
   std::vector<Ptr<SornRequest>> requests;
   std::vector<Platform::Subscription> subscriptions;
   std::size_t ended = 0;
   bool othersHadTheirTurn = false;
   std::size_t atMost = 100'000; // so that the test ends if they have not
   for (std::uint32_t& value : values) {
      requests.push_back(read(sorn, 1, value));
      SornRequest& request = *requests.back();
      subscriptions.push_back(
         Platform::subscribe(request, SornRequest::statusAttr, [&](const Platform::Change&) {
            if (request.status() != SornStatus::timedOut) {
               return;
            }
            if (++ended == 1) {
               loop.post([&] { othersHadTheirTurn = true; });
            }
            if (othersHadTheirTurn || ended >= atMost) {
               return;
            }
            const auto due = std::chrono::steady_clock::now() + std::chrono::microseconds(10);
            while (std::chrono::steady_clock::now() < due) {
            }
            request.stateIs(SornRequestState::idle);
            request.makeReadOp(word(1), value, ReadByteSwap::swap, 0);
            request.stateIs(SornRequestState::submitted);
         }));
   }
   ASSERT_TRUE(loop.runUntil([&] { return othersHadTheirTurn; }, patience));
   EXPECT_LT(ended, atMost);
   gate->gateIs(true);
}

TEST_F(SornTest, WhatWasDoneInTimeIsNotCalledTimedOutBecauseTheLoopWasBusy) {
   const auto desc = gatedBus();
   desc->timeoutIs(200);
   const auto sorn = desc->sorn();
   std::vector<std::uint32_t> values(1000);
   std::vector<Ptr<SornRequest>> requests;
   for (std::uint32_t& value : values) {
      requests.push_back(read(sorn, 1, value));
   }
   // The bus does them all; the loop comes to hear of it only after their deadline. Whether the
   // bus was in time is its own to say: those it took later end as timed out by the worker.
   const auto due = std::chrono::steady_clock::now() + std::chrono::milliseconds(250);
   while (std::chrono::steady_clock::now() < due) {
   }
   const std::size_t done = gate->lines().size() / 4;
   ASSERT_TRUE(ends(requests.back()));
   const auto succeeded = std::count_if(requests.begin(), requests.end(), [](const auto& request) {
      return request->status() == SornStatus::success;
   });
   EXPECT_GE(static_cast<std::size_t>(succeeded), done == 0 ? 0 : done - 1);
}

TEST_F(SornTest, ADeadlineThatIsNoLongerNeededKeepsNoLoopRunning) {
   const auto desc = gatedBus();
   desc->timeoutIs(3'600'000);
   const auto sorn = desc->sorn();
   std::uint32_t value = 0;
   const auto done = read(sorn, 1, value);
   ASSERT_TRUE(ends(done));
   loop.run(); // for an hour, were it still there
   gate->gateIs(false);
   const auto takenBack = read(sorn, 1, value);
   takenBack->stateIs(SornRequestState::idle);
   loop.run();
   auto dropped = read(sorn, 1, value);
   dropped.reset();
   loop.run();
   gate->gateIs(true);
}

TEST_F(SornTest, WhatAClientTookBackCostsItNoTurns) {
   gate->gateIs(false);
   const auto desc = gatedBus();
   const auto greedy = desc->sorn();
   const auto fickle = desc->sorn();
   std::vector<std::uint32_t> values(100);
   std::vector<Ptr<SornRequest>> requests;
   requests.push_back(read(greedy, 1, values[0]));
   gate->awaitArrivals(1);
   std::vector<Ptr<SornRequest>> takenBack;
   std::uint32_t value = 0;
   for (int i = 0; i < 50; ++i) {
      takenBack.push_back(read(fickle, 2, value));
   }
   for (std::size_t i = 1; i < values.size(); ++i) {
      requests.push_back(read(greedy, 1, values[i]));
   }
   takenBack.clear();
   const auto single = read(fickle, 0x77, value);
   gate->gateIs(true);
   ASSERT_TRUE(ends(single));
   EXPECT_EQ(gate->lines().at(4 + 1), "write 80 0: 119");
   ASSERT_TRUE(ends(requests.back()));
}

TEST_F(SornTest, AHangingBusKeepsNoMemoryOfWhatWasTakenBack) {
   gate->gateIs(false);
   const auto desc = gatedBus();
   const auto first = desc->sorn();
   std::uint32_t value = 0;
   const auto stuck = read(first, 1, value);
   gate->awaitArrivals(1);
   const auto submitAndDrop = [&](int count) {
      for (int i = 0; i < count; ++i) {
         read(i % 2 == 0 ? first : desc->sorn(), 1, value);
      }
   };
   submitAndDrop(2'000);
   const std::size_t before = TestSupport::allocatedBytes();
   submitAndDrop(20'000);
   EXPECT_LT(TestSupport::allocatedBytes(), before + 500'000);
   const auto last = read(first, 0x77, value);
   gate->gateIs(true);
   ASSERT_TRUE(ends(last));
   EXPECT_THAT(gate->lines(), SizeIs(8)) << "the one that hung, and the last one";
}

TEST_F(SornTest, AHangingBusKeepsNoMemoryOfWhatTimedOut) {
   gate->gateIs(false);
   const auto desc = gatedBus();
   const auto sorn = desc->sorn();
   std::uint32_t value = 0;
   const auto stuck = read(sorn, 1, value);
   gate->awaitArrivals(1);
   const auto request = sorn->newRequest();
   request->timeoutIs(1);
   const auto timesOut = [&](int count) {
      const int requestsAtOnce = 1000;
      for (int i = 0; i < count; i += requestsAtOnce) {
         std::vector<Ptr<SornRequest>> requests;
         for (int j = 0; j < requestsAtOnce; ++j) {
            requests.push_back(sorn->newRequest());
            requests.back()->timeoutIs(1);
            requests.back()->makeReadOp(word(1), value, ReadByteSwap::swap, 0);
            requests.back()->stateIs(SornRequestState::submitted);
         }
         ASSERT_TRUE(ends(requests.back()));
         EXPECT_EQ(requests.back()->status(), SornStatus::timedOut);
      }
   };
   timesOut(2'000);
   const std::size_t before = TestSupport::allocatedBytes();
   timesOut(20'000);
   EXPECT_LT(TestSupport::allocatedBytes(), before + 500'000);
   gate->gateIs(true);
   ASSERT_TRUE(ends(stuck));
}

TEST_F(SornTest, AManagerThatGoesTakesNoNewBus) {
   gate->gateIs(false);
   const auto sorn = gatedBus()->sorn();
   std::uint32_t value = 0;
   const auto request = read(sorn, 1, value);
   gate->awaitArrivals(1);
   SornManager& going = *manager;
   auto other = std::make_shared<TestSupport::GatedSornBackend::State>();
   int refused = 0;
   const auto subscription =
      Platform::subscribe(*request, SornRequest::statusAttr, [&](const Platform::Change&) {
         try {
            going.busNew("other", std::make_unique<TestSupport::GatedSornBackend>(other));
         } catch (const std::system_error& error) {
            EXPECT_EQ(error.code().value(), ESHUTDOWN);
            ++refused;
         }
      });
   manager.reset();
   EXPECT_EQ(refused, 1);
   other->awaitGone(); // a worker that served it would keep it
   gate->gateIs(true);
}

TEST_F(SornTest, AnObserverMayThrowAnythingWhenTheManagerGoes) {
   gate->gateIs(false);
   const auto sorn = gatedBus()->sorn();
   std::uint32_t values[2] = {};
   const auto first = read(sorn, 1, values[0]);
   const auto second = read(sorn, 1, values[1]);
   const auto throwing = Platform::subscribe(*first, SornRequest::statusAttr,
                                             [](const Platform::Change&) { throw 42; });
   manager.reset();
   EXPECT_EQ(first->status(), SornStatus::cancelled);
   EXPECT_EQ(second->status(), SornStatus::cancelled);
   gate->gateIs(true);
}

TEST_F(SornTest, ARequestIsPendingThoughAnObserverOfItsStateThrew) {
   gate->gateIs(false);
   const auto sorn = gatedBus()->sorn();
   std::uint32_t value = 0;
   const auto request = sorn->newRequest();
   request->makeReadOp(word(1), value, ReadByteSwap::swap, 0);
   {
      const auto throwing =
         Platform::subscribe(*request, SornRequest::stateAttr,
                             [](const Platform::Change&) { throw std::runtime_error("no"); });
      EXPECT_THROW(request->stateIs(SornRequestState::submitted), std::runtime_error);
      EXPECT_EQ(request->status(), SornStatus::pending);
      gate->gateIs(true);
      ASSERT_TRUE(ends(request));
      EXPECT_THROW(request->stateIs(SornRequestState::idle), std::runtime_error);
      EXPECT_EQ(request->status(), SornStatus::idle);
   }
}

TEST_F(SornTest, ARequestThatHasEndedIsNotDescribedBeforeItIsSetBack) {
   const auto sorn = gatedBus()->sorn();
   std::uint32_t value = 0;
   const auto request = read(sorn, 1, value);
   ASSERT_TRUE(ends(request));
   // Accepted, it could not be submitted, as its state is that already.
   EXPECT_THROW(request->makeReadOp(word(2), value, ReadByteSwap::swap, 0), std::system_error);
   request->stateIs(SornRequestState::idle);
   request->makeReadOp(word(2), value, ReadByteSwap::swap, 0);
   request->stateIs(SornRequestState::submitted);
   EXPECT_TRUE(ends(request));
}

TEST_F(SornTest, AnObserverMaySubmitItsRequestAnewAndDropItsNeighbours) {
   const auto sorn = gatedBus()->sorn();
   constexpr int count = 300;
   std::vector<std::unique_ptr<std::uint32_t>> values(count);
   std::vector<Ptr<SornRequest>> requests(count);
   std::vector<Platform::Subscription> subscriptions;
   int ended = 0;
   gate->gateIs(false);
   for (int i = 0; i < count; ++i) {
      values[i] = std::make_unique<std::uint32_t>(0);
      requests[i] = read(sorn, 1, *values[i]);
      subscriptions.push_back(Platform::subscribe(
         *requests[i], SornRequest::statusAttr, [&, i, rounds = 0](const auto&) mutable {
            const Ptr<SornRequest> self = requests[i];
            if (self->status() < SornStatus::failed) {
               return;
            }
            ++ended;
            const int neighbour = i % 3 == 0 ? (i + 1) % count : i;
            if (neighbour != i) {
               requests[neighbour].reset();
               values[neighbour].reset();
            }
            if (++rounds < 3) {
               self->stateIs(SornRequestState::idle);
               self->makeReadOp(word(1), *values[i], ReadByteSwap::swap, 0);
               self->stateIs(SornRequestState::submitted);
            }
         }));
   }
   gate->gateIs(true);
   // Of three, one is dropped; the others are done three times each.
   ASSERT_TRUE(loop.runUntil([&] { return ended == count / 3 * 2 * 3; }, patience));
   loop.poll();
   EXPECT_EQ(ended, count / 3 * 2 * 3);
}

TEST_F(SornTest, TheManagerMayGoInsideATimeout) {
   gate->gateIs(false);
   const auto desc = gatedBus();
   std::uint32_t held = 0;
   const auto holder = read(desc->sorn(), 1, held); // without a deadline; the others wait for it
   gate->awaitArrivals(1);
   desc->timeoutIs(5);
   const auto sorn = desc->sorn();
   std::vector<std::uint32_t> values(10);
   std::vector<Ptr<SornRequest>> requests;
   std::vector<Platform::Subscription> subscriptions;
   int ended = 0;
   for (std::uint32_t& value : values) {
      requests.push_back(read(sorn, 1, value));
      subscriptions.push_back(
         Platform::subscribe(*requests.back(), SornRequest::statusAttr, [&](auto&) {
            ++ended;
            manager.reset();
         }));
   }
   ASSERT_TRUE(loop.runUntil([&] { return ended == 10; }, patience));
   EXPECT_EQ(requests.front()->status(), SornStatus::timedOut);
   EXPECT_EQ(requests.back()->status(), SornStatus::cancelled);
   gate->gateIs(true);
}

TEST_F(SornTest, ABusNeedsANameOfItsOwnAndABackend) {
   gatedBus("a");
   EXPECT_THROW(gatedBus("a"), std::system_error);
   EXPECT_THROW(manager->busNew("b", nullptr), std::system_error);
   EXPECT_EQ(manager->linuxBus("/dev/i2c-none")->busName(), "/dev/i2c-none");
   EXPECT_EQ(manager->linuxBus("/dev/i2c-none")->busName(), "/dev/i2c-none");
}

TEST_F(SornTest, ABusThatIsNotThereFailsItsRequests) {
   const auto sorn = manager->linuxBus("/dev/i2c-none")->sorn();
   std::uint32_t value = 0;
   const auto request = read(sorn, 1, value);
   ASSERT_TRUE(ends(request));
   EXPECT_EQ(request->status(), SornStatus::failed);
   EXPECT_EQ(request->error(), ENOENT);
}

TEST_F(SornTest, ItIsDescribedByItsTables) {
   const auto desc = gatedBus("b7");
   EXPECT_EQ(Sorn::staticType().name(), "Hardware::Sorn");
   EXPECT_EQ(SornDesc::staticType().name(), "Hardware::SornDesc");
   EXPECT_EQ(SornRequest::staticType().name(), "Hardware::SornRequest");
   EXPECT_EQ(desc->sorn()->newRequest()->status(), SornStatus::idle);
}

} // namespace
} // namespace Hardware
