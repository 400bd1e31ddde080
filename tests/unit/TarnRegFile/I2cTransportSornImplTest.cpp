// The asynchronous transport below a TransportMethod: what reaches the bus, what the helper hears,
// and what does not happen. No test waits for time to pass but where a deadline is what it is
// about.

#include "TarnRegFile/I2cTransportSornImpl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "platform/entity/TypeData.h"
#include "platform/entity/Value.h"
#include "platform/hardware/SimulatedSornBackend.h"
#include "platform/trace/CaptureScope.h"
#include "tests/support/Failure.h"
#include "tests/support/FreshProcess.h"
#include "tests/unit/TarnRegFile/SornTransportTest.h"

namespace {

using TarnRegFile::I2cTransportSornImpl;
using TarnRegFile::RegAccessResult;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using TestSupport::Failure;
using TestSupport::RecordingAsyncHelper;

using I2cTransportSornImplTest = SornTransportTest;

// --- Accesses

TEST_F(I2cTransportSornImplTest, AReadReturnsZeroAtOnceAndTheHelperHearsTheValueLater) {
   gate->registers[0x1234] = 0xdeadbeef;
   open();
   EXPECT_TRUE(method->isAsync());
   EXPECT_EQ(method->regRead("WIDE"), 0u);
   EXPECT_THAT(helper->results, IsEmpty());
   EXPECT_EQ(inFlight(), 1u);
   ASSERT_TRUE(results(1));
   loop.poll();
   EXPECT_THAT(helper->results, ElementsAre("read WIDE Success 3735928559"));
   EXPECT_EQ(inFlight(), 0u);
   EXPECT_FALSE(method->errorNotifier()->error());
   EXPECT_THAT(gate->lines(), ElementsAre("begin", "write 80 18: 52", "read 80 18: 4", "end"));
}

TEST_F(I2cTransportSornImplTest, FourBytesAreReadWhateverTheWidth) {
   open();
   for (const char* name : {"HALF", "BYTE", "THREE"}) {
      method->regRead(name);
   }
   ASSERT_TRUE(results(3));
   EXPECT_THAT(gate->lines(), ElementsAre("begin", "write 80 0: 16", "read 80 0: 4", "end", "begin",
                                          "write 80 0: 32", "read 80 0: 4", "end", "begin",
                                          "write 80 0: 48", "read 80 0: 4", "end"));
}

TEST_F(I2cTransportSornImplTest, OnlySixteenBitsAreWrittenAsTwoBytes) {
   open();
   for (const char* name : {"WIDE", "HALF", "BYTE", "THREE"}) {
      method->regWrite(name, 0x01020304);
   }
   EXPECT_THAT(helper->results, IsEmpty());
   ASSERT_TRUE(results(4));
   EXPECT_THAT(helper->results, ElementsAre("write WIDE Success", "write HALF Success",
                                            "write BYTE Success", "write THREE Success"));
   EXPECT_THAT(gate->lines(),
               ElementsAre("begin", "write 80 18: 52 1 2 3 4", "end", "begin", "write 80 0: 16 3 4",
                           "end", "begin", "write 80 0: 32 1 2 3 4", "end", "begin",
                           "write 80 0: 48 1 2 3 4", "end"));
}

TEST_F(I2cTransportSornImplTest, OfALongAddressTheLowSixteenBitsAreUsed) {
   open();
   method->regRead("FAR");
   ASSERT_TRUE(results(1));
   EXPECT_EQ(gate->lines().at(1), "write 80 103: 137");
}

TEST_F(I2cTransportSornImplTest, OfTheDeviceIdTheLowByteCounts) {
   open(0x17f);
   method->regRead("WIDE");
   ASSERT_TRUE(results(1));
   EXPECT_EQ(gate->lines().at(1), "write 127 18: 52");
   method->handleDeletion();
}

TEST_F(I2cTransportSornImplTest, ADeviceIdOfEightBitsFailsEveryAccessAndTheEntryStays) {
   const Platform::Trace::CaptureScope trace("*=1");
   open(0x80);
   EXPECT_EQ(method->regRead("WIDE"), 0xFFFFFFFFu);
   EXPECT_TRUE(method->errorNotifier()->error());
   EXPECT_THAT(trace.texts(),
               ElementsAre("TransportMethod error on register 'WIDE': U7::value < 0 or > 0x7f not "
                           "allowed",
                           "TransportMethod exception caught, Notifying agent: device"));
   EXPECT_THAT(helper->results, ElementsAre("read WIDE Error 4294967295"))
      << "failures that are known at once are told at once";
   EXPECT_EQ(inFlight(), 1u);
   method->regWrite("WIDE", 7);
   EXPECT_EQ(inFlight(), 2u);
   const Failure notAllowed = Failure::range("U7::value < 0 or > 0x7f not allowed");
   EXPECT_EQ(Failure([&] { transport->regRead("WIDE"); }), notAllowed);
   EXPECT_EQ(Failure([&] { transport->regWrite("WIDE", 1); }), notAllowed);
   EXPECT_EQ(inFlight(), 4u);
   loop.poll();
   EXPECT_THAT(gate->lines(), IsEmpty());
}

// --- Results

TEST_F(I2cTransportSornImplTest, EveryEndButSuccessIsAnError) {
   open();
   gate->beginError = EACCES; // status 2
   method->regRead("WIDE");
   method->regWrite("WIDE", 1);
   ASSERT_TRUE(results(2));
   gate->beginError = 0;
   gate->transferError = ETIMEDOUT; // 4
   method->regRead("WIDE");
   ASSERT_TRUE(results(3));
   gate->transferError = ENXIO; // 6
   method->regRead("WIDE");
   ASSERT_TRUE(results(4));
   gate->transferError = EIO; // 7
   method->regRead("WIDE");
   ASSERT_TRUE(results(5));
   EXPECT_THAT(helper->results,
               ElementsAre("read WIDE Error 0", "write WIDE Error", "read WIDE Error 0",
                           "read WIDE Error 0", "read WIDE Error 0"));
   EXPECT_EQ(inFlight(), 0u);
   EXPECT_FALSE(method->errorNotifier()->error()) << "only the helper is told";
}

TEST_F(I2cTransportSornImplTest, WhatIsPendingIsKeptAndNobodyIsTold) {
   gate->gateIs(false);
   open();
   method->regRead("WIDE");
   method->regRead("OTHER");
   gate->awaitArrivals(1);
   loop.poll();
   EXPECT_THAT(helper->results, IsEmpty());
   EXPECT_EQ(inFlight(), 2u);
   gate->gateIs(true);
   ASSERT_TRUE(results(2));
}

TEST_F(I2cTransportSornImplTest, TheManagersEndFailsWhatIsInFlightAndWhatFollows) {
   gate->gateIs(false);
   open();
   method->regRead("WIDE");
   method->regWrite("OTHER", 1);
   gate->awaitArrivals(1);
   manager.reset(); // status 5
   EXPECT_THAT(helper->results, ElementsAre("read WIDE Error 0", "write OTHER Error"));
   EXPECT_EQ(inFlight(), 0u);
   helper->results.clear();
   EXPECT_EQ(method->regRead("WIDE"), 0xFFFFFFFFu);
   EXPECT_THAT(helper->results, ElementsAre("read WIDE Error 4294967295"));
   EXPECT_EQ(inFlight(), 0u) << "what was not submitted has no entry";
   EXPECT_EQ(Failure([&] { transport->regWrite("WIDE", 1); }),
             Failure::generic(ESHUTDOWN, "the access manager of 'bus' has gone"));
   gate->gateIs(true);
   gate->awaitGone();
}

TEST_F(I2cTransportSornImplTest, EachResultIsTracedWithItsValue) {
   gate->registers[0x1234] = 4711;
   open();
   const Platform::Trace::CaptureScope trace("TarnRegFile/I2cTransportSornImplSm=9");
   method->regRead("WIDE");
   EXPECT_THAT(trace.texts(), IsEmpty());
   ASSERT_TRUE(results(1));
   method->regWrite("HALF", 1);
   ASSERT_TRUE(results(2));
   gate->transferError = EIO;
   method->regRead("WIDE");
   ASSERT_TRUE(results(3));
   method->asyncHelperIs(nullptr);
   gate->transferError = 0;
   method->regRead("WIDE");
   ASSERT_TRUE(until([&] { return inFlight() == 0; }));
   EXPECT_THAT(trace.texts(),
               ElementsAre("I2cTransportSornImplSm::onStatus: regName WIDE, result Success",
                           "    read: 4711",
                           "I2cTransportSornImplSm::onStatus: regName HALF, result Success",
                           "I2cTransportSornImplSm::onStatus: regName WIDE, result Error",
                           "I2cTransportSornImplSm::onStatus: regName WIDE, result Success"));
   for (const auto& record : trace.records()) {
      EXPECT_EQ(record.source, "TarnRegFile/I2cTransportSornImplSm");
      EXPECT_EQ(record.function, "onStatus");
      EXPECT_EQ(record.level, 9);
   }
}

TEST_F(I2cTransportSornImplTest, WithoutAHelperFinishedRequestsAreDeletedAllTheSame) {
   open();
   method->asyncHelperIs(nullptr);
   method->regRead("WIDE");
   gate->awaitArrivals(1);
   gate->transferError = EIO; // for both, or for the second one only
   method->regWrite("WIDE", 1);
   EXPECT_EQ(inFlight(), 2u);
   ASSERT_TRUE(until([&] { return inFlight() == 0; }));
   EXPECT_THAT(helper->results, IsEmpty());
}

TEST_F(I2cTransportSornImplTest, WhoeverIsTheHelperAtTheEndIsTold) {
   gate->gateIs(false);
   open();
   method->regRead("WIDE");
   const auto second = Platform::make<RecordingAsyncHelper>();
   method->asyncHelperIs(second);
   EXPECT_EQ(helper->refCount(), 1u) << "the one before is released";
   gate->gateIs(true);
   ASSERT_TRUE(until([&] { return second->results.size() == 1; }));
   EXPECT_THAT(helper->results, IsEmpty());
   EXPECT_EQ(inFlight(), 0u);
}

TEST_F(I2cTransportSornImplTest, TheHelperIsToldBeforeTheEntryGoesAndMayLookAtIt) {
   open();
   gate->transferError = EREMOTEIO;
   std::vector<std::string> seen;
   helper->onResult = [&] {
      const auto& told = transport->sm()->told();
      ASSERT_TRUE(told);
      EXPECT_EQ(transport->sm()->i2cTransportRequest(told->i2cRequest()), told);
      seen.push_back(told->regName() + " " + Platform::enumString(told->i2cRequest()->status()) +
                     " " + std::to_string(told->i2cRequest()->error()));
   };
   method->regRead("WIDE");
   ASSERT_TRUE(results(1));
   EXPECT_THAT(seen, ElementsAre("WIDE noDevice " + std::to_string(EREMOTEIO)));
   EXPECT_EQ(transport->sm()->told(), nullptr);
   EXPECT_EQ(inFlight(), 0u);
}

TEST_F(I2cTransportSornImplTest, AHelperThatThrowsKeepsNoResultFromTheOthers) {
   open();
   int thrown = 0;
   helper->onResult = [&] { throw std::runtime_error("no"); };
   for (int i = 0; i < 5; ++i) {
      method->regRead("WIDE");
   }
   while (helper->results.size() < 5) {
      try {
         ASSERT_TRUE(results(5));
      } catch (const std::runtime_error& error) {
         EXPECT_STREQ(error.what(), "no");
         ++thrown;
      }
   }
   EXPECT_GE(thrown, 4);
   EXPECT_EQ(inFlight(), 0u);
}

TEST_F(I2cTransportSornImplTest, ADeadlineEndsAnAccessAsAnError) {
   gate->gateIs(false);
   bus->timeoutIs(20);
   open();
   method->regRead("WIDE");
   gate->awaitArrivals(1);
   method->regWrite("OTHER", 1);
   ASSERT_TRUE(results(2));
   EXPECT_THAT(helper->results, ElementsAre("read WIDE Error 0", "write OTHER Error"));
   EXPECT_EQ(inFlight(), 0u);
   gate->gateIs(true);
}

// --- What TransportMethod does of it

TEST_F(I2cTransportSornImplTest, FailuresThatAreKnownAtOnceAreToldByTheTransportMethod) {
   const Platform::Trace::CaptureScope trace("*=1");
   open();
   EXPECT_EQ(method->regRead("NOPE"), 0xFFFFFFFFu);
   EXPECT_THAT(helper->results, ElementsAre("read NOPE Error 4294967295"));
   method->regWrite("NOPE", 1);
   EXPECT_THAT(helper->results, SizeIs(2));
   EXPECT_TRUE(method->errorNotifier()->error());
   EXPECT_EQ(inFlight(), 0u);
   EXPECT_EQ(trace.texts().at(0).find("TransportMethod error on register 'NOPE': RegisterFile does "
                                      "not have register 'NOPE'"),
             0u);
   method->raiseExceptionOnErrorIs(true);
   EXPECT_EQ(Failure([&] { method->regRead("NOPE"); }).kind, "errno exception");
   EXPECT_THAT(gate->lines(), IsEmpty());
}

TEST_F(I2cTransportSornImplTest, WhileTheFlagIsSetEachAccessIsAlsoToldAsAnErrorAtOnce) {
   open();
   method->errorNotifier()->errorIs(true);
   EXPECT_EQ(method->regRead("WIDE"), 0u);
   EXPECT_THAT(helper->results, ElementsAre("read WIDE Error 0"));
   ASSERT_TRUE(results(2));
   EXPECT_EQ(helper->results.back(), "read WIDE Success 0");
   method->errorNotifier()->errorIs(false);
   method->regWrite("WIDE", 1);
   ASSERT_TRUE(results(3));
   loop.poll();
   EXPECT_THAT(helper->results, SizeIs(3));
}

TEST_F(I2cTransportSornImplTest, ARegisterWiderThanItsAccessIsRefused) {
   open();
   const Failure refused = Failure::generic(
      EINVAL, "Unexpected width of register BROKEN (got 24 bits, expected at most 16 bits)");
   EXPECT_EQ(Failure([&] { transport->regRead("BROKEN"); }), refused);
   EXPECT_EQ(Failure([&] { transport->regWrite("BROKEN", 1); }), refused);
   EXPECT_EQ(inFlight(), 0u);
   EXPECT_THAT(gate->lines(), IsEmpty());
}

TEST_F(I2cTransportSornImplTest, ArraysAreRefusedBeforeTheTransportIsAsked) {
   open();
   const auto refused = [](int error) {
      return Failure::system(error, "No async API for reg array block access.");
   };
   errno = EBUSY;
   EXPECT_EQ(Failure([&] { method->regReadArray("WIDE", 1); }), refused(EBUSY));
   errno = EBUSY;
   EXPECT_EQ(Failure([&] { method->regWriteArray("WIDE", TarnRegFile::Bytes(4)); }),
             refused(EBUSY));
   EXPECT_EQ(inFlight(), 0u);
}

/// Shows the base's own place for a helper.
class Peek : public I2cTransportSornImpl {
public:
   using BaseTransportMethodImpl::asyncHelper;
   using I2cTransportSornImpl::I2cTransportSornImpl;
};

TEST_F(I2cTransportSornImplTest, TheHelperIsTheStateMachinesAndTheBaseHasNone) {
   Peek impl(bus->sorn(), 0x50, "", model);
   EXPECT_EQ(impl.getAsyncHelper(), nullptr);
   impl.asyncHelperIs(helper);
   EXPECT_EQ(impl.getAsyncHelper(), helper);
   EXPECT_EQ(impl.sm()->asyncHelper(), helper);
   EXPECT_EQ(impl.asyncHelper, nullptr);
   EXPECT_EQ(impl.sm()->sorn(), impl.sorn());
   EXPECT_EQ(impl.sm()->regFile(), impl.regFileHelper());
   EXPECT_EQ(impl.regFileHelper()->addrBlockSize(), 1);
   impl.asyncHelperIs(nullptr);
   EXPECT_EQ(helper->refCount(), 1u);
}

// --- Lifetimes

TEST_F(I2cTransportSornImplTest, ATransportMayGoWithRequestsQueuedAndUnderWay) {
   gate->gateIs(false);
   open();
   for (int i = 0; i < 20; ++i) {
      method->regRead("WIDE");
      method->regWrite("OTHER", i);
   }
   gate->awaitArrivals(1);
   method->handleDeletion();
   EXPECT_EQ(helper->refCount(), 1u);
   gate->gateIs(true);
   // The bus still serves others, and what had not begun was not done.
   open();
   method->regRead("HALF");
   ASSERT_TRUE(results(1));
   EXPECT_THAT(helper->results, ElementsAre("read HALF Success 0"));
   EXPECT_THAT(gate->lines(), SizeIs(8));
}

TEST_F(I2cTransportSornImplTest, AHelperMayAskForMoreFromInsideAResult) {
   open();
   int left = 50;
   helper->onResult = [&] {
      if (left-- > 0) {
         EXPECT_EQ(method->regRead("WIDE"), 0u);
      }
   };
   method->regRead("WIDE");
   ASSERT_TRUE(results(51));
   loop.poll();
   EXPECT_THAT(helper->results, SizeIs(51));
   EXPECT_EQ(inFlight(), 0u);
}

TEST_F(I2cTransportSornImplTest, AHelperMayRemoveItselfFromInsideAResult) {
   open();
   auto* const self = helper.get();
   const int alive = RecordingAsyncHelper::alive;
   self->onResult = [&] {
      helper.reset();
      method->asyncHelperIs(nullptr);
   };
   method->regRead("WIDE");
   method->regRead("OTHER");
   ASSERT_TRUE(until([&] { return inFlight() == 0; }));
   EXPECT_EQ(RecordingAsyncHelper::alive, alive - 1);
}

TEST_F(I2cTransportSornImplTest, AHelperMayDestroyTheTransportMethodFromInsideAResult) {
   gate->gateIs(false);
   open();
   helper->onResult = [&] { method.reset(); };
   method->regRead("WIDE");
   method->regRead("OTHER");
   method->regWrite("HALF", 1);
   gate->gateIs(true);
   ASSERT_TRUE(results(1));
   EXPECT_EQ(method, nullptr);
   loop.poll();
   EXPECT_THAT(helper->results, ElementsAre("read WIDE Success 0"));
   EXPECT_EQ(helper->refCount(), 1u);
}

TEST_F(I2cTransportSornImplTest, AHelperThatRunsTheLoopAfterDestroyingTheTransportHearsNoMore) {
   gate->gateIs(false);
   open();
   const auto sm = transport->sm(); // somebody holds it
   helper->onResult = [&] {
      method.reset();
      gate->gateIs(true);
      bool passed = false;
      const auto other = bus->sorn()->newRequest();
      std::uint32_t value = 0;
      other->makeReadOp(0x5000000000ULL, value, Hardware::ReadByteSwap::swap, 0);
      other->stateIs(Hardware::SornRequestState::submitted);
      passed = until([&] { return other->status() >= Hardware::SornStatus::failed; });
      EXPECT_TRUE(passed);
   };
   for (int i = 0; i < 10; ++i) {
      method->regRead("WIDE");
   }
   gate->gateIs(true);
   ASSERT_TRUE(results(1));
   loop.poll();
   EXPECT_THAT(helper->results, SizeIs(1));
   EXPECT_EQ(sm->i2cTransportRequests(), 0u);
   EXPECT_EQ(sm->sorn(), nullptr);
   EXPECT_EQ(Failure([&] { sm->sornRead("WIDE"); }),
             Failure::generic(ESHUTDOWN, "the I2C transport has been taken down"));
   EXPECT_EQ(Failure([&] { sm->sornWrite("WIDE", 1); }),
             Failure::generic(ESHUTDOWN, "the I2C transport has been taken down"));
}

TEST_F(I2cTransportSornImplTest, ARequestDroppedWhileTheWorkerIsAtItIsNeverWrittenTo) {
   gate->registers[0x1234] = 0x55;
   gate->gateIs(false);
   open();
   method->regRead("WIDE");
   gate->awaitArrivals(1);
   Ptr<Hardware::SornRequest> kept; // somebody else holds the access manager's request
   {
      const auto keys =
         transport->sm()->typeData().findAttribute("i2cTransportRequest")->keys(*transport->sm());
      ASSERT_EQ(keys.size(), 1u);
      const auto key = keys.front().as<TarnRegFile::I2cTransportSornImplSm::Key>();
      const auto dropped = transport->sm()->i2cTransportRequestDel(key);
      ASSERT_TRUE(dropped);
      kept = dropped->i2cRequest();
   }
   EXPECT_EQ(kept->state(), Hardware::SornRequestState::idle);
   EXPECT_EQ(kept->status(), Hardware::SornStatus::idle);
   gate->gateIs(true);
   method->regRead("OTHER");
   ASSERT_TRUE(results(1));
   EXPECT_THAT(helper->results, ElementsAre("read OTHER Success 0"));
   EXPECT_EQ(kept->status(), Hardware::SornStatus::idle);
}

TEST_F(I2cTransportSornImplTest, TheManagerMayGoBeforeAndAfterItsTransports) {
   open();
   method->regRead("WIDE");
   manager.reset();
   EXPECT_THAT(helper->results, SizeIs(1));
   method.reset();
   bus.reset();
   loop.poll();
   EXPECT_THAT(helper->results, SizeIs(1));
}

TEST_F(I2cTransportSornImplTest, AHelperMayDestroyTheManagerFromInsideAResult) {
   gate->gateIs(false);
   open();
   helper->onResult = [&] { manager.reset(); };
   for (int i = 0; i < 10; ++i) {
      method->regRead("WIDE");
   }
   gate->gateIs(true);
   ASSERT_TRUE(results(10));
   loop.poll();
   EXPECT_THAT(helper->results, SizeIs(10));
   EXPECT_EQ(inFlight(), 0u);
}

TEST_F(I2cTransportSornImplTest, AHungBusHoldsUpNoOther) {
   gate->gateIs(false);
   open();
   method->regRead("WIDE");
   gate->awaitArrivals(1);
   const auto free = std::make_shared<TestSupport::GatedSornBackend::State>();
   const auto healthy =
      manager->busNew("healthy", std::make_unique<TestSupport::GatedSornBackend>(free));
   I2cTransportSornImpl other(healthy->sorn(), 0x51, "", model);
   const auto otherHelper = Platform::make<RecordingAsyncHelper>();
   other.asyncHelperIs(otherHelper);
   for (int i = 0; i < 100; ++i) {
      other.regRead("WIDE");
   }
   ASSERT_TRUE(until([&] { return otherHelper->results.size() == 100; }));
   EXPECT_THAT(helper->results, IsEmpty());
   EXPECT_EQ(inFlight(), 1u);
   gate->gateIs(true);
   ASSERT_TRUE(results(1));
}

/// Counts results by register.
class CountingHelper : public TarnRegFile::AsyncHelperBase {
public:
   void handleReadResult(const TarnRegFile::String& regName, RegAccessResult result,
                         std::uint32_t value) override {
      auto& entry = counts[regName];
      ++entry.first;
      if (result == RegAccessResult::Success) {
         ++succeeded;
         entry.second = value;
      }
      ++told;
   }
   void handleWriteResult(const TarnRegFile::String& regName, RegAccessResult result) override {
      ++counts[regName].first;
      succeeded += result == RegAccessResult::Success ? 1 : 0;
      ++told;
   }

