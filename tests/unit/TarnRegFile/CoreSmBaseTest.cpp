// The state machine of shadow registers: readiness, generations, reads and writes, and what happens
// when the hooks interfere.

#include "TarnRegFile/CoreSmBase.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <fstream>

#include <fmt/format.h>

#include "platform/entity/CallbackNotifiee.h"
#include "platform/entity/TypeData.h"
#include "platform/hardware/SimulatedSornBackend.h"
#include "platform/hardware/SornManager.h"
#include "platform/trace/CaptureScope.h"
#include "TarnRegFile/I2cSornTransportDescriptor.h"
#include "tests/support/ChangeLog.h"
#include "tests/support/Failure.h"
#include "tests/support/FakeTransport.h"
#include "tests/support/GatedSornBackend.h"
#include "tests/support/Reflected.h"
#include "tests/support/VirtualSlot.h"
#include "tests/unit/TarnRegFile/CoreSmTest.h"

namespace TarnRegFile::Sable {
namespace {

using Platform::Trace::CaptureScope;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::Optional;
using testing::SizeIs;
using TestSupport::ChangeLog;
using TestSupport::Failure;
using TestSupport::virtualSlot;

using CoreSmBaseTest = CoreSmTest;
using CoreSmBaseDeathTest = CoreSmTest;

constexpr auto patience = std::chrono::seconds(60);

// --- Construction

TEST_F(CoreSmBaseTest, WithoutHardwareItKnowsItsRegistersAndWaits) {
   makeModel();
   makeCore();
   EXPECT_TRUE(core->initialized());
   EXPECT_FALSE(core->ready());
   EXPECT_FALSE(core->accessHw());
   EXPECT_EQ(core->coreName(), "core0");
   EXPECT_EQ(core->hwSableCore(), model);
   EXPECT_EQ(core->shadowRegConfig(), config);
   EXPECT_EQ(core->shadowRegStatus(), status);
   EXPECT_EQ(core->hwGeneration(), Generation());
   EXPECT_EQ(core->initSyncRetryCount(), 0u);
   EXPECT_EQ(core->transport(), nullptr);
   ASSERT_TRUE(core->asyncHelper());
   EXPECT_EQ(core->asyncHelper()->parent(), core);
   EXPECT_EQ(core->regAddrToNames(), 3u);
   EXPECT_EQ(core->regAddrToNameGet(0), "ID");
   EXPECT_EQ(core->regAddrToNameGet(4), "CTRL");
   EXPECT_EQ(core->regAddrToNameGet(8), "SCRATCH");
   EXPECT_EQ(core->regAddrToNameGet(12), "");
   EXPECT_TRUE(model->hasNotifiees());
   EXPECT_TRUE(config->hasNotifiees());
   EXPECT_THAT(log, IsEmpty());
   EXPECT_THAT(bus(), IsEmpty());
}

TEST_F(CoreSmBaseTest, WithAValidGenerationAndASynchronousTransportItIsReadyWhenItIsMade) {
   CaptureScope traces("TarnRegFile/CoreSmBase=3");
   makeModel({1, true});
   makeCore();
   EXPECT_TRUE(core->ready());
   EXPECT_EQ(core->hwGeneration(), Generation(1, true));
   ASSERT_TRUE(core->transport());
   EXPECT_EQ(core->transport()->name(), "core0");
   EXPECT_THAT(log, ElementsAre("ready"));
   EXPECT_THAT(bus(), ElementsAre("guarded read 0x0", "guarded read 0x4", "guarded read 0x8"))
      << "each register once, in the order of the model";
   EXPECT_EQ(statusSize(), 3u);
   EXPECT_THAT(statusOf(0), Optional(0x1d));
   EXPECT_THAT(statusOf(4), Optional(0xc));
   EXPECT_THAT(statusOf(8), Optional(0x5));
   EXPECT_THAT(traces.texts(), ElementsAre("currentGen=(0,false), newGen=(1,true)",
                                           "done creating transport", "CoreSm core0 is ready"));
   for (const auto& record : traces.records()) {
      EXPECT_EQ(record.level, 3);
   }
}

TEST_F(CoreSmBaseTest, ItBecomesReadyInsideTheReadThatFillsTheLastEntry) {
   makeModel({1, true});
   std::size_t readsAtReady = 0;
   makeCore([&](Core& self, const std::string&) {
      EXPECT_TRUE(self.ready());
      EXPECT_TRUE(self.initialized());
      readsAtReady = bus().size();
   });
   EXPECT_EQ(readsAtReady, 3u);
}

TEST_F(CoreSmBaseTest, ThatItIsReadyIsTracedWhenItsHookHasReturned) {
   CaptureScope traces("TarnRegFile/CoreSmBase=3");
   makeModel({1, true});
   makeCore([&](Core&, const std::string&) {
      EXPECT_THAT(traces.texts(),
                  ElementsAre("currentGen=(0,false), newGen=(1,true)", "done creating transport"));
   });
   EXPECT_THAT(log, ElementsAre("ready"));
   EXPECT_THAT(traces.texts(), Contains("CoreSm core0 is ready").Times(1));
}

TEST_F(CoreSmBaseTest, WhenConstructionFailsNothingIsLeftBehind) {
   // Nobody has said how this core is reached.
   model = Platform::make<SableCoreBase>("core0", file, nullptr);
   model->registerDescIs("ID", {0, true});
   model->generationIs({1, true});
   EXPECT_EQ(Failure([&] { makeCore(); }),
             Failure::generic(EINVAL, "TransportDescriptor must not be null"));
   EXPECT_EQ(core, nullptr);
   EXPECT_EQ(Core::alive, 0);
   EXPECT_FALSE(model->hasNotifiees());
   EXPECT_FALSE(config->hasNotifiees());
   EXPECT_EQ(model->refCount(), 1u);
   EXPECT_EQ(config->refCount(), 1u);
   EXPECT_EQ(status->refCount(), 1u);
   EXPECT_THAT(log, IsEmpty());
   model->generationIs({2, true}); // nobody hears of it
}

TEST_F(CoreSmBaseTest, WhenADerivedClassFailsNothingIsLeftBehind) {
   class Failing : public Core {
   public:
      Failing(const Ptr<SableCoreBase>& m, const Ptr<ShadowRegisterConfig>& c,
              const Ptr<ShadowRegisterStatus>& s, Log& l)
         : Core(m, c, s, l) {
         throw std::runtime_error("no");
      }
   };
   makeModel({1, true});
   EXPECT_THROW(Platform::make<Failing>(model, config, status, log), std::runtime_error);
   EXPECT_EQ(Core::alive, 0);
   EXPECT_FALSE(model->hasNotifiees());
   EXPECT_FALSE(config->hasNotifiees());
   EXPECT_EQ(model->refCount(), 1u);
   EXPECT_THAT(bus(), IsEmpty());
}

TEST_F(CoreSmBaseTest, WhatAHookThrowsDuringConstructionLeavesNothingBehind) {
   makeModel({1, true});
   EXPECT_THROW(makeCore([](Core&, const std::string&) { throw std::logic_error("no"); }),
                std::logic_error);
   EXPECT_EQ(Core::alive, 0);
   EXPECT_FALSE(model->hasNotifiees());
   EXPECT_FALSE(config->hasNotifiees());
}

TEST_F(CoreSmBaseTest, ADerivedClassMayStartItselfInItsConstructor) {
   class Early : public Core {
   public:
      Early(const Ptr<SableCoreBase>& m, const Ptr<ShadowRegisterConfig>& c,
            const Ptr<ShadowRegisterStatus>& s, Log& l)
         : Core(m, c, s, l) {
         handleInitialized();
         EXPECT_TRUE(ready());
      }
   };
   makeModel({1, true});
   const auto early = Platform::make<Early>(model, config, status, log);
   EXPECT_THAT(log, ElementsAre("ready"));
   EXPECT_THAT(bus(), SizeIs(3));
   early->teardown();
}

TEST_F(CoreSmBaseTest, WithoutAModelItHasNoRegistersAndNoHardware) {
   core = Platform::make<Core>(nullptr, nullptr, nullptr, log);
   EXPECT_TRUE(core->initialized());
   EXPECT_FALSE(core->ready());
   EXPECT_EQ(core->coreName(), "");
   core->handleGeneration();
   core->handleShadowRegister();
   EXPECT_THAT(log, IsEmpty());
}

TEST_F(CoreSmBaseTest, InitializingAgainDoesNothing) {
   makeReadyCore();
   model->registerDescIs("LATE", {12, false});
   core->handleInitialized();
   EXPECT_EQ(core->regAddrToNameGet(12), "");
   EXPECT_THAT(bus(), IsEmpty());
   EXPECT_THAT(log, IsEmpty());
}

TEST_F(CoreSmBaseTest, OfTwoNamesOfAnAddressTheLaterOneWins) {
   makeModel();
   model->registerDescIs("ALIAS", {4, false});
   makeCore();
   EXPECT_EQ(core->regAddrToNameGet(4), "ALIAS");
   EXPECT_EQ(core->regAddrToNames(), 3u);
}

// --- Generations

TEST_F(CoreSmBaseTest, AModelWithoutRegistersIsNeverReady) {
   file = Hardware::hardwareRegisterFileFactory("empty");
   makeModel({1, true});
   makeCore();
   EXPECT_TRUE(core->transport());
   EXPECT_EQ(core->hwGeneration(), Generation(1, true));
   EXPECT_FALSE(core->ready());
   EXPECT_THAT(log, IsEmpty());
}

TEST_F(CoreSmBaseTest, HardwareThatComesIsReadAndThenItIsReady) {
   makeModel();
   makeCore();
   model->generationIs({1, true});
   EXPECT_TRUE(core->ready());
   EXPECT_THAT(log, ElementsAre("ready"));
   EXPECT_THAT(bus(), SizeIs(3));
}

TEST_F(CoreSmBaseTest, HardwareThatStaysAwayIsOnlyRecorded) {
   makeModel();
   makeCore();
   statusIs(4, 1);
   model->generationIs({7, false});
   EXPECT_EQ(core->hwGeneration(), Generation(7, false));
   EXPECT_EQ(core->transport(), nullptr);
   EXPECT_THAT(statusOf(4), Optional(1)) << "the status is left as it stands";
   EXPECT_THAT(log, IsEmpty());
   EXPECT_THAT(bus(), IsEmpty());
}

TEST_F(CoreSmBaseTest, TheSameGenerationAgainIsNothing) {
   makeReadyCore();
   CaptureScope traces("TarnRegFile/CoreSmBase=3");
   const auto transport = core->transport();
   core->handleGeneration();
   EXPECT_EQ(core->transport(), transport);
   EXPECT_TRUE(core->ready());
   EXPECT_THAT(bus(), IsEmpty());
   EXPECT_THAT(log, IsEmpty());
   EXPECT_THAT(traces.texts(), ElementsAre("currentGen=(1,true), newGen=(1,true)"));
}

TEST_F(CoreSmBaseTest, OtherChangesOfTheModelAreIgnored) {
   makeReadyCore();
   CaptureScope traces("TarnRegFile/CoreSmBase=9");
   model->registerDescIs("LATE", {12, false});
   EXPECT_THAT(traces.texts(), IsEmpty());
   EXPECT_THAT(bus(), IsEmpty());
}

TEST_F(CoreSmBaseTest, ANewGenerationGetsANewTransportAndIsReadAnew) {
   makeReadyCore();
   const auto before = core->transport();
   space.wordIs(4, 0xcc);
   statusIs(0x40, 1); // nothing of the old generation stays
   std::vector<std::size_t> statusSizes;
   const ChangeLog changes(*status, [&] { statusSizes.push_back(statusSize()); });
   model->generationIs({2, true});
   EXPECT_TRUE(core->ready());
   EXPECT_EQ(core->hwGeneration(), Generation(2, true));
   EXPECT_NE(core->transport(), before);
   EXPECT_EQ(before->refCount(), 1u) << "only this test still has it";
   EXPECT_THAT(log, ElementsAre("not ready", "ready"));
   EXPECT_THAT(bus(), SizeIs(3));
   EXPECT_THAT(statusOf(4), Optional(0xcc));
   EXPECT_EQ(statusOf(0x40), std::nullopt);
   EXPECT_THAT(statusSizes, ElementsAre(3, 2, 1, 0, 1, 2, 3));
}

TEST_F(CoreSmBaseTest, TheStatusIsEmptyBeforeTheGenerationIsTheNewOne) {
   makeReadyCore();
   core->initSyncRetryCountInc(1);
   std::vector<std::pair<std::size_t, std::uint32_t>> deletions; // size, and generation by then
   const ChangeLog changes(*status, [&] {
      if (deletions.size() < 3) {
         deletions.emplace_back(statusSize(), core->hwGeneration().id);
      }
   });
   std::vector<std::size_t> sizes;
   const auto observer =
      Platform::subscribe(*core, CoreSmBase::hwGenerationAttr, [&](const Platform::Change&) {
         sizes.push_back(statusSize());
         EXPECT_EQ(core->initSyncRetryCount(), 0u);
      });
   model->generationIs({2, true});
   EXPECT_THAT(deletions,
               ElementsAre(testing::Pair(2, 1), testing::Pair(1, 1), testing::Pair(0, 1)));
   EXPECT_THAT(sizes, ElementsAre(0));
}

TEST_F(CoreSmBaseTest, ThatItIsNotReadyIsToldBeforeTheNewTransportIsMade) {
   makeReadyCore();
   const auto before = core->transport();
   bool isTold = false;
   core->onHook = [&](Core& self, const std::string& line) {
      if (line == "not ready") {
         isTold = true;
         EXPECT_EQ(self.transport(), before);
         EXPECT_NE(before->implPtr(), nullptr);
         EXPECT_EQ(self.hwGeneration(), Generation(1, true));
         EXPECT_EQ(statusSize(), 3u);
      }
   };
   model->generationIs({2, true});
   EXPECT_TRUE(isTold);
   EXPECT_NE(core->transport(), before);
}

TEST_F(CoreSmBaseTest, TheSameIdOfAnotherValidityIsAnotherGeneration) {
   makeReadyCore();
   model->generationIs({1, false});
   model->generationIs({1, true});
   EXPECT_THAT(log, ElementsAre("not ready", "ready"));
   EXPECT_THAT(bus(), SizeIs(3));
}

TEST_F(CoreSmBaseTest, HardwareThatGoesLeavesTransportAndStatus) {
   makeReadyCore();
   configIs(4, 0xc); // nothing to write
   forget();
   CaptureScope traces("TarnRegFile/CoreSmBase=9");
   const auto transport = core->transport();
   model->generationIs({1, false});
   EXPECT_FALSE(core->ready());
   EXPECT_EQ(core->hwGeneration(), Generation(1, false));
   EXPECT_EQ(core->transport(), transport);
   EXPECT_EQ(statusSize(), 3u);
   EXPECT_THAT(log, ElementsAre("not ready"));
   EXPECT_THAT(bus(), IsEmpty());
   EXPECT_THAT(traces.texts(), ElementsAre("currentGen=(1,true), newGen=(1,false)", "addr=4"))
      << "what is configured is looked at, though not ready any more";
}

TEST_F(CoreSmBaseTest, WhenItIsToldThatTheHardwareHasGoneTheGenerationIsTheNewOne) {
   makeReadyCore();
   bool isTold = false;
   core->onHook = [&](Core& self, const std::string& line) {
      isTold = line == "not ready";
      EXPECT_EQ(self.hwGeneration(), Generation(6, false));
      EXPECT_FALSE(self.ready());
   };
   model->generationIs({6, false});
   EXPECT_TRUE(isTold);
}

TEST_F(CoreSmBaseTest, ReadinessByHandWithoutHardwareEndsWhenTheGenerationIsLookedAt) {
   makeModel({5, false});
   makeCore();
   core->readyIs(true);
   forget();
   core->handleGeneration();
   EXPECT_FALSE(core->ready());
   EXPECT_EQ(core->hwGeneration(), Generation(5, false));
   EXPECT_THAT(log, ElementsAre("not ready"));
   core->handleGeneration();
   EXPECT_THAT(log, SizeIs(1));
}

TEST_F(CoreSmBaseTest, AMissingEntryKeepsItFromBeingReady) {
   makeModel();
   model->registerDescIs("ALIAS", {4, false}); // four names, three addresses
   file->nameToRegMapIs("ALIAS", *file->findRegister("CTRL"));
   makeCore();
   model->generationIs({1, true});
   EXPECT_FALSE(core->ready());
   EXPECT_EQ(statusSize(), 3u);
   EXPECT_THAT(log, IsEmpty());
}

TEST_F(CoreSmBaseTest, ResultsOfNoGenerationDoNotMakeItReady) {
   makeModel();
   makeCore();
   for (const char* name : {"ID", "CTRL", "SCRATCH"}) {
      core->asyncHelper()->handleReadResult(name, RegAccessResult::Success, 1);
   }
   EXPECT_EQ(statusSize(), 3u);
   EXPECT_FALSE(core->ready());
   EXPECT_THAT(log, IsEmpty());
}

TEST_F(CoreSmBaseTest, OnlyTheNullGenerationStopsThat) {
   makeModel({5, false});
   makeCore();
   for (const char* name : {"ID", "CTRL", "SCRATCH"}) {
      EXPECT_FALSE(core->ready());
      core->handleInitSyncResult(name, RegAccessResult::Success, 1);
   }
   EXPECT_TRUE(core->ready());
   EXPECT_THAT(log, ElementsAre("ready"));
}

TEST_F(CoreSmBaseTest, AResultAfterTheModelHasMovedOnFillsAnEntryOnly) {
   makeReadyCore();
   model->generationIs({1, false});
   statusDel(4);
   core->hasNotificationActiveIs(false);
   model->generationIs({2, true}); // not handled yet
   forget();
   core->handleInitSyncResult("CTRL", RegAccessResult::Success, 77);
   EXPECT_THAT(statusOf(4), Optional(77));
   EXPECT_FALSE(core->ready());
   EXPECT_THAT(log, IsEmpty());
   core->handleGeneration();
   EXPECT_TRUE(core->ready());
   EXPECT_THAT(statusOf(4), Optional(0xc));
}

TEST_F(CoreSmBaseTest, ReadinessSetByHandTellsOfChangesOnly) {
   makeReadyCore();
   core->readyIs(true);
   EXPECT_THAT(log, IsEmpty());
   core->readyIs(false);
   core->readyIs(false);
   configIs(8, 9);
   EXPECT_THAT(bus(), IsEmpty());
   core->readyIs(true);
   core->readyIs(true);
   EXPECT_THAT(log, ElementsAre("not ready", "write SCRATCH Success", "ready"))
      << "what is configured goes first";
   EXPECT_THAT(bus(), ElementsAre("guarded write 0x8 0x9"));
}

TEST_F(CoreSmBaseTest, AFailedInitIsToldToWhoeverBroughtTheGenerationAndTheNextOneIsTried) {
   makeModel();
   model = Platform::make<SableCoreBase>("core0", nullptr, // no list
                                         pciTransportDescriptorFactory(access));
   model->registerDescIs("ID", {0, true});
   makeCore();
   const auto failure =
      Failure::generic(EINVAL, "Either CSV or non-null regFile must be specified");
   EXPECT_EQ(Failure([&] { model->generationIs({1, true}); }), failure);
   EXPECT_EQ(core->hwGeneration(), Generation()) << "it has not come that far";
   EXPECT_EQ(Failure([&] { model->generationIs({2, true}); }), failure);
   EXPECT_FALSE(core->ready());
}

// --- Reactions switched off

TEST_F(CoreSmBaseTest, ReactionsAreSwitchedOffAndOnTogether) {
   makeReadyCore();
   EXPECT_TRUE(core->hasNotificationActive());
   core->hasNotificationActiveIs(true);
   core->hasNotificationActiveIs(false);
   core->hasNotificationActiveIs(false);
   EXPECT_FALSE(core->hasNotificationActive());
   EXPECT_FALSE(model->hasNotifiees());
   EXPECT_FALSE(config->hasNotifiees());
   model->generationIs({2, true});
   configIs(8, 9);
   EXPECT_EQ(core->hwGeneration(), Generation(1, true));
   EXPECT_THAT(bus(), IsEmpty());
   core->hasNotificationActiveIs(true);
   EXPECT_TRUE(model->hasNotifiees());
   EXPECT_TRUE(config->hasNotifiees());
   EXPECT_THAT(bus(), IsEmpty()) << "what was missed stays missed";
   configIs(8, 10);
   EXPECT_THAT(bus(), ElementsAre("guarded write 0x8 0xa"));
   model->generationIs({3, true});
   EXPECT_EQ(core->hwGeneration(), Generation(3, true));
}

TEST_F(CoreSmBaseTest, DispatchesActOnTheirAttributeOnlyAndOnlyWhileActive) {
   makeReadyCore();
   core->hasNotificationActiveIs(false);
   configIs(8, 9);
   model->generationIs({2, true});
   const auto key = Platform::Value::of<CoreRegisterKey>(CoreRegisterKey(8));
   const auto none = Platform::Value();
   const Platform::Change ofConfig{*config, ShadowRegisterConfig::regMapAttr, key};
   const Platform::Change ofModel{*model, SableCoreBase::generationAttr, none};
   core->shadowRegConfigDispatch(ofConfig);
   core->hwSableCoreDispatch(ofModel);
   EXPECT_THAT(bus(), IsEmpty());
   core->hasNotificationActiveIs(true);
   core->shadowRegConfigDispatch({*config, Platform::AttributeId("regMapControl"), none});
   core->hwSableCoreDispatch({*model, SableCoreBase::registerDescAttr, none});
   EXPECT_THAT(bus(), IsEmpty());
   core->shadowRegConfigDispatch(ofConfig);
   EXPECT_THAT(bus(), ElementsAre("guarded write 0x8 0x9"));
   core->hwSableCoreDispatch(ofModel);
   EXPECT_EQ(core->hwGeneration(), Generation(2, true));
}

// --- Reads

TEST_F(CoreSmBaseTest, AReadIsServedFromTheShadow) {
   makeReadyCore();
   space.wordIs(4, 0xffff);
   CaptureScope traces("TarnRegFile/CoreSmBase=9");
   EXPECT_EQ(core->regRead("CTRL"), 0xcu);
   EXPECT_THAT(log, ElementsAre("read CTRL Success 12"));
   EXPECT_THAT(bus(), IsEmpty());
   EXPECT_THAT(traces.texts(), ElementsAre("read CTRL from shadow: value 12"));
   EXPECT_EQ(traces.records().at(0).level, 9);
   EXPECT_EQ(traces.records().at(0).function, "regRead");
}

TEST_F(CoreSmBaseTest, AReadFromTheShadowIsTracedBeforeItIsTold) {
   makeReadyCore();
   CaptureScope traces("TarnRegFile/CoreSmBase=9");
   core->onHook = [&](Core&, const std::string&) {
      EXPECT_THAT(traces.texts(), ElementsAre("read CTRL from shadow: value 12"));
   };
   core->regRead("CTRL");
   EXPECT_THAT(log, SizeIs(1));
}

TEST_F(CoreSmBaseTest, AReadOfWhatTheShadowDoesNotHaveIsZeroAndASuccess) {
   makeReadyCore();
   statusDel(4);
   EXPECT_EQ(core->regRead("CTRL"), 0u);
   EXPECT_THAT(log, ElementsAre("read CTRL Success 0"));
   EXPECT_EQ(statusOf(4), std::nullopt);
}

TEST_F(CoreSmBaseTest, WithHardwareAccessAReadGoesThereAndUpdatesTheShadow) {
   makeReadyCore();
   core->accessHwIs(true);
   space.wordIs(4, 0xffff);
   EXPECT_EQ(core->regRead("CTRL"), 0xffffu);
   EXPECT_THAT(bus(), ElementsAre("guarded read 0x4"));
   EXPECT_THAT(statusOf(4), Optional(0xffff));
   EXPECT_THAT(log, ElementsAre("read CTRL Success 65535")) << "told once";
}

TEST_F(CoreSmBaseTest, AFailedReadOfTheHardwareIsToldAndLeavesTheShadow) {
   makeReadyCore();
   core->accessHwIs(true);
   space.sizeIs(0); // the device has gone
   EXPECT_EQ(core->regRead("CTRL"), 0xffffffffu);
   EXPECT_THAT(log, ElementsAre("read CTRL Error 4294967295"));
   EXPECT_THAT(statusOf(4), Optional(0xc));
}

TEST_F(CoreSmBaseTest, AReadChangesNothingThatIsConfigured) {
   makeReadyCore();
   configIs(8, 9);
   forget();
   space.wordIs(8, 1);
   core->accessHwIs(true);
   core->regRead("SCRATCH");
   EXPECT_THAT(configured(8), Optional(9));
   EXPECT_THAT(statusOf(8), Optional(1));
   EXPECT_THAT(bus(), ElementsAre("guarded read 0x8"))
      << "a difference alone is no reason to write";
}

// --- Writes

TEST_F(CoreSmBaseTest, AWriteIsConfiguredAndReachesTheHardware) {
   makeReadyCore();
   CaptureScope traces("TarnRegFile/CoreSmBase=9");
   core->regWrite("SCRATCH", 0x55);
   EXPECT_THAT(configured(8), Optional(0x55));
   EXPECT_THAT(statusOf(8), Optional(0x55));
   EXPECT_EQ(space.word(8), 0x55u);
   EXPECT_THAT(bus(), ElementsAre("guarded write 0x8 0x55"));
   EXPECT_THAT(log, ElementsAre("write SCRATCH Success"));
   EXPECT_THAT(traces.texts(), ElementsAre("addr=8", "write SCRATCH to transport: value 85 )"));
}

TEST_F(CoreSmBaseTest, AddressesAreTracedInHexadecimalAndValuesInDecimal) {
   registerIs("LOCKED", 0x2c, false);
   registerIs("WIDE", 0x1c);
   makeReadyCore();
   CaptureScope traces("TarnRegFile/CoreSmBase=9");
   configIs(0x1c, 0x1f);
   configIs(0x2c, 1);
   EXPECT_THAT(traces.texts(), ElementsAre("addr=1c", "write WIDE to transport: value 31 )",
                                           "addr=2c", "register LOCKED add=2c is not writable!"));
   std::vector<int> levels;
   for (const auto& record : traces.records()) {
      levels.push_back(record.level);
      EXPECT_EQ(record.function, "handleShadowRegister");
   }
   EXPECT_THAT(levels, ElementsAre(9, 9, 9, 1));
   EXPECT_THAT(bus(), ElementsAre("guarded write 0x1c 0x1f"));
}

TEST_F(CoreSmBaseTest, AWriteOfWhatTheHardwareHasCostsNoAccess) {
   makeReadyCore();
   core->regWrite("SCRATCH", 5); // as read at first
   EXPECT_THAT(configured(8), Optional(5));
   EXPECT_THAT(bus(), IsEmpty());
   EXPECT_THAT(log, IsEmpty());
}

TEST_F(CoreSmBaseTest, AWriteOfWhatIsConfiguredIsASuccessAtOnce) {
   makeReadyCore();
   core->regWrite("SCRATCH", 0x55);
   forget();
   ChangeLog changes(*config);
   core->regWrite("SCRATCH", 0x55);
   EXPECT_THAT(log, ElementsAre("write SCRATCH Success"));
   EXPECT_THAT(bus(), IsEmpty());
   EXPECT_THAT(changes.changes, SizeIs(1)) << "others hear that it was set";
}

TEST_F(CoreSmBaseTest, AWriteOfWhatIsConfiguredHasOneResultThoughTheStatusDiffers) {
   makeReadyCore();
   core->regWrite("SCRATCH", 0x55);
   statusIs(8, 0x66);
   forget();
   core->regWrite("SCRATCH", 0x55);
   EXPECT_THAT(log, ElementsAre("write SCRATCH Success"));
   EXPECT_THAT(bus(), IsEmpty());
   EXPECT_THAT(statusOf(8), Optional(0x66));
   // What others set is looked at, equal or not.
   configIs(8, 0x55);
   EXPECT_THAT(bus(), ElementsAre("guarded write 0x8 0x55"));
   EXPECT_THAT(statusOf(8), Optional(0x55));
}

TEST_F(CoreSmBaseTest, AnObserverThatChangesWhatIsSetAgainIsHeard) {
   makeReadyCore();
   core->regWrite("SCRATCH", 0x55);
   // One that hears of it before the core does.
   core->hasNotificationActiveIs(false);
   bool mustChange = false;
   const auto observer = Platform::subscribe(*config, [&](const Platform::Change&) {
      if (std::exchange(mustChange, false)) {
         configIs(8, 0x77);
      }
   });
   core->hasNotificationActiveIs(true);
   forget();
   mustChange = true;
   core->regWrite("SCRATCH", 0x55);
   EXPECT_THAT(bus(), ElementsAre("guarded write 0x8 0x77"));
   EXPECT_THAT(statusOf(8), Optional(0x77));
}

TEST_F(CoreSmBaseTest, WithHardwareAccessAWriteIsLookedAtAgain) {
   makeReadyCore();
   core->accessHwIs(true);
   core->regWrite("SCRATCH", 0x55);
   EXPECT_THAT(bus(), ElementsAre("guarded write 0x8 0x55"));
   EXPECT_THAT(log, ElementsAre("write SCRATCH Success"));
   forget();
   ChangeLog changes(*config);
   CaptureScope traces("TarnRegFile/CoreSmBase=9");
   core->regWrite("SCRATCH", 0x55);
   EXPECT_THAT(changes.changes, SizeIs(2)) << "deleted, and set";
   EXPECT_THAT(traces.texts(), ElementsAre("addr=8", "addr=8"));
   EXPECT_THAT(bus(), IsEmpty()) << "the status has it";
   EXPECT_THAT(log, IsEmpty());
   statusIs(8, 0x66);
   core->regWrite("SCRATCH", 0x55);
   EXPECT_THAT(bus(), ElementsAre("guarded write 0x8 0x55"));
   EXPECT_THAT(log, ElementsAre("write SCRATCH Success"));
}

TEST_F(CoreSmBaseTest, AFailedWriteLeavesTheDesiredValueInTheStatus) {
   makeReadyCore();
   space.sizeIs(0);
   core->regWrite("SCRATCH", 0x55);
   EXPECT_THAT(log, ElementsAre("write SCRATCH Error"));
   EXPECT_THAT(statusOf(8), Optional(0x55));
   EXPECT_THAT(configured(8), Optional(0x55));
}

TEST_F(CoreSmBaseTest, WhatOthersConfigureIsWritten) {
   makeReadyCore();
   configIs(8, 9);
   EXPECT_THAT(bus(), ElementsAre("guarded write 0x8 0x9"));
   EXPECT_THAT(statusOf(8), Optional(9));
   EXPECT_THAT(log, ElementsAre("write SCRATCH Success"));
}

TEST_F(CoreSmBaseTest, ADeletedDesireChangesNothing) {
   makeReadyCore();
   configIs(8, 9);
   forget();
   configDel(8);
   EXPECT_THAT(bus(), IsEmpty());
   EXPECT_THAT(log, IsEmpty());
   EXPECT_THAT(statusOf(8), Optional(9));
   EXPECT_EQ(space.word(8), 9u);
}

TEST_F(CoreSmBaseTest, WhatCannotBeWrittenIsTracedEachTimeAndStaysConfigured) {
   makeModel({1, true});
   configIs(0, 0xbad);
   CaptureScope traces("TarnRegFile/CoreSmBase=1");
   makeCore();
   EXPECT_THAT(traces.texts(), ElementsAre("register ID add=0 is not writable!"));
   EXPECT_EQ(traces.records().at(0).level, 1);
   core->handleShadowRegister(CoreRegisterKey(0));
   model->generationIs({2, true});
   EXPECT_THAT(traces.texts(), SizeIs(3));
   EXPECT_THAT(configured(0), Optional(0xbad));
   EXPECT_THAT(statusOf(0), Optional(0x1d));
   EXPECT_EQ(std::count(bus().begin(), bus().end(), "guarded write 0x0 0xbad"), 0);
   EXPECT_THAT(log, ElementsAre("ready", "not ready", "ready"));
}

TEST_F(CoreSmBaseTest, WhatCannotBeWrittenIsTracedThoughNothingIsConfigured) {
   makeReadyCore();
   CaptureScope traces("TarnRegFile/CoreSmBase=1");
   core->handleShadowRegister(CoreRegisterKey(0));
   EXPECT_THAT(traces.texts(), ElementsAre("register ID add=0 is not writable!"));
   configIs(0, 1);
   configDel(0);
   EXPECT_THAT(traces.texts(), SizeIs(3)) << "set and deleted alike";
   EXPECT_THAT(bus(), IsEmpty());
}

TEST_F(CoreSmBaseTest, ARegisterThatTheModelLostIsTakenAsWritable) {
   makeReadyCore();
   model->registerDescDel("SCRATCH");
   configIs(8, 9);
   EXPECT_THAT(bus(), ElementsAre("guarded write 0x8 0x9"));
}

TEST_F(CoreSmBaseTest, WhatIsConfiguredWhileNotReadyIsAppliedOnceWhenReady) {
   makeModel();
   makeCore();
   CaptureScope traces("TarnRegFile/CoreSmBase=9");
   configIs(8, 1);
   configIs(8, 9);
   configIs(4, 0xc); // what the hardware will turn out to have
   EXPECT_THAT(traces.texts(), ElementsAre("addr=8", "addr=8", "addr=4"));
   EXPECT_THAT(bus(), IsEmpty());
   model->generationIs({1, true});
   EXPECT_THAT(bus(), ElementsAre("guarded read 0x0", "guarded read 0x4", "guarded read 0x8",
                                  "guarded write 0x8 0x9"));
   EXPECT_THAT(log, ElementsAre("write SCRATCH Success", "ready"));
   EXPECT_THAT(statusOf(8), Optional(9));
}

TEST_F(CoreSmBaseTest, WhatIsConfiguredWhileDesiresAreAppliedIsLookedAtOnce) {
   constexpr std::uint32_t first = 0x10;
   constexpr std::uint32_t last = 0x4c;
   for (std::uint32_t address = first; address <= last; address += 4) {
      registerIs("R" + std::to_string(address), address);
   }
   makeModel();
   makeCore([&](Core&, const std::string& line) {
      if (line == "write CTRL Success") {
         for (std::uint32_t address = first; address <= last; address += 4) {
            configIs(address, address);
         }
      }
   });
   configIs(4, 1);
   CaptureScope traces("TarnRegFile/CoreSmBase=9");
   model->generationIs({1, true});
   EXPECT_THAT(traces.texts(), Contains("addr=4").Times(1));
   for (std::uint32_t address = first; address <= last; address += 4) {
      EXPECT_THAT(traces.texts(), Contains(fmt::format("addr={:x}", address)).Times(1));
      EXPECT_EQ(space.word(address), address);
   }
   EXPECT_EQ(log.back(), "ready");
}

TEST_F(CoreSmBaseTest, AValueIsEnteredIntoTheStatusReadyOrNot) {
   makeModel();
   makeCore();
   core->updateShadowRegStatus("CTRL", 3);
   EXPECT_THAT(statusOf(4), Optional(3));
   core->updateShadowRegStatus("CTRL", 4);
   EXPECT_THAT(statusOf(4), Optional(4));
}

// --- The tables of others, and damaged ones

TEST_F(CoreSmBaseTest, WhatAClientWithAMountOfItsOwnConfiguresIsWritten) {
   makeReadyCore();
   const auto control = writerOn(tables);
   const auto client = shadowRegisterConfigFactory("config");
   client->regMapControlIs(control);
   control->mount();
   client->regMapIs(CoreRegister(CoreRegisterKey(8), 0x99));
   EXPECT_THAT(bus(), IsEmpty()) << "it comes by the loop";
   ASSERT_TRUE(loop.runUntil([&] { return !log.empty(); }, patience));
   EXPECT_THAT(bus(), ElementsAre("guarded write 0x8 0x99"));
   EXPECT_THAT(log, ElementsAre("write SCRATCH Success"));
   EXPECT_THAT(statusOf(8), Optional(0x99));
   client->regMapDel(CoreRegisterKey(8));
   core->regWrite("SCRATCH", 0x98);
   loop.runFor(std::chrono::milliseconds(0));
   EXPECT_EQ(space.word(8), 0x98u);
   control->unmount();
}

/// A core with tables whose records can be damaged.
class DamagedCoreTest : public CoreSmTest {
protected:
   DamagedCoreTest() {
      tables.corruptionHandlerIs(
         [this](const std::string& table, const std::string&) { reports.push_back(table); });
   }

