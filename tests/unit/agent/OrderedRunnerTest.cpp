// The runner of ordered operations by itself, over a device that is made of handlers.

#include "agent/OrderedRunner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/tables/CollectionControl.h"
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
                           loop.post([this] { runner->result(true, ""); });
                           return std::nullopt;
                        },
                        .written =
                           [this](std::uint32_t address, std::uint32_t) {
                              if (onWritten) {
                                 onWritten(address);
                              }
                           },
                        .stopped = [](const std::string&) {},
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

} // namespace
} // namespace Agent