   std::map<std::string, std::pair<int, std::uint32_t>> counts;
   int told = 0;
   int succeeded = 0;
};

TEST_F(I2cTransportSornImplTest, TenThousandInFlightWithMixedOutcomesAreAnsweredOnceEach) {
   constexpr int count = 10'000;
   const auto wires = std::make_shared<Hardware::SimulatedI2cBus>();
   const auto device =
      std::make_shared<Hardware::SimulatedI2cDevice>(Hardware::SimulatedI2cKind::block);
   wires->deviceIs(0x50, device);
   device->faults().add({.kind = Hardware::FaultKind::ioError, .first = 101, .count = 50});
   device->faults().add({.kind = Hardware::FaultKind::shortRead, .first = 1001, .count = 20});
   const auto simulated =
      manager->busNew("simulated", std::make_unique<Hardware::SimulatedSornBackend>(wires));
   for (int i = 0; i < count; ++i) {
      registerIs("R" + std::to_string(i), static_cast<std::uint32_t>(4 * i), 32);
      device->registerIs(static_cast<std::uint32_t>(4 * i), 7U * i);
   }
   I2cTransportSornImpl present(simulated->sorn(), 0x50, "", model);
   I2cTransportSornImpl absent(simulated->sorn(), 0x51, "", model);
   const auto helpers = {Platform::make<CountingHelper>(), Platform::make<CountingHelper>()};
   const auto& good = *helpers.begin();
   const auto& bad = *(helpers.begin() + 1);
   present.asyncHelperIs(good);
   absent.asyncHelperIs(bad);
   for (int i = 0; i < count; ++i) {
      const std::string name = "R" + std::to_string(i);
      I2cTransportSornImpl& to = i % 4 == 3 ? absent : present;
      if (i % 4 == 2) {
         to.regWrite(name.c_str(), 7U * i);
      } else {
         to.regRead(name.c_str());
      }
   }
   EXPECT_EQ(present.sm()->i2cTransportRequests() + absent.sm()->i2cTransportRequests(),
             std::size_t{count});
   ASSERT_TRUE(until([&] { return good->told + bad->told >= count; }));
   loop.poll();
   EXPECT_EQ(good->told, count * 3 / 4);
   EXPECT_EQ(bad->told, count / 4);
   EXPECT_EQ(bad->succeeded, 0);
   EXPECT_LT(good->succeeded, good->told);
   EXPECT_GT(good->succeeded, good->told - 71);
   EXPECT_EQ(good->counts.size(), static_cast<std::size_t>(good->told));
   for (const auto& [name, entry] : good->counts) {
      EXPECT_EQ(entry.first, 1) << name;
   }
   EXPECT_EQ(present.sm()->i2cTransportRequests() + absent.sm()->i2cTransportRequests(), 0u);
}

// --- The process's end

/// A program that ends while its bus works, or hangs.
void endWithWorkQueued(bool hangs) {
   Platform::EventLoop loop;
   const auto gate = std::make_shared<TestSupport::GatedSornBackend::State>();
   gate->gateIs(!hangs);
   Hardware::SornManager manager(loop);
   const auto bus = manager.busNew("bus", std::make_unique<TestSupport::GatedSornBackend>(gate));
   const auto model = Hardware::hardwareRegisterFileFactory("model");
   Hardware::HardwareRegister record;
   record.name = "R";
   record.width = 32;
   model->nameToRegMapIs("R", record);
   const auto method = TarnRegFile::transportMethodFactory("device");
   method->fullInit(TarnRegFile::i2cSornTransportDescriptorFactory(0x50, bus),
                    TarnRegFile::TransportMethodRegFile(model));
   method->asyncHelperIs(Platform::make<RecordingAsyncHelper>());
   for (int i = 0; i < 1000; ++i) {
      method->regRead("R");
   }
   gate->awaitArrivals(1);
}

TEST(I2cTransportSornImplProcessDeathTest, AProcessMayEndWithWorkQueued) {
   EXPECT_IN_A_FRESH_PROCESS([] { endWithWorkQueued(false); });
}

TEST(I2cTransportSornImplProcessDeathTest, AProcessMayEndWhileItsBusHangs) {
   EXPECT_IN_A_FRESH_PROCESS([] { endWithWorkQueued(true); });
}

TEST(I2cTransportSornImplProcessDeathTest, AProcessMayEndWithoutTakingAnythingApart) {
   EXPECT_IN_A_FRESH_PROCESS([] {
      static Platform::EventLoop loop;
      static const auto gate = std::make_shared<TestSupport::GatedSornBackend::State>();
      static Hardware::SornManager manager(loop);
      static const auto bus =
         manager.busNew("bus", std::make_unique<TestSupport::GatedSornBackend>(gate));
      static const auto model = Hardware::hardwareRegisterFileFactory("model");
      Hardware::HardwareRegister record;
      record.name = "R";
      record.width = 32;
      model->nameToRegMapIs("R", record);
      static I2cTransportSornImpl transport(bus->sorn(), 0x50, "", model);
      for (int i = 0; i < 1000; ++i) {
         transport.regRead("R");
      }
   });
}

// --- By handle

TEST_F(I2cTransportSornImplTest, ByHandleAllIsAsByName) {
   std::vector<std::vector<std::string>> seen;
   for (const bool byHandle : {false, true}) {
      helper->results.clear();
      gate->registers[0x1234] = 0xdeadbeef;
      const std::size_t linesBefore = gate->lines().size();
      open();
      Platform::Trace::CaptureScope trace("*=1");
      std::vector<std::string> lines;
      std::size_t submitted = 0;
      for (const std::string name : {"WIDE", "HALF", "BYTE", "THREE", "FAR", "BROKEN"}) {
         const auto handle = method->regHandle(name);
         lines.push_back(
            std::to_string(byHandle ? method->regReadByHandle(handle) : method->regRead(name)));
         if (byHandle) {
            method->regWriteByHandle(handle, 0x01020304);
         } else {
            method->regWrite(name, 0x01020304);
         }
         lines.push_back(std::to_string(inFlight()) + " in flight");
         submitted += name == "BROKEN" ? 0 : 2;
         // A flag that is set has the helper told at once.
         lines.push_back(method->errorNotifier()->error() ? "flag" : "no flag");
         method->errorNotifier()->errorIs(false);
      }
      EXPECT_TRUE(until([&] { return inFlight() == 0; }));
      const auto texts = trace.texts();
      lines.insert(lines.end(), texts.begin(), texts.end());
      const auto& results = helper->results;
      EXPECT_THAT(results, SizeIs(submitted + 2));
      lines.insert(lines.end(), results.begin(), results.end());
      const auto wire = gate->lines();
      lines.insert(lines.end(), wire.begin() + static_cast<std::ptrdiff_t>(linesBefore),
                   wire.end());
      seen.push_back(lines);
   }
   EXPECT_EQ(seen[1], seen[0]);
}

TEST_F(I2cTransportSornImplTest, AHandleThatCannotBeUsedSubmitsNothing) {
   open();
   const auto first = method->regHandle("WIDE");
   open();
   EXPECT_EQ(Failure([&] { method->regReadByHandle(first); }).code, EINVAL);
   const auto stale = method->regHandle("WIDE");
   registerIs("WIDE", 0x1240, 32);
   EXPECT_EQ(Failure([&] { method->regWriteByHandle(stale, 1); }).code, ESTALE);
   EXPECT_EQ(inFlight(), 0u);
   EXPECT_THAT(helper->results, IsEmpty());
   EXPECT_FALSE(method->errorNotifier()->error());
}

} // namespace