   /// Damages each record of that value.
   void damage(const std::string& table, std::uint32_t value) {
      const std::string path = directory.path("tables/" + table + ".tbl");
      std::string content = directory.read("tables/" + table + ".tbl");
      const std::string bytes(reinterpret_cast<const char*>(&value), sizeof value);
      std::fstream image(path, std::ios::in | std::ios::out | std::ios::binary);
      std::size_t found = 0;
      for (std::size_t at = content.find(bytes); at != std::string::npos;
           at = content.find(bytes, at + 1)) {
         image.seekp(static_cast<std::streamoff>(at));
         image.write("\xff\xfe\xfd\xfc", 4);
         ++found;
      }
      ASSERT_GT(found, 0u);
   }

   std::vector<std::string> reports;
};

TEST_F(DamagedCoreTest, ADamagedStatusReadsAsZero) {
   makeReadyCore();
   statusIs(4, 0x12345678);
   damage("status", 0x12345678);
   EXPECT_EQ(core->regRead("CTRL"), 0u);
   EXPECT_THAT(log, ElementsAre("read CTRL Success 0"));
   EXPECT_THAT(reports, ElementsAre("status"));
   EXPECT_THAT(bus(), IsEmpty());
}

TEST_F(DamagedCoreTest, ADamagedStatusIsReportedThoughTheReadGoesToTheHardware) {
   makeReadyCore();
   core->accessHwIs(true);
   statusIs(4, 0x12345678);
   damage("status", 0x12345678);
   std::size_t reportsAtAccess = 0;
   access->onAccess = [&] { reportsAtAccess = reports.size(); };
   space.sizeIs(0); // so that there is nothing to enter where the damage is
   EXPECT_EQ(core->regRead("CTRL"), 0xffffffffu);
   access->onAccess = {};
   EXPECT_EQ(reportsAtAccess, 1u) << "the status is looked up first";
   EXPECT_THAT(reports, ElementsAre("status"));
   EXPECT_THAT(bus(), ElementsAre("guarded read 0x4"));
   EXPECT_THAT(log, ElementsAre("read CTRL Error 4294967295")) << "told once";
}

TEST_F(DamagedCoreTest, ADamagedDesireIsNone) {
   makeReadyCore();
   configIs(8, 0x12345678);
   forget();
   damage("config", 0x12345678);
   core->handleShadowRegister(CoreRegisterKey(8));
   EXPECT_THAT(reports, ElementsAre("config"));
   EXPECT_THAT(bus(), IsEmpty());
   EXPECT_THAT(statusOf(8), Optional(0x12345678));
}

TEST_F(DamagedCoreTest, DamageEndsTheLookAtAllDesiresAndNotTheCore) {
   makeReadyCore();
   configIs(8, 0x12345678);
   forget();
   damage("config", 0x12345678);
   core->handleShadowRegister();
   EXPECT_THAT(reports, ElementsAre("config"));
   EXPECT_THAT(bus(), IsEmpty());
   model->generationIs({2, true});
   EXPECT_TRUE(core->ready());
   EXPECT_THAT(log, ElementsAre("not ready", "ready"));
}

TEST_F(CoreSmBaseTest, ATableThatMayOnlyBeReadRefusesTheWrite) {
   configControl->unmount();
   config = shadowRegisterConfigFactory("config");
   const auto reader = Platform::Tables::collectionControlFactory(tables);
   config->regMapControlIs(reader);
   reader->mount();
   makeReadyCore();
   EXPECT_EQ(Failure([&] { core->regWrite("SCRATCH", 1); }).code, EACCES);
   EXPECT_THAT(bus(), IsEmpty());
   EXPECT_THAT(log, IsEmpty());
   reader->unmount();
}

// --- Attributes

TEST_F(CoreSmBaseTest, HelperAndTransportAreKeptWhileTheyFit) {
   makeReadyCore();
   const auto helper = core->asyncHelper();
   EXPECT_EQ(core->asyncHelperIs(core), helper);
   const auto transport = core->transport();
   EXPECT_EQ(core->transportIs("core0"), transport);
   const auto other = core->transportIs("other");
   EXPECT_NE(other, transport);
   EXPECT_EQ(core->transport(), other);
   EXPECT_EQ(other->name(), "other");
   core->transportDel();
   EXPECT_EQ(core->transport(), nullptr);
   const auto orphan = core->asyncHelperIs(nullptr);
   EXPECT_NE(orphan, helper);
   EXPECT_EQ(core->asyncHelper(), orphan);
   core->asyncHelperDel();
   EXPECT_EQ(core->asyncHelper(), nullptr);
   EXPECT_EQ(core->asyncHelperIs(core)->parent(), core);
}

TEST_F(CoreSmBaseTest, NamesOfAddressesAreAnOrdinaryCollection) {
   makeModel();
   makeCore();
   ChangeLog changes(*core);
   core->regAddrToNameIs(0x40, "NEW");
   core->regAddrToNameIs(0x40, "NEW");
   core->regAddrToNameIs(0x40, "NEWER");
   EXPECT_EQ(core->regAddrToNameGet(0x40), "NEWER");
   core->regAddrToNameDel(0x40);
   core->regAddrToNameDel(0x40);
   EXPECT_EQ(core->regAddrToNameGet(0x40), "");
   core->regAddrToNameDelAll();
   EXPECT_EQ(core->regAddrToNames(), 0u);
   EXPECT_THAT(changes.changes,
               ElementsAre("regAddrToName[64]", "regAddrToName[64]", "regAddrToName[64]",
                           "regAddrToName[0]", "regAddrToName[4]", "regAddrToName[8]"));
}

TEST_F(CoreSmBaseTest, ItsAttributesAreObservable) {
   makeModel();
   makeCore();
   ChangeLog changes(*core);
   core->accessHwIs(true);
   core->accessHwIs(true);
   core->initSyncRetryCountInc(2);
   EXPECT_EQ(core->initSyncRetryCount(), 2u);
   model->generationIs({1, true});
   EXPECT_THAT(changes.changes, ElementsAre("accessHw", "initSyncRetryCount", "transport",
                                            "initSyncRetryCount", "hwGeneration", "ready"));
   EXPECT_EQ(core->initSyncRetryCount(), 0u) << "each generation begins anew";
}

TEST_F(CoreSmBaseTest, TheHooksTakeTheFirstSlotsAfterTheNodes) {
   EXPECT_EQ(virtualSlot(&CoreSmBase::typeData), 4);
   EXPECT_EQ(virtualSlot(&CoreSmBase::doOnReadResult), 5);
   EXPECT_EQ(virtualSlot(&CoreSmBase::doOnNotifyResult), 6);
   EXPECT_EQ(virtualSlot(&CoreSmBase::doOnWriteResult), 7);
   EXPECT_EQ(virtualSlot(&CoreSmBase::doOnReady), 8);
   EXPECT_EQ(virtualSlot(&CoreSmBase::regRead), -1);
}

TEST_F(CoreSmBaseTest, AllHooksButReadinessHaveDefaultsThatDoNothing) {
   class Plain : public CoreSmBase {
   public:
      using CoreSmBase::CoreSmBase;
      void doOnReady(bool) override {}
   };
   makeModel({1, true});
   const auto plain = Platform::make<Plain>(model, config, status);
   EXPECT_EQ(plain->regRead("CTRL"), 0xcu);
   plain->regWrite("SCRATCH", 1);
   plain->doOnNotifyResult("CTRL", 1);
   plain->teardown();
}

TEST_F(CoreSmBaseTest, IsDescribedByItsTable) {
   const auto& type = CoreSmBase::staticType();
   EXPECT_EQ(type.name(), "TarnRegFile::Sable::CoreSmBase");
   EXPECT_THAT(TestSupport::reflectedAttributes(type),
               ElementsAre("hwSableCore", "shadowRegConfig", "shadowRegStatus", "accessHw (rw)",
                           "hwGeneration", "asyncHelper", "transport", "regAddrToName",
                           "initSyncRetryCount", "initialized", "ready (rw)", "coreName",
                           "hasNotificationActive (rw)"));
   EXPECT_THAT(TestSupport::reflectedOperations(type),
               ElementsAre("doOnReadResult(regName, result, value)",
                           "doOnNotifyResult(regName, value)", "doOnWriteResult(regName, result)",
                           "doOnReady(ready)", "regRead(regName)", "regWrite(regName, value)",
                           "handleGeneration()", "teardown()"));
}

// --- Hooks that interfere

TEST_F(CoreSmBaseTest, AHookMayBringAnotherGeneration) {
   makeModel({1, true});
   makeCore([&](Core&, const std::string& line) {
      if (line == "ready" && model->generation().id < 4) {
         model->generationIs({model->generation().id + 1, true});
      }
   });
   EXPECT_TRUE(core->ready());
   EXPECT_EQ(core->hwGeneration(), Generation(4, true));
   EXPECT_THAT(
      log, ElementsAre("ready", "not ready", "ready", "not ready", "ready", "not ready", "ready"));
   EXPECT_THAT(bus(), SizeIs(4 * 3)) << "reads that were superseded are not issued";
}

TEST_F(CoreSmBaseTest, AHookMayBringAnotherGenerationWhileOneIsGoing) {
   makeReadyCore();
   core->onHook = [&](Core&, const std::string& line) {
      if (line == "not ready" && model->generation().id == 2) {
         model->generationIs({3, true});
      }
   };
   model->generationIs({2, true});
   EXPECT_TRUE(core->ready());
   EXPECT_EQ(core->hwGeneration(), Generation(3, true));
   EXPECT_THAT(log, ElementsAre("not ready", "ready"));
   EXPECT_THAT(bus(), SizeIs(3));
}

TEST_F(CoreSmBaseTest, AnObserverOfAGenerationThatIsNotValidMayBringTheNext) {
   makeReadyCore();
   const auto observer =
      Platform::subscribe(*core, CoreSmBase::hwGenerationAttr, [&](const Platform::Change&) {
         if (!core->hwGeneration().valid) {
            model->generationIs({2, true});
         }
      });
   model->generationIs({1, false});
   EXPECT_TRUE(core->ready());
   EXPECT_EQ(core->hwGeneration(), Generation(2, true));
}

TEST_F(CoreSmBaseTest, AWriteInsideTheResultOfAWriteIsTheLastOne) {
   makeReadyCore();
   core->onHook = [&](Core& self, const std::string& line) {
      if (line == "write SCRATCH Success" && space.word(8) == 1) {
         self.regWrite("SCRATCH", 2);
      }
   };
   core->regWrite("SCRATCH", 1);
   EXPECT_EQ(space.word(8), 2u);
   EXPECT_THAT(statusOf(8), Optional(2)) << "not what the outer one has written before";
   EXPECT_THAT(configured(8), Optional(2));
   EXPECT_EQ(core->regRead("SCRATCH"), 2u);
}

TEST_F(CoreSmBaseTest, AWriteInsideTheImmediateResultOfAnEqualOneIsTheLastOne) {
   makeReadyCore();
   core->regWrite("SCRATCH", 1);
   forget();
   core->onHook = [&](Core& self, const std::string&) {
      self.onHook = {};
      self.regWrite("SCRATCH", 2);
   };
   core->regWrite("SCRATCH", 1);
   EXPECT_THAT(configured(8), Optional(2));
   EXPECT_EQ(space.word(8), 2u);
   EXPECT_THAT(log, ElementsAre("write SCRATCH Success", "write SCRATCH Success"));
   EXPECT_THAT(bus(), ElementsAre("guarded write 0x8 0x2"));
}

TEST_F(CoreSmBaseTest, AGenerationInsideTheResultOfAWriteKeepsItsOwnStatus) {
   makeReadyCore();
   core->onHook = [&](Core&, const std::string& line) {
      if (line == "write SCRATCH Success" && model->generation().id == 1) {
         space.wordIs(8, 0x70); // the new one comes up with this
         configDel(8);
         model->generationIs({2, true});
      }
   };
   core->regWrite("SCRATCH", 1);
   EXPECT_THAT(statusOf(8), Optional(0x70));
}

TEST_F(CoreSmBaseTest, AReadInsideTheResultOfAWriteDoesNotOutliveTheWrittenValue) {
   makeReadyCore();
   core->accessHwIs(true);
   std::optional<std::uint32_t> inside;
   core->onHook = [&](Core& self, const std::string& line) {
      if (line == "write SCRATCH Success") {
         space.wordIs(8, 0x70); // a register that does not read as it was written
         EXPECT_EQ(self.regRead("SCRATCH"), 0x70u);
         inside = statusOf(8);
      }
   };
   core->regWrite("SCRATCH", 1);
   EXPECT_THAT(inside, Optional(0x70));
   EXPECT_THAT(statusOf(8), Optional(1));
   EXPECT_THAT(configured(8), Optional(1));
   EXPECT_THAT(log, ElementsAre("write SCRATCH Success", "read SCRATCH Success 112"));
}

TEST_F(CoreSmBaseTest, HardwareThatGoesWhileDesiresAreAppliedIsAllThatIsTold) {
   makeModel();
   makeCore([&](Core&, const std::string& line) {
      if (line == "write SCRATCH Success") {
         model->generationIs({1, false});
      }
   });
   configIs(8, 9);
   CaptureScope traces("TarnRegFile/CoreSmBase=3");
   model->generationIs({1, true});
   EXPECT_FALSE(core->ready());
   EXPECT_THAT(log, ElementsAre("write SCRATCH Success", "not ready"));
   EXPECT_THAT(traces.texts(), Not(Contains("CoreSm core0 is ready")));
}

TEST_F(CoreSmBaseTest, AGenerationThatComesWhileDesiresAreAppliedIsReadyOnce) {
   makeModel();
   makeCore([&](Core& self, const std::string& line) {
      if (line == "write SCRATCH Success" && model->generation().id == 1) {
         model->generationIs({2, true});
         EXPECT_TRUE(self.ready());
      }
   });
   configIs(8, 9);
   model->generationIs({1, true});
   EXPECT_TRUE(core->ready());
   EXPECT_EQ(core->hwGeneration(), Generation(2, true));
   EXPECT_THAT(log, ElementsAre("write SCRATCH Success", "not ready", "ready"));
   EXPECT_THAT(statusOf(8), Optional(9));
}

TEST_F(CoreSmBaseTest, ACoreThatIsTakenDownWhileDesiresAreAppliedIsNotReady) {
   makeModel();
   makeCore([](Core& self, const std::string& line) {
      if (line == "write SCRATCH Success") {
         self.teardown();
      }
   });
   configIs(8, 9);
   CaptureScope traces("TarnRegFile/CoreSmBase=3");
   model->generationIs({1, true});
   EXPECT_FALSE(core->ready());
   EXPECT_THAT(log, ElementsAre("write SCRATCH Success"));
   EXPECT_THAT(traces.texts(), Not(Contains("CoreSm core0 is ready")));
}

TEST_F(CoreSmBaseTest, ReadinessThatAnObserverTakesBackAtOnceIsNotToldAfterwards) {
   makeReadyCore();
   core->readyIs(false);
   forget();
   const auto observer =
      Platform::subscribe(*core, CoreSmBase::readyAttr, [&](const Platform::Change&) {
         if (core->ready()) {
            core->readyIs(false);
         }
      });
   core->readyIs(true);
   EXPECT_FALSE(core->ready());
   EXPECT_THAT(log, ElementsAre("not ready"));
}

// --- The initial sync's failures

/// A core in its initial sync whose transport answers inside the call, as the test says.
class SyncRetryTest : public CoreSmTest {
protected:
   SyncRetryTest() {
      makeModel();
      makeCore();
      core->createTransport();
      TransportMethod& method = *core->transport();
      method.handleDeletion();
      fake = new TestSupport::FakeTransport(file, journal, 4);
      method.implPtrIs(fake);
      method.asyncHelperIs(core->asyncHelper());
      fake->onAccess = [this, &method] {
         method.errorNotifier()->errorIs(false);
         countsInside.push_back(core->initSyncRetryCount());
         if (failures > 0) {
            --failures;
            throw std::runtime_error("no");
         }
      };
   }

