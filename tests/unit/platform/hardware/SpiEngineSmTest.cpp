#include "platform/hardware/SpiEngineSm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/entity/EventLoop.h"
#include "platform/entity/WeakPtr.h"
#include "platform/trace/CaptureScope.h"
#include "tests/support/ChangeLog.h"
#include "tests/support/Failure.h"
#include "tests/support/Reflected.h"

namespace {

using Hardware::SimulatedSpiDevice;
using Hardware::SpiEngine;
using Hardware::SpiEngineConfig;
using Hardware::SpiEngineRequest;
using Hardware::SpiEngineSm;
using Hardware::SpiEngineStatus;
using Hardware::SpiHwAccess;
using Platform::EventLoop;
using Platform::make;
using Platform::Ptr;
using Platform::subscribe;
using Platform::WeakPtr;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::ChangeLog;
using TestSupport::Failure;

class StateMachine : public testing::Test {
protected:
   StateMachine() {
      handle->readyIs(true);
      handle->eventLoopIs(&loop);
   }

   void makeSm() { sm = make<SpiEngineSm>(engine, config, status); }

   static Ptr<SpiEngineRequest> write(std::uint32_t id) {
      auto request = make<SpiEngineRequest>(id);
      for (int i = 0; i < 3; ++i) {
         request->cmdDataIs(i, {0, static_cast<std::uint8_t>(id)});
      }
      return request;
   }
   void enqueue(std::initializer_list<std::uint32_t> ids) {
      for (const std::uint32_t id : ids) {
         config->requestEnq(write(id));
      }
   }

   /// The first byte of each message that the device saw.
   std::vector<int> sent() const {
      std::vector<int> ids;
      for (const auto& transfer : device->journal()) {
         ids.push_back(transfer.bytes.front());
      }
      return ids;
   }

