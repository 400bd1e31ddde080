// One core of the agent, over a device whose accesses are kept and may fail.

#include "agent/CoreAgent.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <stdexcept>

#include "platform/tables/TableMount.h"
#include "platform/trace/CaptureScope.h"
#include "TarnRegFile/PciTransportDescriptor.h"
#include "tests/unit/agent/CoreAgentFixture.h"

namespace Agent {
namespace {

using Platform::Trace::CaptureScope;
using TarnRegFile::Sable::CorePhase;
using testing::ElementsAre;
using testing::HasSubstr;

class CoreAgentTest : public CoreAgentFixture {};

TEST_F(CoreAgentTest, EveryRegisterIsReadBeforeTheGenerationAndInIt) {
   make();
   EXPECT_EQ(agent->state().phase, CorePhase::starting);
   EXPECT_THAT(access->journal, testing::IsEmpty()) << "nothing happens before the loop runs";
   ASSERT_TRUE(untilReady(1));
   EXPECT_THAT(access->journal,
               ElementsAre("guarded read 0x0", "guarded read 0x4", "guarded read 0x8",
                           "guarded read 0x0", "guarded read 0x4", "guarded read 0x8"));
   EXPECT_EQ(agent->state().phase, CorePhase::ready);
   EXPECT_TRUE(agent->state().valid);
   EXPECT_EQ(agent->state().registersRead, 3u);
   EXPECT_EQ(agent->state().errors, 0u);
}

TEST_F(CoreAgentTest, ARegisterThatCannotBeReadIsNamedAndTriedAgainEverLater) {
   fails = [](int number) { return number == 2 || (number > 2 && number < 6); };
   const CaptureScope trace("*=off,agent/CoreAgent=0");
   make();
   ASSERT_TRUE(untilReady(1));
   // One access of the first probe succeeds; the next three probes fail at once.
   EXPECT_THAT(
      trace.texts(),
      ElementsAre(
         "fpga: cannot use the device: register 'CTRL': out of order; trying again in 1 ms",
         "fpga: cannot use the device: register 'ID': out of order; trying again in 2 ms",
         "fpga: cannot use the device: register 'ID': out of order; trying again in 4 ms",
         "fpga: cannot use the device: register 'ID': out of order; trying again in 4 ms"));
   EXPECT_EQ(agent->state().errors, 4u);
   EXPECT_EQ(agent->state().losses, 0u);
}

TEST_F(CoreAgentTest, AFailureWhileTheShadowIsFilledEndsTheGenerationAndNotTheProcess) {
   fails = [](int number) { return number == 5; };
   make();
   ASSERT_TRUE(untilReady(2));
   EXPECT_EQ(access->journal.size(), 5u + 6u) << "what failed is not read on";
   EXPECT_EQ(agent->state().errors, 1u);
   EXPECT_EQ(agent->state().losses, 0u);
   EXPECT_THAT(agent->state().lastError, HasSubstr("register 'CTRL': out of order"));
}

TEST_F(CoreAgentTest, ADeviceThatFailsForGoodIsNeverRelievedOfProbes) {
   fails = [](int number) { return number > 4; };
   make();
   ASSERT_TRUE(until([this] { return agent->state().errors > 20; }));
   EXPECT_EQ(agent->state().generation, 1u);
   EXPECT_FALSE(agent->state().valid);
   EXPECT_FALSE(agent->state().ready);
}

TEST_F(CoreAgentTest, ADeviceThatCannotBeOpenedIsWaitedFor) {
   int opened = 0;
   agent.emplace(loop, tables,
                 CoreAgent::Hardware{.name = "fpga",
                                     .registers = file,
                                     .descriptor =
                                        [&] {
                                           if (++opened < 3) {
                                              throw std::runtime_error("no such device");
                                           }
                                           return TarnRegFile::pciTransportDescriptorFactory(
                                              access);
                                        },
                                     .reason = {},
                                     .alive = {}},
                 settings, registry);
   ASSERT_TRUE(until([this] { return agent->state().phase == CorePhase::waiting; }));
   EXPECT_EQ(agent->state().lastError, "fpga: cannot use the device: no such device");
   EXPECT_THAT(access->journal, testing::IsEmpty());
   ASSERT_TRUE(untilReady(1));
}

TEST_F(CoreAgentTest, TheDeviceIsLostIfTheSecondReadFailsToo) {
   settings.checkInterval = std::chrono::milliseconds(1);
   make();
   ASSERT_TRUE(untilReady(1));
   const int before = accesses;
   fails = [before](int number) { return number == before + 2 || number == before + 3; };
   ASSERT_TRUE(untilReady(2));
   EXPECT_EQ(agent->state().losses, 1u);
   EXPECT_EQ(agent->state().errors, 2u);
   EXPECT_EQ(agent->state().lastError, "fpga: lost the device: register 'ID': out of order");
}

TEST_F(CoreAgentTest, OneFailedReadIsNoLoss) {
   settings.checkInterval = std::chrono::milliseconds(1);
   make();
   ASSERT_TRUE(untilReady(1));
   const int before = accesses;
   fails = [before](int number) { return number == before + 2; };
   ASSERT_TRUE(until([this, before] { return accesses > before + 5; }));
   EXPECT_EQ(agent->state().generation, 1u);
   EXPECT_EQ(agent->state().losses, 0u);
   EXPECT_EQ(agent->state().errors, 1u);
}

TEST_F(CoreAgentTest, ADeviceOfWhichEverythingReadsAllOnesIsLost) {
   settings.checkInterval = std::chrono::milliseconds(1);
   make();
   ASSERT_TRUE(untilReady(1));
   allOnesAre();
   ASSERT_TRUE(until([this] { return !agent->state().ready; }));
   EXPECT_EQ(agent->state().losses, 1u);
   EXPECT_EQ(agent->state().lastError, "fpga: lost the device: register 'ID': it reads all ones, "
                                       "and so does every other register");
   // While it is away no generation begins.
   ASSERT_TRUE(until([this] { return agent->state().phase == CorePhase::waiting; }));
   const int before = accesses;
   ASSERT_TRUE(until([this, before] { return accesses > before + 10; }));
   EXPECT_EQ(agent->state().generation, 1u);
   EXPECT_EQ(agent->state().losses, 1u);
   EXPECT_THAT(agent->state().lastError, HasSubstr("cannot use the device: register 'ID'"));
   space.wordIs(8, 5);
   ASSERT_TRUE(untilReady(2));
}

TEST_F(CoreAgentTest, ARegisterOfAllOnesAmongOthersIsNoLoss) {
   settings.checkInterval = std::chrono::milliseconds(1);
   space.wordIs(0, 0xffffffff); // the one that is looked at regularly
   space.wordIs(8, 0xffffffff);
   make();
   ASSERT_TRUE(untilReady(1));
   const int before = accesses;
   ASSERT_TRUE(until([this, before] { return accesses > before + 10; }));
   EXPECT_EQ(agent->state().generation, 1u);
   EXPECT_EQ(agent->state().losses, 0u);
   EXPECT_EQ(agent->state().errors, 0u);
   EXPECT_TRUE(agent->state().ready);
}

TEST_F(CoreAgentTest, WhoWatchesTheBusKnowsBetterThanTheRegisters) {
   settings.checkInterval = std::chrono::milliseconds(1);
   bool isOnBus = true;
   isThere = [&] { return isOnBus; };
   allOnesAre();
   make();
   ASSERT_TRUE(untilReady(1)) << "it is there, whatever it holds";
   const int before = accesses;
   ASSERT_TRUE(until([this, before] { return accesses > before + 5; }));
   EXPECT_EQ(agent->state().losses, 0u);
   isOnBus = false;
   ASSERT_TRUE(until([this] { return agent->state().losses == 1; }));
   EXPECT_EQ(agent->state().generation, 1u);
   EXPECT_THAT(agent->state().lastError,
               HasSubstr("it reads all ones, and the device is not on its bus"));
   isOnBus = true;
   ASSERT_TRUE(untilReady(2));
}

TEST_F(CoreAgentTest, TheBusIsNotAskedAboutOtherValues) {
   isThere = [] { return std::optional(false); };
   make();
   EXPECT_TRUE(untilReady(1));
}

TEST_F(CoreAgentTest, ADeviceThatGoesWhileTheShadowIsFilledNeverBecomesReady) {
   access->onAccess = [this] {
      if (++accesses == 5) { // of the sync, the second
         allOnesAre();
      }
   };
   make();
   ASSERT_TRUE(until([this] { return agent->state().phase == CorePhase::waiting; }));
   // ID was read before, but nobody relies on that.
   EXPECT_EQ(agent->state().losses, 0u);
   EXPECT_FALSE(agent->state().ready);
   EXPECT_THAT(agent->state().lastError, HasSubstr("it reads all ones"));
   space.wordIs(0, 1);
   ASSERT_TRUE(untilReady(2));
}

TEST_F(CoreAgentTest, TheOnlyRegisterIsBelieved) {
   file = Hardware::hardwareRegisterFileFactory("one");
   file->addrBlockSizeIs(4);
   registerIs("ID", 0, false);
   settings.checkInterval = std::chrono::milliseconds(1);
   allOnesAre();
   make();
   ASSERT_TRUE(untilReady(1));
   const int before = accesses;
   ASSERT_TRUE(until([this, before] { return accesses > before + 5; }));
   EXPECT_EQ(agent->state().losses, 0u);
}

TEST_F(CoreAgentTest, ABusErrorWhileIdleIsALoss) {
   settings.checkInterval = std::chrono::milliseconds(1);
   make();
   ASSERT_TRUE(untilReady(1));
   space.sizeIs(0);
   ASSERT_TRUE(until([this] { return agent->state().losses == 1; }));
   EXPECT_FALSE(agent->state().ready);
   EXPECT_FALSE(agent->state().valid);
   space.sizeIs(4096);
   ASSERT_TRUE(untilReady(2));
}

TEST_F(CoreAgentTest, ABusErrorWhileTheShadowIsFilledEndsTheGeneration) {
   access->onAccess = [this] {
      if (++accesses == 5) {
         space.sizeIs(0);
      }
   };
   make();
   ASSERT_TRUE(until([this] { return agent->state().phase == CorePhase::waiting; }));
   EXPECT_EQ(agent->state().generation, 1u);
   EXPECT_EQ(agent->state().losses, 0u) << "nobody relied on it";
   EXPECT_EQ(accesses, 5) << "what failed is not read on";
   space.sizeIs(4096);
   ASSERT_TRUE(untilReady(2));
}

TEST_F(CoreAgentTest, ABusErrorWhileItWritesIsALossAndTheWishIsWrittenOnceAfterwards) {
   using namespace TarnRegFile::Sable;
   make();
   ASSERT_TRUE(untilReady(1));
   const auto wishes = shadowRegisterConfigFactory("fpga/config");
   wishes->regMapControlIs(Platform::Tables::collectionControlFactory(
      tables, {.role = Platform::Tables::TableRole::writer}));
   wishes->regMapControl()->mount();
   const int before = accesses;
   access->onAccess = [this, before] {
      if (++accesses == before + 1) {
         space.sizeIs(0); // between the wish and its write
      }
   };
   wishes->regMapIs(CoreRegister(CoreRegisterKey(8), 1));
   ASSERT_TRUE(until([this] { return agent->state().losses == 1; }));
   EXPECT_EQ(access->journal.at(static_cast<std::size_t>(before)), "guarded write 0x8 0x1");
   wishes->regMapIs(CoreRegister(CoreRegisterKey(8), 2));
   access->journal.clear();
   space.sizeIs(4096);
   ASSERT_TRUE(untilReady(2));
   EXPECT_EQ(std::count_if(access->journal.begin(), access->journal.end(),
                           [](const auto& line) { return line.find("write") != line.npos; }),
             1);
   EXPECT_THAT(access->journal, testing::Contains("guarded write 0x8 0x2"));
   wishes->regMapControl()->unmount();
}

/// It used to end the process: the state machine goes on with the next wish, and had no transport.
TEST_F(CoreAgentTest, ALossWhileSeveralWishesOfTheBeginningAreWrittenEndsTheGenerationOnly) {
   using namespace TarnRegFile::Sable;
   const auto wishes = shadowRegisterConfigFactory("fpga/config");
   wishes->regMapControlIs(Platform::Tables::collectionControlFactory(
      tables, {.role = Platform::Tables::TableRole::writer}));
   wishes->regMapControl()->mount();
   wishes->regMapIs(CoreRegister(CoreRegisterKey(4), 1));
   wishes->regMapIs(CoreRegister(CoreRegisterKey(8), 2));
   fails = [](int number) { return number == 7; }; // the first write, behind probe and sync
   make();
   ASSERT_TRUE(untilReady(2));
   EXPECT_EQ(agent->state().losses, 0u);
   EXPECT_EQ(agent->state().errors, 1u);
   EXPECT_EQ(space.word(4), 1u);
   EXPECT_EQ(space.word(8), 2u);
   wishes->regMapControl()->unmount();
}

TEST_F(CoreAgentTest, WhoIsToEndFillsNoShadow) {
   bool isAsked = false;
   agent.emplace(
      loop, tables,
      CoreAgent::Hardware{
         .name = "fpga",
         .registers = file,
         .descriptor = [this] { return TarnRegFile::pciTransportDescriptorFactory(access); },
         .reason = {},
         .alive = {},
         .isToEnd = [&isAsked] { return isAsked = true; },
      },
      settings, registry);
   access->onAccess = [this] {
      if (++accesses == 4) {
         // Longer than it takes until it is asked; nothing waits for it.
         const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(101);
         while (std::chrono::steady_clock::now() < end) {
         }
      }
   };
   ASSERT_TRUE(until([&isAsked] { return isAsked; }));
   EXPECT_EQ(accesses, 4) << "three of the probe, and one of the sync";
   EXPECT_FALSE(agent->state().ready);
}

TEST_F(CoreAgentTest, AnEntryUnderAnothersKeyIsRemovedAndWritesNothing) {
   using namespace TarnRegFile::Sable;
   const auto put = [this](std::uint32_t key, const CoreRegister& record) {
      std::vector<std::uint8_t> bytes(record.serializeLen());
      record.serialize(bytes.data());
      std::vector<std::uint8_t> keyBytes(CoreRegisterKey::serializedLen);
      CoreRegisterKey(key).serialize(keyBytes.data());
      Platform::Tables::TableMount(tables.directory(), "fpga/config",
                                   {.role = Platform::Tables::TableRole::writer})
         .put(keyBytes, bytes);
   };
   make();
   put(8, CoreRegister(CoreRegisterKey(0x100), 7)); // which no register has
   ASSERT_TRUE(untilReady(1)) << "and not the end of the process";
   EXPECT_EQ(agent->state().lastError,
             "fpga: the entry of address 0x8 is one of address 0x100; it is removed");
   put(4, CoreRegister(CoreRegisterKey(8), 7));
   ASSERT_TRUE(until([this] {
      return agent->state().lastError ==
             "fpga: the entry of address 0x4 is one of address 0x8; it is removed";
   }));
   EXPECT_TRUE(agent->state().ready);
   EXPECT_EQ(space.word(8), 0u);
   EXPECT_EQ(space.word(4), 0xcu);
}

TEST_F(CoreAgentTest, AFloodOfForeignWishesIsRemovedAndDoesNotFillTheLog) {
   using namespace TarnRegFile::Sable;
   const auto wishes = shadowRegisterConfigFactory("fpga/config");
   wishes->regMapControlIs(Platform::Tables::collectionControlFactory(
      tables, {.role = Platform::Tables::TableRole::writer}));
   wishes->regMapControl()->mount();
   for (std::uint32_t i = 0; i < 2000; ++i) {
      wishes->regMapIs(CoreRegister(CoreRegisterKey(0x1000 + i), 1));
   }
   wishes->regMapIs(CoreRegister(CoreRegisterKey(8), 2));
   const CaptureScope trace("*=off,agent/CoreAgent=0");
   make();
   ASSERT_TRUE(untilReady(1));
   EXPECT_EQ(wishes->regMap().size(), 1u);
   EXPECT_EQ(space.word(8), 2u);
   EXPECT_THAT(trace.texts(), testing::SizeIs(testing::Lt(1000u)));
   EXPECT_THAT(trace.texts(),
               testing::Contains(HasSubstr("is configured, but no register has it")));
   wishes->regMapControl()->unmount();
}

TEST_F(CoreAgentTest, AFloodOfRequestsIsOneGenerationAtATime) {
   using namespace TarnRegFile::Sable;
   make();
   ASSERT_TRUE(untilReady(1));
   const auto request = shadowRegisterConfigFactory("fpga/request");
   request->regMapControlIs(Platform::Tables::collectionControlFactory(
      tables, {.role = Platform::Tables::TableRole::writer}));
   request->regMapControl()->mount();
   for (std::uint32_t number = 1; number <= 5000; ++number) {
      request->regMapIs(CoreRegister(CoreRegisterKey(0), number));
   }
   ASSERT_TRUE(
      until([this] { return agent->state().lastRequest == 5000 && agent->state().ready; }));
   EXPECT_LT(agent->state().generation, 10u);
   request->regMapControl()->unmount();
}

TEST_F(CoreAgentTest, ANewGenerationIsBegunOnRequestAlsoWhileAProbeRuns) {
   make();
   ASSERT_TRUE(untilReady(1));
   agent->renew();
   EXPECT_FALSE(agent->state().ready);
   EXPECT_FALSE(agent->state().valid);
   ASSERT_TRUE(until([this] { return agent->state().phase == CorePhase::probing; }));
   agent->renew();
   ASSERT_TRUE(untilReady(2));
}

TEST_F(CoreAgentTest, HasOneAgentAndIsFreeAfterwards) {
   make();
   const auto second = [this] {
      const CoreAgent other(
         loop, tables,
         CoreAgent::Hardware{
            .name = "fpga", .registers = file, .descriptor = {}, .reason = {}, .alive = {}},
         settings, registry);
   };
   EXPECT_THROW(second(), OwnedError);
   agent.reset();
   make();
   EXPECT_TRUE(untilReady(1));
}

TEST_F(CoreAgentTest, AnOperationThatIsTakenBackEndsBeforeItsNextWrite) {
   using namespace TarnRegFile::Sable;
   const auto mounted = [this](const auto& entity) {
      entity->opControlIs(Platform::Tables::collectionControlFactory(
         tables, {.role = Platform::Tables::TableRole::writer}));
      entity->opControl()->mount();
      return entity;
   };
   const auto ops = mounted(orderedRegisterConfigFactory("fpga/ops"));
   const auto outcomes = mounted(orderedRegisterStatusFactory("fpga/ops-status"));
   make();
   ASSERT_TRUE(untilReady(1));
   OrderedRegisterOp op(UniqueId(7));
   op.opSizeIs(5);
   for (std::uint32_t i = 0; i < 5; ++i) {
      op.regKeyIs(OpIndex(i), CoreRegisterKey(8));
      op.regValueIs(OpIndex(i), i + 1);
   }
   const int before = accesses;
   access->onAccess = [&] {
      if (++accesses == before + 2) {
         ops->opDel(UniqueId(7));
      }
   };
   ops->opIs(op);
   ASSERT_TRUE(until([this] { return !agent->state().lastError.empty(); }));
   EXPECT_EQ(agent->state().lastError, "operation 0x0000000000000007 stopped after 2 of 5 writes: "
                                       "it was taken back");
   EXPECT_EQ(outcomes->op().get(UniqueId(7))->regKeyCount(), 2u);
   EXPECT_EQ(accesses, before + 2) << "nothing more is written";
   EXPECT_EQ(space.word(8), 2u);
   ops->opControl()->unmount();
   outcomes->opControl()->unmount();
}

TEST_F(CoreAgentTest, WithoutRegistersThereIsNoCore) {
   file = Hardware::hardwareRegisterFileFactory("empty");
   EXPECT_THROW(make(), std::runtime_error);
   EXPECT_FALSE(directory.has("tables"));
}

} // namespace
} // namespace Agent
