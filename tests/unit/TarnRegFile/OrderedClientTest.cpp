#include "TarnRegFile/OrderedClient.h"

#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <memory>
#include <utility>

#include "platform/entity/Errors.h"
#include "TarnRegFile/ShadowError.h"
#include "tests/support/CutOffTable.h"
#include "tests/support/OwnerStandIn.h"
#include "tests/support/Registers.h"
#include "tests/unit/TarnRegFile/RegisterTables.h"

using namespace RegisterTables;
using Kind = ShadowError::Kind;
using TarnRegFile::Sable::CorePhase;
using TestSupport::OwnerStandIn;

namespace {

constexpr std::chrono::seconds forever{60};
constexpr std::chrono::milliseconds aMoment{20};

Ptr<Hardware::HardwareRegisterFile> registersNew() {
   const auto file = Hardware::hardwareRegisterFileFactory("fpga");
   TestSupport::registerIs(*file, "ID", 0, false);
   TestSupport::registerIs(*file, "CTRL", 4);
   TestSupport::registerIs(*file, "SCRATCH", 8);
   return file;
}

CoreRegister written(std::uint32_t address, std::uint32_t value) {
   return CoreRegister(CoreRegisterKey(address), value);
}

/// Has both tables, as the owner does; each step of an operation is the test's to make.
struct Owner {
   explicit Owner(Side& side)
      : standIn(side.service, "fpga"), ops(side, "fpga/ops"), status(side, "fpga/ops-status") {}

   /// Tells that `count` writes of an operation were made; 0 for that it has begun.
   void tell(UniqueId id, std::size_t count) {
      const OrderedRegisterOp asked = *ops.table().get(id);
      OrderedRegisterOp op(id);
      op.opSizeIs(asked.opSize());
      for (std::size_t i = 0; i < count; ++i) {
         op.regKeyIs(OpIndex(i), asked.regKey(OpIndex(i)));
         op.regValueIs(OpIndex(i), asked.regValue(OpIndex(i)));
      }
      status.entity->opIs(op);
   }
   void end(UniqueId id, const std::string& error = {}) {
      standIn.state.lastError = error;
      standIn.show();
      ops.entity->opDel(id);
   }

   OwnerStandIn standIn;
   Mounted<OrderedConfig> ops;
   Mounted<OrderedStatus> status;
};

class OrderedClientTest : public testing::Test {
protected:
   std::unique_ptr<OrderedClient> clientNew() {
      return std::make_unique<OrderedClient>(side.loop, side.service, "fpga", registersNew());
   }
   bool has(const std::string& file) const {
      return std::filesystem::exists(directory() + "/" + file);
   }
   std::string directory() const { return temp.path("tables"); }

   /// What `action` throws: its kind and text.
   static std::pair<Kind, std::string> errorOf(const std::function<void()>& action) {
      try {
         action();
      } catch (const ShadowError& error) {
         return {error.kind(), error.what()};
      }
      ADD_FAILURE() << "nothing was thrown";
      return {};
   }

   TestSupport::TempDir temp{"/dev/shm"};
   Side side{directory()};
   std::unique_ptr<OrderedClient> client = clientNew();
};

} // namespace

TEST_F(OrderedClientTest, SubmitsWritesInTheirOrderUnderAnIdOfTheirOwn) {
   Owner owner(side);
   const UniqueId first = client->submit({{"CTRL", 1}, {"SCRATCH", 2}, {"CTRL", 3}});
   const UniqueId second = client->submit({{"SCRATCH", 4}});
   EXPECT_NE(first, second);
   const auto op = owner.ops.table().get(first);
   ASSERT_TRUE(op);
   EXPECT_EQ(op->opSize(), 3u);
   EXPECT_TRUE(std::ranges::equal(
      op->regKeys(), std::vector{CoreRegisterKey(4), CoreRegisterKey(8), CoreRegisterKey(4)}));
   EXPECT_TRUE(std::ranges::equal(op->regValues(), std::vector<std::uint32_t>{1, 2, 3}));
   EXPECT_EQ(owner.ops.table().size(), 2u);
   EXPECT_EQ(owner.status.table().size(), 0u);
}