   int failures = 0;
   std::vector<std::uint32_t> countsInside;
   std::shared_ptr<TestSupport::Journal> journal = std::make_shared<TestSupport::Journal>();
   TestSupport::FakeTransport* fake = nullptr; // the transport's
};

TEST_F(SyncRetryTest, ARetryIsCountedOnlyWhenItsReadHasReturned) {
   failures = 5;
   fake->value = 42;
   core->transport()->regRead("CTRL");
   EXPECT_THAT(countsInside, ElementsAre(0, 0, 0, 0, 0, 0))
      << "each result is handled inside of the read that it is of";
   EXPECT_EQ(core->initSyncRetryCount(), 5u);
   EXPECT_THAT(statusOf(4), Optional(42));
   EXPECT_THAT(*journal, SizeIs(6));
   EXPECT_THAT(log, IsEmpty()) << "a failed first read is told to no hook";
}

TEST_F(SyncRetryTest, TheCountIsOfAllRegistersTogether) {
   for (const char* name : {"ID", "CTRL", "SCRATCH"}) {
      failures = 1;
      core->transport()->regRead(name);
   }
   EXPECT_EQ(core->initSyncRetryCount(), 3u);
   EXPECT_THAT(countsInside, ElementsAre(0, 0, 1, 1, 2, 2));
}

TEST_F(SyncRetryTest, ARepeatedReadOfATransportThatWasReplacedDoesNotCountInTheNewGeneration) {
   const auto kept = core->transport();
   int accesses = 0;
   fake->onAccess = [&, method = &*kept] {
      method->errorNotifier()->errorIs(false);
      if (++accesses == 1) {
         throw std::runtime_error("no");
      }
      model->generationIs({2, true}); // inside of the repeated read
   };
   kept->regRead("CTRL");
   EXPECT_EQ(accesses, 2);
   EXPECT_NE(core->transport(), kept);
   EXPECT_EQ(core->hwGeneration(), Generation(2, true));
   EXPECT_TRUE(core->ready());
   EXPECT_EQ(core->initSyncRetryCount(), 0u);
}

using SyncRetryDeathTest = SyncRetryTest;

TEST_F(SyncRetryDeathTest, TheFourthFailureIsFatal) {
   EXPECT_DEATH(
      {
         for (const char* name : {"ID", "CTRL", "SCRATCH", "ID"}) {
            failures = 1;
            core->transport()->regRead(name);
         }
      },
      "CoreSmBase: handleInitSyncResult: assertion failed: retried initial read more than 3 times");
}

TEST_F(SyncRetryDeathTest, ADeviceThatStaysDeadIsFatalInPlaceOfUsingUpTheStack) {
   EXPECT_DEATH(
      {
         failures = 1'000'000;
         core->transport()->regRead("ID");
      },
      "CoreSmBase: handleInitSyncResult: assertion failed: retried initial read more than 3 times");
}

// --- Fatal assertions

TEST_F(CoreSmBaseDeathTest, AccessesOfACoreThatIsNotReadyAreFatal) {
   makeModel();
   makeCore();
   EXPECT_DEATH(core->regRead("CTRL"),
                "CoreSmBase: regRead: assertion failed: coreSm is not ready");
   EXPECT_DEATH(core->regRead("NONE"), "coreSm is not ready") << "asked first";
   EXPECT_DEATH(core->regWrite("CTRL", 1),
                "CoreSmBase: regWrite: assertion failed: coreSm is not ready");
}

TEST_F(CoreSmBaseDeathTest, AccessesOfWhatTheCoreDoesNotHaveAreFatal) {
   makeReadyCore();
   EXPECT_DEATH(core->regRead("NONE"), "CoreSmBase: regRead: assertion failed: register NONE is "
                                       "not managed by core0");
   EXPECT_DEATH(core->regWrite("NONE", 1), "CoreSmBase: regWrite: assertion failed: register NONE "
                                           "is not managed by core0");
   EXPECT_DEATH(core->updateShadowRegStatus("NONE", 1),
                "CoreSmBase: updateShadowRegStatus: assertion failed: register NONE is not managed "
                "by core0");
   EXPECT_DEATH(configIs(0x1c, 1), "CoreSmBase: handleShadowRegister: assertion failed: register "
                                   "addr=0x1c is not managed by core0");
   EXPECT_DEATH(core->regWrite("", 1), "register  is not managed by core0");
}

TEST_F(CoreSmBaseDeathTest, AnAddressThatTheCoreDoesNotHaveIsFatalThoughNothingIsConfigured) {
   makeReadyCore();
   const char* const text = "CoreSmBase: handleShadowRegister: assertion failed: register "
                            "addr=0x1c is not managed by core0";
   EXPECT_DEATH(core->handleShadowRegister(CoreRegisterKey(0x1c)), text);
   core->hasNotificationActiveIs(false);
   configIs(0x1c, 1);
   core->hasNotificationActiveIs(true);
   EXPECT_DEATH(configDel(0x1c), text);
   core->hasNotificationActiveIs(false);
   configDel(0x1c);
}

TEST_F(CoreSmBaseDeathTest, AResultOfTheInitialSyncWhenReadyIsFatal) {
   makeReadyCore();
   EXPECT_DEATH(core->handleInitSyncResult("CTRL", RegAccessResult::Success, 1),
                "CoreSmBase: handleInitSyncResult: assertion failed: should not call "
                "handleInitSyncResult when CoreSm is ready");
}

TEST_F(CoreSmBaseDeathTest, ReadinessByHandWithoutATransportIsFatalOnceOneIsNeeded) {
   makeModel();
   makeCore();
   core->readyIs(true);
   EXPECT_EQ(core->regRead("CTRL"), 0u);
   EXPECT_DEATH(core->regWrite("CTRL", 1),
                "CoreSmBase: handleShadowRegister: assertion failed: core0 has no transport");
   core->accessHwIs(true);
   EXPECT_DEATH(core->regRead("CTRL"),
                "CoreSmBase: regRead: assertion failed: core0 has no transport");
}

TEST_F(CoreSmBaseDeathTest, AWriteWithoutATableOfDesiresIsFatal) {
   makeModel({1, true});
   core = Platform::make<Core>(model, nullptr, status, log);
   ASSERT_TRUE(core->ready());
   EXPECT_DEATH(core->regWrite("CTRL", 1),
                "CoreSmBase: regWrite: assertion failed: core0 has no ShadowRegisterConfig");
}

// --- Its end

TEST_F(CoreSmBaseTest, ACoreThatWasTakenDownLetsEverythingGo) {
   makeReadyCore();
   const auto helper = core->asyncHelper();
   const auto transport = core->transport();
   core->teardown();
   core->teardown();
   EXPECT_FALSE(core->ready());
   EXPECT_EQ(core->asyncHelper(), nullptr);
   EXPECT_EQ(core->transport(), nullptr);
   EXPECT_EQ(transport->implPtr(), nullptr);
   EXPECT_FALSE(core->hasNotificationActive());
   EXPECT_FALSE(model->hasNotifiees());
   EXPECT_FALSE(config->hasNotifiees());
   EXPECT_THAT(log, IsEmpty()) << "its owner knows";
   // None of this wakes it up.
   core->hasNotificationActiveIs(true);
   core->handleGeneration();
   core->handleInitialized();
   core->readyIs(true);
   core->createTransport();
   EXPECT_EQ(core->asyncHelperIs(core), nullptr);
   helper->handleReadResult("CTRL", RegAccessResult::Success, 1);
   helper->handleReadResult("CTRL", RegAccessResult::Error, 1);
   helper->handleWriteResult("CTRL", RegAccessResult::Success);
   EXPECT_FALSE(core->ready());
   EXPECT_EQ(core->transport(), nullptr);
   EXPECT_THAT(statusOf(4), Optional(0xc));
   EXPECT_THAT(log, IsEmpty());
   EXPECT_THAT(bus(), IsEmpty());
}

TEST_F(CoreSmBaseTest, AHookMayTakeTheCoreDownAndLetItGo) {
   makeModel();
   makeCore();
   core->onHook = [&](Core& self, const std::string&) {
      self.teardown();
      core.reset();
   };
   model->generationIs({1, true});
   EXPECT_EQ(Core::alive, 0);
   EXPECT_THAT(log, ElementsAre("ready"));
   makeReadyCore();
   core->onHook = [&](Core& self, const std::string&) {
      self.teardown();
      core.reset();
   };
   configIs(8, 9);
   EXPECT_EQ(Core::alive, 0);
   makeReadyCore();
   core->onHook = [&](Core& self, const std::string&) {
      self.teardown();
      core.reset();
   };
   model->generationIs({9, true});
   EXPECT_EQ(Core::alive, 0);
   EXPECT_THAT(log, ElementsAre("not ready"));
}

TEST_F(CoreSmBaseTest, ACoreThatWasTakenDownDuringItsFirstReadsIssuesNoMore) {
   makeModel();
   makeCore();
   const auto observer = Platform::subscribe(*status, [&](const Platform::Change&) {
      if (statusSize() == 2) {
         core->teardown();
      }
   });
   model->generationIs({1, true});
   EXPECT_THAT(bus(), SizeIs(2));
   EXPECT_FALSE(core->ready());
   EXPECT_THAT(log, IsEmpty());
}

// --- An asynchronous transport

/// A core behind the access manager.
class AsyncCoreTest : public CoreSmTest {
protected:
   AsyncCoreTest() {
      file->addrBlockSizeIs(1);
      for (const auto& [address, value] :
           std::map<std::uint32_t, std::uint32_t>{{0, 0x1d}, {4, 0xc}, {8, 5}}) {
         device->registerIs(address, value);
      }
      i2c->deviceIs(0x50, device);
   }

