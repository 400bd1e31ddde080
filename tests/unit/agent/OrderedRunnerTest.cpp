// The runner of ordered operations by itself, over a device that is made of handlers.

#include "agent/OrderedRunner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/tables/CollectionControl.h"
#include "platform/tables/TableMount.h"
#include "platform/tables/TableService.h"
#include "tests/support/TempDir.h"

namespace Agent {
namespace {

using namespace TarnRegFile::Sable;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr auto patience = std::chrono::seconds(60);

class OrderedRunnerTest : public testing::Test {
protected:
   ~OrderedRunnerTest() override {
      runner.reset();
      for (const auto& control : controls) {
         control->unmount();
      }
   }

   template <typename Entity>
   Entity mounted(const Entity& entity) {
      controls.push_back(Platform::Tables::collectionControlFactory(
         service, {.role = Platform::Tables::TableRole::writer}));
      entity->opControlIs(controls.back());
      controls.back()->mount();
      return entity;
   }

   void make() {
      runner.emplace(loop, ops, outcomes, 10, counters,
                     OrderedRunner::Handlers{
                        .canStart = [this] { return isReady; },
                        .write = [this](std::uint32_t address,
                                        std::uint32_t value) -> std::optional<std::string> {
                           writes.emplace_back(address, value);
                           const bool isSuccess = static_cast<int>(writes.size()) != failing;
                           loop.post([this, isSuccess] {
                              runner->result(isSuccess, isSuccess ? "" : "out of order");
                           });
                           return std::nullopt;
                        },
                        .written =
                           [this](std::uint32_t address, std::uint32_t) {
                              if (onWritten) {
                                 onWritten(address);
                              }
                           },
                        .stopped = [this](const std::string& text) { stopped.push_back(text); },
                        .idle = [this] { ++idle; },
                        .troubled = [this](const std::string& text) { troubles.push_back(text); }});
   }

   static OrderedRegisterOp operation(std::uint64_t id, std::uint32_t size) {
      OrderedRegisterOp op{UniqueId(id)};
      op.opSizeIs(static_cast<std::uint8_t>(size));
      for (std::uint32_t i = 0; i < size; ++i) {
         op.regKeyIs(OpIndex(i), CoreRegisterKey(4 * i));
         op.regValueIs(OpIndex(i), i + 1);
      }
      return op;
   }