TEST_F(OrderedClientTest, WhatIsWrongIsRefusedBeforeAnythingIsSubmitted) {
   EXPECT_EQ(errorOf([&] {
                client->submit({{"CTRL", 1}, {"NOPE", 2}});
             }),
             std::pair(Kind::unknownRegister, std::string("core 'fpga' has no register 'NOPE'")));
   EXPECT_EQ(
      errorOf([&] {
         client->submit({{"CTRL", 1}, {"ID", 2}});
      }),
      std::pair(Kind::notPermitted, std::string("register 'ID' of core 'fpga' is not writable")));
   const std::vector<OrderedClient::Write> many(129, {"CTRL", 1});
   for (const auto& writes : {std::span(many), std::span(many).first(0)}) {
      try {
         client->submit(writes);
         ADD_FAILURE() << "not refused";
      } catch (const Platform::RangeError& error) {
         EXPECT_EQ(error.what(), "an operation of core 'fpga' has 1 to 128 writes, not " +
                                    std::to_string(writes.size()));
      }
   }
   EXPECT_FALSE(has("fpga%2Fops.tbl"));
}

TEST_F(OrderedClientTest, AsManyWritesAsARecordHoldsAreTaken) {
   const std::vector<OrderedClient::Write> many(OrderedClient::mostWrites, {"CTRL", 1});
   const OrderedOutcome outcome = client->outcome(client->submit(many));
   EXPECT_EQ(outcome.size, 128u);
   EXPECT_EQ(outcome.stage, OrderedStage::waiting);
}

TEST_F(OrderedClientTest, TellsEachStageOfAnOperation) {
   Owner owner(side);
   const UniqueId id = client->submit({{"CTRL", 1}, {"SCRATCH", 2}});
   EXPECT_EQ(client->outcome(id), (OrderedOutcome{OrderedStage::waiting, 2, {}, {}}));
   owner.tell(id, 0);
   EXPECT_EQ(client->outcome(id), (OrderedOutcome{OrderedStage::running, 2, {}, {}}));
   owner.tell(id, 1);
   EXPECT_EQ(client->outcome(id), (OrderedOutcome{OrderedStage::running, 2, {written(4, 1)}, {}}));
   owner.tell(id, 2);
   EXPECT_EQ(client->outcome(id).stage, OrderedStage::running) << "not before its owner says so";
   owner.end(id, "of something else");
   EXPECT_EQ(client->outcome(id),
             (OrderedOutcome{OrderedStage::complete, 2, {written(4, 1), written(8, 2)}, {}}));
   EXPECT_TRUE(client->outcome(id).isComplete());
}

TEST_F(OrderedClientTest, OneThatStoppedHasTheCoresLastError) {
   Owner owner(side);
   const UniqueId id = client->submit({{"CTRL", 1}, {"SCRATCH", 2}});
   owner.tell(id, 1);
   owner.end(id, "operation stopped after 1 of 2 writes: no");
   const OrderedOutcome outcome = client->outcome(id);
   EXPECT_EQ(
      outcome,
      (OrderedOutcome{
         OrderedStage::stopped, 2, {written(4, 1)}, "operation stopped after 1 of 2 writes: no"}));
   EXPECT_TRUE(outcome.hasEnded());
   EXPECT_FALSE(outcome.isComplete());
}

TEST_F(OrderedClientTest, AnOutcomeThatIsNotKeptIsUnknownAndHasEnded) {
   Owner owner(side);
   const UniqueId id = client->submit({{"CTRL", 1}});
   owner.tell(id, 1);
   owner.end(id);
   owner.status.entity->opDel(id);
   EXPECT_EQ(client->outcome(id), OrderedOutcome());
   EXPECT_EQ(client->wait(id, forever).stage, OrderedStage::unknown);
   EXPECT_EQ(client->outcome(UniqueId(99)).stage, OrderedStage::unknown);
}

TEST_F(OrderedClientTest, WaitsForTheEnd) {
   Owner owner(side);
   const UniqueId id = client->submit({{"CTRL", 1}, {"SCRATCH", 2}});
   side.loop.post([&] {
      owner.tell(id, 1);
      side.loop.post([&] {
         owner.tell(id, 2);
         side.loop.post([&] { owner.end(id); });
      });
   });
   EXPECT_TRUE(client->wait(id, forever).isComplete());
   EXPECT_EQ(client->wait(id, std::chrono::seconds(0)).writes.size(), 2u);
}