   ~AsyncCoreTest() override {
      if (core) {
         core->teardown();
         core.reset();
      }
   }

   void makeAsyncModel(std::unique_ptr<Hardware::SornBackend> backend = nullptr) {
      if (!backend) {
         backend = std::make_unique<Hardware::SimulatedSornBackend>(i2c);
      }
      model = sableCoreFactory(
         "core0", file,
         i2cSornTransportDescriptorFactory(0x50, manager.busNew("bus", std::move(backend))));
   }

   bool until(const std::function<bool()>& holds) { return loop.runUntil(holds, patience); }
   bool untilReady() {
      return until([&] { return core->ready(); });
   }

   /// The device's next `count` reads fail, beginning with the one of that number.
   void readsFail(std::uint64_t count, std::uint64_t first = 1) {
      device->faults().add({.kind = Hardware::FaultKind::ioError,
                            .direction = Hardware::FaultDirection::read,
                            .first = first,
                            .count = count});
   }

   std::shared_ptr<Hardware::SimulatedI2cBus> i2c = std::make_shared<Hardware::SimulatedI2cBus>();
   std::shared_ptr<Hardware::SimulatedI2cDevice> device =
      std::make_shared<Hardware::SimulatedI2cDevice>(Hardware::SimulatedI2cKind::block);
   std::shared_ptr<TestSupport::GatedSornBackend::State> gate =
      std::make_shared<TestSupport::GatedSornBackend::State>();
   Hardware::SornManager manager{loop};
};

TEST_F(AsyncCoreTest, ItsConstructionIssuesAllReadsAndTheLoopMakesItReady) {
   makeAsyncModel();
   model->generationIs({1, true});
   makeCore();
   EXPECT_FALSE(core->ready());
   EXPECT_EQ(core->hwGeneration(), Generation(1, true));
   EXPECT_TRUE(core->transport());
   EXPECT_EQ(statusSize(), 0u);
   ASSERT_TRUE(untilReady());
   EXPECT_THAT(log, ElementsAre("ready"));
   EXPECT_THAT(statusOf(0), Optional(0x1d));
   EXPECT_THAT(statusOf(4), Optional(0xc));
   EXPECT_THAT(statusOf(8), Optional(5));
}

TEST_F(AsyncCoreTest, ThreeFailedFirstReadsOfAnyRegistersAreRepeated) {
   makeAsyncModel();
   makeCore();
   readsFail(3);
   model->generationIs({1, true});
   ASSERT_TRUE(untilReady());
   EXPECT_EQ(core->initSyncRetryCount(), 3u);
   EXPECT_EQ(statusSize(), 3u);
   EXPECT_THAT(log, ElementsAre("ready"));
}

TEST_F(AsyncCoreTest, ANewGenerationMayFailThreeTimesAgain) {
   makeAsyncModel();
   makeCore();
   for (std::uint32_t id = 1; id <= 3; ++id) {
      readsFail(3);
      model->generationIs({id, true});
      EXPECT_EQ(core->initSyncRetryCount(), 0u);
      ASSERT_TRUE(untilReady());
      EXPECT_EQ(core->initSyncRetryCount(), 3u);
   }
}

using AsyncCoreDeathTest = AsyncCoreTest;

TEST_F(AsyncCoreDeathTest, TheFourthFailureOfAGenerationIsFatalThoughEachRegisterFailedOnce) {
   registerIs("FOURTH", 12);
   makeAsyncModel();
   makeCore();
   EXPECT_DEATH(
      {
         readsFail(4);
         model->generationIs({1, true});
         untilReady();
      },
      "CoreSmBase: handleInitSyncResult: assertion failed: retried initial read more than 3 times");
}

TEST_F(AsyncCoreTest, WritesAndReadsAreToldWhenTheyAreDone) {
   makeAsyncModel();
   model->generationIs({1, true});
   makeCore();
   ASSERT_TRUE(untilReady());
   log.clear();
   core->regWrite("SCRATCH", 0x77);
   EXPECT_THAT(statusOf(8), Optional(0x77)) << "at once";
   EXPECT_THAT(log, IsEmpty());
   ASSERT_TRUE(until([&] { return log.size() == 1; }));
   EXPECT_THAT(log, ElementsAre("write SCRATCH Success"));
   EXPECT_EQ(device->registerAt(8), 0x77u);
   device->registerIs(4, 0x99);
   core->accessHwIs(true);
   EXPECT_EQ(core->regRead("CTRL"), 0u) << "an asynchronous read has no value yet";
   ASSERT_TRUE(until([&] { return log.size() == 2; }));
   EXPECT_EQ(log.back(), "read CTRL Success 153");
   EXPECT_THAT(statusOf(4), Optional(0x99));
   readsFail(1);
   core->regRead("CTRL");
   ASSERT_TRUE(until([&] { return log.size() == 3; }));
   EXPECT_THAT(log.back(), testing::StartsWith("read CTRL Error"));
   EXPECT_THAT(statusOf(4), Optional(0x99));
}

TEST_F(AsyncCoreTest, AReadWhoseResultComesWithoutHardwareAccessUpdatesTheShadowOnly) {
   makeAsyncModel();
   model->generationIs({1, true});
   makeCore();
   ASSERT_TRUE(untilReady());
   log.clear();
   device->registerIs(4, 0x99);
   core->transport()->regRead("CTRL");
   ASSERT_TRUE(until([&] { return statusOf(4) == 0x99u; }));
   EXPECT_THAT(log, IsEmpty());
}

TEST_F(AsyncCoreTest, AWriteThatEndsInAnotherGenerationIsNotTold) {
   makeAsyncModel(std::make_unique<TestSupport::GatedSornBackend>(gate));
   model->generationIs({1, true});
   makeCore();
   ASSERT_TRUE(untilReady());
   gate->gateIs(false);
   core->regWrite("SCRATCH", 0x77);
   const auto kept = core->transport(); // else its requests would be taken back
   model->generationIs({1, false});
   log.clear();
   const std::size_t before = gate->lines().size();
   gate->gateIs(true);
   ASSERT_TRUE(until([&] { return gate->lines().size() >= before + 3; }));
   model->generationIs({2, true});
   ASSERT_TRUE(untilReady());
   EXPECT_THAT(log, ElementsAre("ready"));
   kept->handleDeletion();
}

TEST_F(AsyncCoreTest, AGenerationDuringTheSyncStartsItAnew) {
   makeAsyncModel(std::make_unique<TestSupport::GatedSornBackend>(gate));
   gate->gateIs(false);
   model->generationIs({1, true});
   makeCore();
   gate->awaitArrivals(1);
   model->generationIs({2, true});
   gate->registers[4] = 0x44;
   gate->gateIs(true);
   ASSERT_TRUE(untilReady());
   EXPECT_THAT(log, ElementsAre("ready"));
   EXPECT_EQ(core->hwGeneration(), Generation(2, true));
   EXPECT_THAT(statusOf(4), Optional(0x44));
}

TEST_F(AsyncCoreTest, LateResultsOfATransportThatWasReplacedAreOfTheCurrentSync) {
   makeAsyncModel(std::make_unique<TestSupport::GatedSornBackend>(gate));
   gate->gateIs(false);
   model->generationIs({1, true});
   makeCore();
   gate->awaitArrivals(1);
   const auto kept = core->transport(); // else its requests would be taken back
   model->generationIs({2, true});
   ASSERT_NE(core->transport(), kept);
   EXPECT_EQ(statusSize(), 0u);
   const ChangeLog changes(*status);
   gate->gateIs(true);
   ASSERT_TRUE(until([&] { return changes.changes.size() == 6; })) << "three of each transport";
   EXPECT_TRUE(core->ready());
   EXPECT_THAT(log, ElementsAre("ready"));
   kept->handleDeletion();
}

TEST_F(AsyncCoreTest, LateResultsOfATransportThatWasReplacedMakeItReady) {
   makeAsyncModel(std::make_unique<TestSupport::GatedSornBackend>(gate));
   gate->gateIs(false);
   model->generationIs({1, true});
   makeCore();
   gate->awaitArrivals(1);
   const auto kept = core->transport();
   model->generationIs({2, true});
   const auto helper = kept->implPtr()->getAsyncHelper();
   ASSERT_TRUE(helper);
   for (const char* name : {"ID", "CTRL", "SCRATCH"}) {
      EXPECT_FALSE(core->ready());
      helper->handleReadResult(name, RegAccessResult::Success, 3);
   }
   EXPECT_TRUE(core->ready()) << "though the new transport's are still held";
   EXPECT_THAT(log, ElementsAre("ready"));
   EXPECT_THAT(statusOf(4), Optional(3));
   kept->handleDeletion();
   gate->gateIs(true);
   ASSERT_TRUE(until([&] { return statusOf(4) == 0u && statusOf(8) == 0u; }));
   EXPECT_THAT(log, ElementsAre("ready")) << "reads while it is ready update the status only";
}

TEST_F(AsyncCoreTest, ALateFailureOfATransportThatWasReplacedIsRepeatedByTheNewOne) {
   makeAsyncModel(std::make_unique<TestSupport::GatedSornBackend>(gate));
   gate->gateIs(false);
   model->generationIs({1, true});
   makeCore();
   gate->awaitArrivals(1);
   const auto kept = core->transport();
   model->generationIs({2, true});
   const auto helper = kept->implPtr()->getAsyncHelper();
   ASSERT_TRUE(helper);
   helper->handleReadResult("CTRL", RegAccessResult::Error, 0);
   EXPECT_EQ(core->initSyncRetryCount(), 1u);
   kept->handleDeletion();
   gate->gateIs(true);
   ASSERT_TRUE(untilReady());
   EXPECT_THAT(log, ElementsAre("ready"));
}

TEST_F(AsyncCoreTest, HardwareThatGoesDuringTheSyncLeavesItNotReady) {
   makeAsyncModel(std::make_unique<TestSupport::GatedSornBackend>(gate));
   gate->gateIs(false);
   model->generationIs({1, true});
   makeCore();
   gate->awaitArrivals(1);
   core->hasNotificationActiveIs(false);
   model->generationIs({1, false}); // not handled before the results come
   gate->gateIs(true);
   ASSERT_TRUE(until([&] { return statusSize() == 3; }));
   loop.poll();
   EXPECT_FALSE(core->ready());
   core->hasNotificationActiveIs(true);
   core->handleGeneration();
   EXPECT_FALSE(core->ready());
   EXPECT_EQ(core->hwGeneration(), Generation(1, false));
   EXPECT_THAT(log, IsEmpty());
}

TEST_F(AsyncCoreTest, WhatIsInFlightWhenTheCoreIsTakenDownIsNotTold) {
   makeAsyncModel(std::make_unique<TestSupport::GatedSornBackend>(gate));
   gate->gateIs(false);
   model->generationIs({1, true});
   makeCore();
   gate->awaitArrivals(1);
   core->teardown();
   core.reset();
   EXPECT_EQ(Core::alive, 0);
   gate->gateIs(true);
   loop.poll();
   EXPECT_EQ(statusSize(), 0u);
   EXPECT_THAT(log, IsEmpty());
}

TEST_F(AsyncCoreTest, AHookMayBringAnotherGenerationOrTakeTheCoreDown) {
   makeAsyncModel();
   makeCore([&](Core& self, const std::string& line) {
      if (line == "ready" && model->generation().id < 3) {
         model->generationIs({model->generation().id + 1, true});
      } else if (line == "ready") {
         self.teardown();
         core.reset();
      }
   });
   model->generationIs({1, true});
   ASSERT_TRUE(until([&] { return core == nullptr; }));
   EXPECT_EQ(Core::alive, 0);
   EXPECT_THAT(log, ElementsAre("ready", "not ready", "ready", "not ready", "ready"));
}

} // namespace
} // namespace TarnRegFile::Sable