   Platform::EventLoop loop;
   OrderedRunner::Counters counters;
   std::vector<std::string> troubles;
   std::vector<std::string> stopped;
   int failing = 0; // the number of the write that fails
   TestSupport::TempDir directory;
   Platform::Tables::TableService service{
      loop, Platform::Tables::TableDirectory(directory.path("tables"))};
   std::vector<Platform::Ptr<Platform::Tables::CollectionControl>> controls;
   Platform::Ptr<OrderedRegisterConfig> ops = mounted(orderedRegisterConfigFactory("ops"));
   Platform::Ptr<OrderedRegisterStatus> outcomes =
      mounted(orderedRegisterStatusFactory("ops-status"));
   std::vector<std::pair<std::uint32_t, std::uint32_t>> writes;
   std::function<void(std::uint32_t)> onWritten;
   bool isReady = true;
   int idle = 0;
   std::optional<OrderedRunner> runner;
};

TEST_F(OrderedRunnerTest, WhatWaitedForAnOperationIsToldWhenItIsTakenBackBeforeItBegan) {
   make();
   isReady = false;
   ops->opIs(operation(7, 2));
   loop.poll();
   ASSERT_TRUE(runner->wantsToStart());
   ops->opDel(UniqueId(7));
   isReady = true;
   runner->go();
   EXPECT_TRUE(loop.runUntil([this] { return idle == 1; }, patience));
   EXPECT_FALSE(runner->wantsToStart());
   EXPECT_THAT(writes, IsEmpty());
   EXPECT_FALSE(outcomes->op().has(UniqueId(7)));
}

TEST_F(OrderedRunnerTest, WhatIsTakenBackWhileNothingCanStartLeavesNothingBehind) {
   make();
   isReady = false;
   for (std::uint64_t id = 1; id <= 20; ++id) {
      ops->opIs(operation(id, 1));
   }
   EXPECT_TRUE(loop.runUntil([this] { return runner->wantsToStart(); }, patience));
   for (std::uint64_t id = 1; id <= 20; ++id) {
      ops->opDel(UniqueId(id));
   }
   EXPECT_TRUE(loop.runUntil([this] { return !runner->wantsToStart(); }, patience));
   EXPECT_GE(idle, 1) << "what waited for them waits no more";
   isReady = true;
   ops->opIs(operation(21, 1));
   EXPECT_TRUE(loop.runUntil([this] { return outcomes->op().has(UniqueId(21)); }, patience));
   EXPECT_EQ(outcomes->op().size(), 1u);
   EXPECT_EQ(counters.operations.value(), 1u);
}

TEST_F(OrderedRunnerTest, AnOutcomeTellsOfAWriteOnlyAfterWhoReplacesTheWishHasBeenTold) {
   make();
   std::vector<std::uint32_t> claimed;
   onWritten = [&](std::uint32_t) {
      claimed.push_back(outcomes->op().get(UniqueId(7)).value().regKeyCount());
   };
   ops->opIs(operation(7, 3));
   EXPECT_TRUE(loop.runUntil([this] { return idle == 1; }, patience));
   EXPECT_THAT(claimed, ElementsAre(0, 1, 2));
   EXPECT_THAT(writes, ElementsAre(Pair(0, 1), Pair(4, 2), Pair(8, 3)));
   EXPECT_EQ(outcomes->op().get(UniqueId(7)), operation(7, 3));
   EXPECT_FALSE(ops->op().has(UniqueId(7)));
}

TEST_F(OrderedRunnerTest, OperationsRunInTheOrderInWhichTheyAreNoticedAndEachOnce) {
   ops->opIs(operation(9, 1));
   ops->opIs(operation(3, 1));
   make(); // what is there already goes by its ids
   std::vector<std::uint64_t> begun;
   const auto order = Platform::subscribe(*outcomes, OrderedRegisterStatus::opAttr,
                                          [&](const Platform::Change& change) {
                                             const auto id = change.key.as<UniqueId>().value();
                                             if (begun.empty() || begun.back() != id) {
                                                begun.push_back(id);
                                             }
                                          });
   ops->opIs(operation(5, 1));
   ops->opIs(operation(1, 1));
   ops->opIs(operation(5, 1)); // again, while it waits
   EXPECT_TRUE(loop.runUntil([this] { return idle == 4; }, patience));
   EXPECT_THAT(begun, ElementsAre(3, 9, 5, 1));
   EXPECT_EQ(writes.size(), 4u);
   EXPECT_EQ(ops->op().size(), 0u);
   EXPECT_EQ(counters.operations.value(), 4u);
   EXPECT_EQ(counters.writes.value(), 4u);
   EXPECT_EQ(counters.incomplete.value(), 0u);
   // Asked for again when it has ended: removed, and not run.
   ops->opIs(operation(5, 1));
   EXPECT_TRUE(loop.runUntil([this] { return ops->op().size() == 0; }, patience));
   loop.poll();
   EXPECT_EQ(writes.size(), 4u);
}

TEST_F(OrderedRunnerTest, WhatADeadAgentHadBegunIsNeverBegunAgain) {
   OrderedRegisterOp claim(UniqueId(7));
   claim.opSizeIs(3);
   outcomes->opIs(claim);
   ops->opIs(operation(7, 3));
   ops->opIs(operation(8, 1));
   make();
   EXPECT_TRUE(loop.runUntil([this] { return idle == 1; }, patience));
   EXPECT_THAT(writes, ElementsAre(Pair(0, 1))) << "of the other one";
   EXPECT_EQ(ops->op().size(), 0u);
   EXPECT_EQ(outcomes->op().get(UniqueId(7)), claim) << "as far as is known";
}

TEST_F(OrderedRunnerTest, AnOperationStopsAtItsFirstFailure) {
   make();
   failing = 2;
   ops->opIs(operation(7, 3));
   EXPECT_TRUE(loop.runUntil([this] { return idle == 1; }, patience));
   EXPECT_EQ(writes.size(), 2u);
   EXPECT_EQ(outcomes->op().get(UniqueId(7))->opSize(), 3u);
   EXPECT_EQ(outcomes->op().get(UniqueId(7))->regKeyCount(), 1u);
   EXPECT_THAT(stopped, ElementsAre("operation 0x0000000000000007 stopped after 1 of 3 writes: "
                                    "out of order"));
   EXPECT_EQ(counters.incomplete.value(), 1u);
}

TEST_F(OrderedRunnerTest, ARecordThatContradictsItselfIsNoOperation) {
   make();
   OrderedRegisterOp tooMuch = operation(1, 2);
   tooMuch.opSizeIs(255);
   OrderedRegisterOp tooLittle = operation(2, 2);
   tooLittle.opSizeIs(1);
   OrderedRegisterOp nothing(UniqueId(3));
   nothing.opSizeIs(0); // which is one, of no writes
   OrderedRegisterOp noValues(UniqueId(4));
   noValues.opSizeIs(1);
   noValues.regKeyIs(OpIndex(0), CoreRegisterKey(4));
   for (const auto& op : {tooMuch, tooLittle, nothing, noValues}) {
      ops->opIs(op);
   }
   EXPECT_TRUE(loop.runUntil([this] { return idle == 4; }, patience));
   EXPECT_THAT(writes, IsEmpty());
   EXPECT_EQ(ops->op().size(), 0u);
   EXPECT_THAT(
      stopped,
      ElementsAre("operation 0x0000000000000001 stopped after 0 of 255 writes: it says 255 "
                  "writes, and has 2 registers and 2 values",
                  "operation 0x0000000000000002 stopped after 0 of 1 writes: it says 1 "
                  "writes, and has 2 registers and 2 values",
                  "operation 0x0000000000000004 stopped after 0 of 1 writes: it says 1 "
                  "writes, and has 1 registers and 0 values"));
}

TEST_F(OrderedRunnerTest, ARecordUnderAnothersKeyIsRemoved) {
   make();
   const OrderedRegisterOp op = operation(7, 1);
   std::vector<std::uint8_t> record(op.serializeLen());
   op.serialize(record.data());
   std::vector<std::uint8_t> key(8);
   UniqueId(6).serialize(key.data());
   Platform::Tables::TableMount(service.directory(), "ops",
                                {.role = Platform::Tables::TableRole::writer})
      .put(key, record);
   EXPECT_TRUE(loop.runUntil([this] { return ops->op().size() == 0; }, patience));
   loop.poll();
   EXPECT_THAT(writes, IsEmpty());
   EXPECT_EQ(outcomes->op().size(), 0u);
   EXPECT_THAT(troubles, IsEmpty());
}

TEST_F(OrderedRunnerTest, OnlyTheLatestOutcomesAreKept) {
   make();
   for (std::uint64_t id = 1; id <= 25; ++id) {
      ops->opIs(operation(id, 1));
   }
   EXPECT_TRUE(loop.runUntil([this] { return idle == 25; }, patience));
   EXPECT_EQ(outcomes->op().size(), 10u);
   EXPECT_FALSE(outcomes->op().has(UniqueId(15)));
   EXPECT_TRUE(outcomes->op().has(UniqueId(16)));
   EXPECT_EQ(writes.size(), 25u);
}

TEST_F(OrderedRunnerTest, DamageIsToldAndNothingIsWrittenIntoIt) {
   make();
   const std::string file = directory.path("tables/ops-status.tbl");
   ASSERT_EQ(::truncate(file.c_str(), 4096), 0);
   ops->opIs(operation(7, 1));
   EXPECT_TRUE(loop.runUntil([this] { return !troubles.empty(); }, patience));
   EXPECT_THAT(troubles.front(), testing::HasSubstr("shared table 'ops-status' is corrupted"));
   EXPECT_THAT(writes, IsEmpty()) << "what cannot be claimed is not begun";
}

} // namespace
} // namespace Agent