TEST_F(OrderedClientTest, AnOperationWithoutAnOwnerStandsAndIsCarriedOutWhenOneComes) {
   const UniqueId id = client->submit({{"CTRL", 1}});
   EXPECT_EQ(errorOf([&] { client->wait(id, aMoment); }),
             std::pair(Kind::timedOut, "operation " + id.stringRep() +
                                          " of core 'fpga' has not begun in time: no owner of it "
                                          "has shown itself"));
   Owner owner(side);
   EXPECT_EQ(client->outcome(id).stage, OrderedStage::waiting);
   owner.tell(id, 1);
   owner.end(id);
   EXPECT_TRUE(client->wait(id, forever).isComplete());
}

TEST_F(OrderedClientTest, OneWhoseOwnerDiedOverItTimesOutAndEndsWithTheNextOwner) {
   Owner owner(side);
   const UniqueId id = client->submit({{"CTRL", 1}, {"SCRATCH", 2}});
   owner.tell(id, 1);
   owner.standIn.die();
   EXPECT_EQ(errorOf([&] { client->wait(id, aMoment); }),
             std::pair(Kind::timedOut, "operation " + id.stringRep() +
                                          " of core 'fpga' has not ended in time, 1 of 2 writes "
                                          "are known to be made: its owner does not run any more"));
   owner.standIn.live();
   owner.end(id); // which does not go on with it
   EXPECT_EQ(client->wait(id, forever).stage, OrderedStage::stopped);
   EXPECT_EQ(client->outcome(id).writes.size(), 1u);
}

TEST_F(OrderedClientTest, AnyProcessMayAskForAnOutcome) {
   Owner owner(side);
   const UniqueId id = client->submit({{"CTRL", 1}});
   owner.tell(id, 1);
   owner.end(id);
   EXPECT_TRUE(inAnotherProcess([&] {
      Side own(directory());
      const OrderedClient other(own.loop, own.service, "fpga", registersNew());
      EXPECT_TRUE(other.wait(id, forever).isComplete());
   }));
}

TEST_F(OrderedClientTest, WhatAClientSubmittedThatWasKilledStands) {
   Owner owner(side);
   std::fflush(nullptr);
   const pid_t pid = ::fork();
   if (pid == 0) {
      Side own(directory());
      OrderedClient other(own.loop, own.service, "fpga", registersNew());
      other.submit({{"CTRL", 1}});
      ::raise(SIGKILL);
   }
   int status = 0;
   ASSERT_EQ(::waitpid(pid, &status, 0), pid);
   EXPECT_TRUE(WIFSIGNALED(status));
   const auto keys = owner.ops.table().keys();
   ASSERT_EQ(keys.size(), 1u);
   EXPECT_EQ(client->outcome(keys[0]).stage, OrderedStage::waiting);
   // Another one's id is another one's.
   EXPECT_NE(client->submit({{"CTRL", 1}}), keys[0]);
}

TEST_F(OrderedClientTest, OneThatWaitsIsTakenBackOnce) {
   Owner owner(side);
   const UniqueId id = client->submit({{"CTRL", 1}});
   const UniqueId other = client->submit({{"CTRL", 2}});
   EXPECT_TRUE(client->takeBack(id));
   EXPECT_FALSE(client->takeBack(id));
   EXPECT_EQ(client->outcome(id).stage, OrderedStage::unknown);
   EXPECT_EQ(client->outcome(other).stage, OrderedStage::waiting);
}

TEST_F(OrderedClientTest, OneThatHasBegunIsNotTakenBack) {
   Owner owner(side);
   const UniqueId id = client->submit({{"CTRL", 1}});
   owner.tell(id, 0);
   EXPECT_FALSE(client->takeBack(id));
   EXPECT_TRUE(owner.ops.table().has(id)) << "it goes on";
   owner.tell(id, 1);
   owner.end(id);
   EXPECT_FALSE(client->takeBack(id));
   EXPECT_TRUE(client->outcome(id).isComplete());
}