   EventLoop loop;
   const Ptr<SimulatedSpiDevice> device = make<SimulatedSpiDevice>("bus 1");
   const Ptr<SpiHwAccess> handle = Hardware::spiHwAccessFactory("cpld", device);
   Ptr<SpiEngine> engine = make<SpiEngine>(handle);
   Ptr<SpiEngineConfig> config = make<SpiEngineConfig>("cpld");
   Ptr<SpiEngineStatus> status = make<SpiEngineStatus>("cpld");
   Ptr<SpiEngineSm> sm;
};

TEST_F(StateMachine, NeedsItsThreeParts) {
   const auto failure = Failure::generic(
      EINVAL, "SPI state machine must have an engine, a configuration and a status");
   EXPECT_EQ(Failure([&] { make<SpiEngineSm>(nullptr, config, status); }), failure);
   EXPECT_EQ(Failure([&] { make<SpiEngineSm>(engine, nullptr, status); }), failure);
   EXPECT_EQ(Failure([&] { make<SpiEngineSm>(engine, config, nullptr); }), failure);
   EXPECT_THAT(handle->engines(), IsEmpty());
   makeSm();
   EXPECT_EQ(sm->engine(), engine);
   EXPECT_EQ(sm->config(), config);
   EXPECT_EQ(sm->status(), status);
   EXPECT_EQ(sm->name(), "cpld");
}

TEST_F(StateMachine, SendsNothingUntilTheLoopRuns) {
   makeSm();
   enqueue({1, 2});
   EXPECT_THAT(sent(), IsEmpty());
   EXPECT_EQ(config->queueLength(), 2u);
   EXPECT_EQ(status->completed(), 0u);
   loop.run();
   EXPECT_THAT(sent(), ElementsAre(1, 2));
   EXPECT_EQ(config->queueLength(), 0u);
   EXPECT_EQ(status->completed(), 2u);
   EXPECT_EQ(status->failed(), 0u);
   EXPECT_EQ(status->lastRequestId(), 2u);
}

TEST_F(StateMachine, AnIdleOneKeepsNoLoopRunning) {
   makeSm();
   EXPECT_EQ(loop.run(), 0u);
   enqueue({1});
   EXPECT_EQ(loop.run(), 1u);
   EXPECT_EQ(loop.run(), 0u);
}

TEST_F(StateMachine, ServesOneRequestATurnAndLetsOthersInBetween) {
   makeSm();
   enqueue({1, 2, 3});
   std::vector<int> seen;
   std::function<void()> look = [&] {
      seen.push_back(static_cast<int>(device->journal().size()));
      if (seen.size() < 6) {
         loop.post(look);
      }
   };
   loop.post(look);
   loop.run();
   ASSERT_EQ(seen.size(), 6u);
   for (std::size_t i = 1; i < seen.size(); ++i) {
      EXPECT_LE(seen[i] - seen[i - 1], 1) << "at turn " << i;
   }
   EXPECT_THAT(sent(), ElementsAre(1, 2, 3));
}

TEST_F(StateMachine, ServesWhatWasQueuedBeforeItWasMade) {
   enqueue({1, 2});
   loop.run();
   EXPECT_THAT(sent(), IsEmpty());
   makeSm();
   EXPECT_THAT(sent(), IsEmpty());
   loop.run();
   EXPECT_THAT(sent(), ElementsAre(1, 2));
}

TEST_F(StateMachine, WhatIsQueuedWhileItServesComesLast) {
   makeSm();
   enqueue({1, 2});
   bool once = false;
   ChangeLog log(*status, [&] {
      if (!std::exchange(once, true)) {
         enqueue({3});
      }
   });
   loop.run();
   EXPECT_THAT(sent(), ElementsAre(1, 2, 3));
}

TEST_F(StateMachine, SendsARequestAsItIsWhenItsTurnComesAndHandsBackTheAnswer) {
   makeSm();
   const auto request = write(1);
   config->requestEnq(request);
   config->requestEnq(request);
   request->cmdDataIs(0, {0, 9});
   loop.run();
   EXPECT_THAT(sent(), ElementsAre(9, 9));
   EXPECT_THAT(request->received(), ElementsAre(0, 0, 0));
   EXPECT_EQ(request->refCount(), 1u);
}

// -- failures ------------------------------------------------------------------------------------

TEST_F(StateMachine, AFailureFailsItsRequestAndNothingElse) {
   makeSm();
   device->failTransferIs(2, EIO);
   enqueue({1, 2, 3});
   const Platform::Trace::CaptureScope trace("platform/hardware/SpiEngineSm=0");
   loop.run();
   EXPECT_THAT(sent(), ElementsAre(1, 2, 3));
   EXPECT_EQ(status->completed(), 2u);
   EXPECT_EQ(status->failed(), 1u);
   EXPECT_EQ(status->lastError(), EIO);
   EXPECT_EQ(status->lastErrorText(), "SPI request 2: bus 1: Input/output error");
   EXPECT_EQ(status->lastRequestId(), 3u);
   EXPECT_THAT(trace.texts(), ElementsAre("SPI request 2: bus 1: Input/output error"));
}

TEST_F(StateMachine, ADeadDeviceFailsItsRequestsAndOnceBackServesTheNext) {
   makeSm();
   device->lostIs(true);
   enqueue({1, 2, 3});
   {
      const Platform::Trace::CaptureScope trace("platform/hardware/SpiEngineSm=0");
      loop.run();
      EXPECT_EQ(trace.records().size(), 1u) << "one line for a row of the same";
   }
   EXPECT_EQ(status->failed(), 3u);
   EXPECT_EQ(status->lastError(), ENXIO);
   device->lostIs(false);
   enqueue({4});
   loop.run();
   EXPECT_EQ(status->completed(), 1u);
   EXPECT_EQ(device->registerValue(4), 0x0404);
}

TEST_F(StateMachine, RepeatedFailuresAreTracedAtTheNextLevel) {
   makeSm();
   device->lostIs(true);
   enqueue({1, 2});
   const Platform::Trace::CaptureScope trace("platform/hardware/SpiEngineSm=1");
   loop.run();
   ASSERT_EQ(trace.records().size(), 2u);
   EXPECT_EQ(trace.records()[0].level, 0);
   EXPECT_EQ(trace.records()[1].level, 1);
   EXPECT_EQ(trace.records()[1].text, "SPI request 2: bus 1: No such device or address");
}

TEST_F(StateMachine, ADeviceThatIsNotReadyFailsItsRequests) {
   makeSm();
   handle->readyIs(false);
   enqueue({1});
   const Platform::Trace::CaptureScope trace;
   loop.run();
   EXPECT_EQ(status->failed(), 1u);
   EXPECT_EQ(status->lastError(), ENODEV);
   EXPECT_EQ(status->lastErrorText(), "SPI request 1: device 'cpld' is not ready");
   EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(StateMachine, ReadinessCountsWhenTheTurnComesNotWhenItIsQueued) {
   makeSm();
   handle->readyIs(false);
   enqueue({1});
   handle->readyIs(true);
   loop.run();
   EXPECT_EQ(status->completed(), 1u);
}

TEST_F(StateMachine, ARefusedRequestIsReportedAndTheQueueGoesOn) {
   makeSm();
   config->requestEnq(make<SpiEngineRequest>(1u));
   enqueue({2});
   const Platform::Trace::CaptureScope trace;
   loop.run();
   EXPECT_EQ(status->failed(), 1u);
   EXPECT_EQ(status->lastError(), EINVAL);
   EXPECT_EQ(status->completed(), 1u);
}

TEST_F(StateMachine, AFailingObserverLeavesTheLoopButLosesNoRequest) {
   makeSm();
   enqueue({1, 2, 3});
   const auto failing = subscribe(*status, SpiEngineStatus::completedAttr,
                                  [](const auto&) { throw std::runtime_error("observer"); });
   int told = 0;
   const auto other =
      subscribe(*status, SpiEngineStatus::completedAttr, [&](const auto&) { ++told; });
   for (int i = 0; i < 3; ++i) {
      EXPECT_THROW(loop.run(), std::runtime_error);
   }
   EXPECT_EQ(loop.run(), 0u);
   EXPECT_THAT(sent(), ElementsAre(1, 2, 3));
   EXPECT_EQ(status->completed(), 3u);
   EXPECT_EQ(told, 3);
}

TEST_F(StateMachine, AFailingObserverOfTheQueueLosesNoRequestEither) {
   makeSm();
   enqueue({1});
   const auto failing =
      subscribe(*config, [](const auto&) { throw std::runtime_error("observer"); });
   EXPECT_THROW(enqueue({2}), std::runtime_error);
   EXPECT_THROW(loop.run(), std::runtime_error);
   EXPECT_THROW(loop.run(), std::runtime_error);
   EXPECT_THAT(sent(), ElementsAre(1, 2));
   EXPECT_EQ(status->completed(), 2u);
}

// -- finding a loop ------------------------------------------------------------------------------

TEST_F(StateMachine, WithoutALoopRequestsWaitUntilDrained) {
   handle->eventLoopIs(nullptr);
   makeSm();
   enqueue({1, 2});
   loop.run();
   EXPECT_THAT(sent(), IsEmpty());
   EXPECT_EQ(sm->drain(), 0u);
   EXPECT_THAT(sent(), ElementsAre(1, 2));
}

TEST_F(StateMachine, OneMadeInsideALoopUsesThatOne) {
   handle->eventLoopIs(nullptr);
   enqueue({1});
   loop.post([&] { makeSm(); });
   loop.run();
   EXPECT_THAT(sent(), ElementsAre(1));
}

TEST_F(StateMachine, ARequestQueuedInsideALoopBringsTheLoopAlong) {
   handle->eventLoopIs(nullptr);
   makeSm();
   enqueue({1});
   loop.post([&] { enqueue({2}); });
   loop.run();
   EXPECT_THAT(sent(), ElementsAre(1, 2));
}

TEST_F(StateMachine, TheHandlesLoopGoesBeforeTheRunningOne) {
   EventLoop other;
   other.post([&] {
      makeSm();
      enqueue({1});
   });
   other.run();
   EXPECT_THAT(sent(), IsEmpty());
   loop.run();
   EXPECT_THAT(sent(), ElementsAre(1));
}

TEST_F(StateMachine, ALoopNamedLaterIsFoundByTheNextRequest) {
   handle->eventLoopIs(nullptr);
   makeSm();
   enqueue({1});
   handle->eventLoopIs(&loop);
   enqueue({2});
   loop.run();
   EXPECT_THAT(sent(), ElementsAre(1, 2));
}

TEST_F(StateMachine, OutlivesItsLoopAndTakesAnother) {
   auto gone = std::make_unique<EventLoop>();
   handle->eventLoopIs(gone.get());
   makeSm();
   enqueue({1});
   gone.reset();
   EXPECT_THAT(sent(), IsEmpty());
   enqueue({2});
   loop.post([&] { enqueue({3}); });
   loop.run();
   EXPECT_THAT(sent(), ElementsAre(1, 2, 3));
}

TEST_F(StateMachine, OutlivesItsLoopAndCanBeDrained) {
   auto gone = std::make_unique<EventLoop>();
   handle->eventLoopIs(gone.get());
   makeSm();
   enqueue({1});
   gone.reset();
   EXPECT_EQ(sm->drain(), 0u);
   EXPECT_THAT(sent(), ElementsAre(1));
}

// -- draining ------------------------------------------------------------------------------------

TEST_F(StateMachine, DrainingSendsAllAtOnceAndLeavesTheLoopNothing) {
   makeSm();
   device->failTransferIs(2, EIO);
   enqueue({1, 2, 3});
   const Platform::Trace::CaptureScope trace;
   EXPECT_EQ(sm->drain(), 1u);
   EXPECT_THAT(sent(), ElementsAre(1, 2, 3));
   EXPECT_EQ(status->completed(), 2u);
   EXPECT_EQ(loop.run(), 0u);
   EXPECT_EQ(sm->drain(), 0u);
   enqueue({4});
   loop.run();
   EXPECT_THAT(sent(), ElementsAre(1, 2, 3, 4));
}

TEST_F(StateMachine, DrainingTakesAlongWhatObserversQueueMeanwhile) {
   makeSm();
   enqueue({1, 2});
   std::uint32_t next = 3;
   const auto more = subscribe(*status, SpiEngineStatus::completedAttr, [&](const auto&) {
      if (next < 5) {
         enqueue({next++});
      }
   });
   EXPECT_EQ(sm->drain(), 0u);
   EXPECT_THAT(sent(), ElementsAre(1, 2, 3, 4));
}

TEST_F(StateMachine, DrainingEmptiesTheQueueWhateverObserversThrow) {
   makeSm();
   enqueue({1, 2, 3});
   int calls = 0;
   const auto failing = subscribe(*status, SpiEngineStatus::completedAttr, [&](const auto&) {
      throw std::runtime_error(std::to_string(++calls));
   });
   EXPECT_EQ(Failure([&] {
                try {
                   sm->drain();
                } catch (const std::runtime_error& first) {
                   throw Platform::RangeError(first.what());
                }
             }),
             Failure::range("1"));
   EXPECT_EQ(calls, 3);
   EXPECT_EQ(config->queueLength(), 0u);
   EXPECT_EQ(loop.run(), 0u);
}

TEST_F(StateMachine, DrainingFromAnObserverKeepsTheOrder) {
   makeSm();
   enqueue({1, 2, 3});
   const auto draining =
      subscribe(*status, SpiEngineStatus::completedAttr, [&](const auto&) { sm->drain(); });
   const auto queueDraining = subscribe(*config, [&](const auto&) { sm->drain(); });
   loop.run();
   EXPECT_THAT(sent(), ElementsAre(1, 2, 3));
   EXPECT_EQ(status->completed(), 3u);
   EXPECT_EQ(loop.run(), 0u);
}

// -- the end -------------------------------------------------------------------------------------

TEST_F(StateMachine, TeardownFailsWhatWaitsWithoutTouchingTheDevice) {
   makeSm();
   enqueue({1, 2});
   std::vector<std::string> texts;
   const auto watching = subscribe(*status, SpiEngineStatus::failedAttr,
                                   [&](const auto&) { texts.push_back(status->lastErrorText()); });
   const Platform::Trace::CaptureScope trace;
   sm->teardown();
   EXPECT_THAT(texts, ElementsAre("SPI request 1: discarded, as its engine was taken down",
                                  "SPI request 2: discarded, as its engine was taken down"));
   EXPECT_THAT(trace.texts(),
               ElementsAre("SPI engine of 'cpld' taken down; queued requests discarded: 2"));
   EXPECT_EQ(status->failed(), 2u);
   EXPECT_EQ(status->lastError(), ECANCELED);
   EXPECT_EQ(config->queueLength(), 0u);
   EXPECT_THAT(sent(), IsEmpty());
   EXPECT_EQ(loop.run(), 0u);
}

TEST_F(StateMachine, TeardownIsOnceAndForAll) {
   makeSm();
   sm->teardown();
   enqueue({1});
   sm->teardown();
   EXPECT_EQ(sm->drain(), 0u);
   EXPECT_EQ(loop.run(), 0u);
   EXPECT_EQ(config->queueLength(), 1u) << "it stays for another state machine";
   EXPECT_EQ(status->failed(), 0u);
   makeSm();
   loop.run();
   EXPECT_THAT(sent(), ElementsAre(1));
}

TEST_F(StateMachine, TeardownEndsThoughAnObserverQueuesEachRequestAgain) {
   makeSm();
   enqueue({1, 2});
   const auto retrying = subscribe(*status, SpiEngineStatus::failedAttr,
                                   [&](const auto&) { enqueue({status->lastRequestId()}); });
   const Platform::Trace::CaptureScope trace;
   sm->teardown();
   EXPECT_EQ(status->failed(), 2u);
   EXPECT_EQ(config->queueLength(), 2u);
}

TEST_F(StateMachine, ItsLastReferenceIsItsTeardown) {
   makeSm();
   enqueue({1});
   const Platform::Trace::CaptureScope trace;
   sm.reset();
   EXPECT_EQ(status->lastError(), ECANCELED);
   EXPECT_EQ(config->queueLength(), 0u);
   EXPECT_EQ(loop.run(), 0u);
   EXPECT_EQ(engine->refCount(), 1u);
   EXPECT_EQ(config->refCount(), 1u);
   EXPECT_EQ(status->refCount(), 1u);
   EXPECT_FALSE(config->hasNotifiees());
}

TEST_F(StateMachine, WhatObserversThrowAtTheEndIsTracedAndGoesNoFurther) {
   makeSm();
   enqueue({1, 2});
   const auto failing =
      subscribe(*status, [](const auto&) { throw std::runtime_error("observer"); });
   const Platform::Trace::CaptureScope trace;
   sm.reset();
   EXPECT_EQ(status->failed(), 2u);
   EXPECT_THAT(trace.texts(),
               ElementsAre("SPI engine of 'cpld' taken down; queued requests discarded: 2",
                           "an observer failed: observer"));
}

TEST_F(StateMachine, WhatObserversThrowAtTheEndNeedNotBeAnException) {
   makeSm();
   enqueue({1});
   const auto failing = subscribe(*status, [](const auto&) { throw 1; });
   const Platform::Trace::CaptureScope trace;
   sm.reset();
   EXPECT_EQ(trace.texts().back(), "an observer failed: unknown exception");
}

TEST_F(StateMachine, TheFourMayGoInAnyOrder) {
   std::vector<int> order{0, 1, 2, 3};
   do {
      engine = make<SpiEngine>(handle);
      config = make<SpiEngineConfig>("cpld");
      status = make<SpiEngineStatus>("cpld");
      makeSm();
      const WeakPtr<SpiEngineSm> weak(sm);
      enqueue({1, 2});
      const Platform::Trace::CaptureScope trace;
      for (const int which : order) {
         switch (which) {
         case 0:
            engine.reset();
            break;
         case 1:
            config.reset();
            break;
         case 2:
            status.reset();
            break;
         default:
            sm.reset();
         }
      }
      EXPECT_EQ(weak.lock(), nullptr);
      EXPECT_EQ(loop.run(), 0u);
   } while (std::next_permutation(order.begin(), order.end()));
   EXPECT_THAT(sent(), IsEmpty());
   EXPECT_THAT(handle->engines(), IsEmpty());
}

TEST_F(StateMachine, AnObserverMayLetEverythingGoWhileItIsCalled) {
   for (const bool ofQueue : {false, true}) {
      engine = make<SpiEngine>(handle);
      config = make<SpiEngineConfig>("cpld");
      status = make<SpiEngineStatus>("cpld");
      device->journalClear();
      makeSm();
      enqueue({1, 2});
      const WeakPtr<SpiEngineSm> weak(sm);
      const Ptr<Platform::Node> source =
         ofQueue ? Ptr<Platform::Node>(config) : Ptr<Platform::Node>(status);
      const auto watching = subscribe(*source, [&](const auto&) {
         sm.reset();
         engine.reset();
         config.reset();
         status.reset();
      });
      const Platform::Trace::CaptureScope trace;
      loop.run();
      EXPECT_THAT(sent(), ElementsAre(1)) << "the second one is discarded";
      EXPECT_EQ(weak.lock(), nullptr);
      EXPECT_THAT(handle->engines(), IsEmpty());
   }
}

TEST_F(StateMachine, AnObserverMayTearItDownDuringADrain) {
   makeSm();
   enqueue({1, 2, 3});
   const auto watching =
      subscribe(*status, SpiEngineStatus::completedAttr, [&](const auto&) { sm->teardown(); });
   const Platform::Trace::CaptureScope trace;
   EXPECT_EQ(sm->drain(), 0u) << "the discarded ones were not drained";
   EXPECT_THAT(sent(), ElementsAre(1));
   EXPECT_EQ(status->failed(), 2u);
}

TEST_F(StateMachine, AnObserverMayLetItGoDuringADrainOfTheHandle) {
   makeSm();
   enqueue({1, 2});
   const auto watching =
      subscribe(*status, SpiEngineStatus::completedAttr, [&](const auto&) { sm.reset(); });
   EXPECT_EQ(handle->drain(), 0u);
   EXPECT_THAT(sent(), ElementsAre(1, 2)) << "held until the drain is over";
   EXPECT_THAT(handle->engines(), IsEmpty());
}

TEST_F(StateMachine, ReflectsItsPartsAndOperations) {
   EXPECT_THAT(TestSupport::reflectedAttributes(SpiEngineSm::staticType()),
               ElementsAre("name", "engine", "config", "status"));
   EXPECT_THAT(TestSupport::reflectedOperations(SpiEngineSm::staticType()),
               ElementsAre("drain()", "teardown()"));
}

} // namespace