TEST_F(OrderedClientTest, TakingBackWhatThereIsNotMakesNoTable) {
   EXPECT_FALSE(client->takeBack(UniqueId(1)));
   EXPECT_EQ(client->outcome(UniqueId(1)).stage, OrderedStage::unknown);
   EXPECT_FALSE(has(""));
}

TEST_F(OrderedClientTest, TheEndOfTheClientEndsItsWaitInTime) {
   const UniqueId id = client->submit({{"CTRL", 1}});
   side.loop.post([&] { client.reset(); });
   const OrderedClient& waiting = *client;
   EXPECT_EQ(errorOf([&] { waiting.wait(id, aMoment); }).first, Kind::timedOut);
   EXPECT_EQ(client, nullptr);
}

TEST_F(OrderedClientTest, AFullTableRefusesTheNextOperation) {
   Platform::Tables::TableShape shape = Platform::Tables::Table<OrderedRegisterOp>::tableShape();
   shape.maxRecords = 4;
   const Platform::Tables::TableMount small(
      side.service.directory(), "fpga/ops",
      {.role = TableRole::writer, .shape = shape, .create = true});
   for (int i = 0; i < 4; ++i) {
      client->submit({{"CTRL", 1}});
   }
   try {
      client->submit({{"CTRL", 1}});
      ADD_FAILURE() << "not refused";
   } catch (const std::system_error& error) {
      EXPECT_EQ(error.code(), std::errc::no_buffer_space) << error.what();
   }
   EXPECT_EQ(small.count(), 4u);
}

TEST_F(OrderedClientTest, ADamagedTableIsSaidToBe) {
   { Owner owner(side); }
   ASSERT_EQ(::truncate((directory() + "/fpga%2Fops.tbl").c_str(), 100), 0);
   EXPECT_EQ(errorOf([&] { client->submit({{"CTRL", 1}}); }).first, Kind::damaged);
   EXPECT_EQ(errorOf([&] { client->outcome(UniqueId(1)); }).first, Kind::damaged);
   EXPECT_NE(client->damage(), "");
}

TEST_F(OrderedClientTest, OperationsGoOnInTheTableThatReplacedADamagedOne) {
   using Ops = Mounted<OrderedConfig>;
   auto ops = std::make_unique<Ops>(side, "fpga/ops");
   client->submit({{"CTRL", 1}});
   TestSupport::cutOffTable(side.service.directory(), "fpga/ops");
   ops = std::make_unique<Ops>(side, "fpga/ops");
   EXPECT_EQ(errorOf([&] { client->submit({{"CTRL", 2}}); }).first, Kind::damaged);
   EXPECT_EQ(ops->table().size(), 0u);
   const UniqueId id = client->submit({{"CTRL", 3}});
   EXPECT_TRUE(ops->table().has(id));
   EXPECT_EQ(client->outcome(id).stage, OrderedStage::waiting);
   EXPECT_EQ(client->damage(), "");
}

TEST_F(OrderedClientTest, WhoMayOnlyReadSeesOutcomesAndSubmitsNothing) {
   if (::geteuid() != 0) {
      GTEST_SKIP() << "needs another user";
   }
   Owner owner(side);
   const UniqueId id = client->submit({{"CTRL", 1}});
   ASSERT_EQ(::chmod(temp.path().c_str(), 0755), 0);
   ASSERT_EQ(::chmod(directory().c_str(), 0755), 0);
   for (const auto& file : std::filesystem::directory_iterator(directory())) {
      ASSERT_EQ(::chmod(file.path().c_str(), 0644), 0);
   }
   EXPECT_TRUE(inAnotherProcess([&] {
      ASSERT_EQ(::setgid(65534), 0);
      ASSERT_EQ(::setuid(65534), 0);
      Side own(directory());
      OrderedClient other(own.loop, own.service, "fpga", registersNew());
      EXPECT_EQ(other.outcome(id).stage, OrderedStage::waiting);
      EXPECT_EQ(errorOf([&] { other.submit({{"CTRL", 1}}); }).first, Kind::notPermitted);
      EXPECT_EQ(errorOf([&] { other.takeBack(id); }).first, Kind::notPermitted);
      EXPECT_EQ(other.outcome(id).stage, OrderedStage::waiting);
   }));
   EXPECT_EQ(owner.ops.table().size(), 1u);
}
