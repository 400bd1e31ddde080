// What clients do, and what becomes of the tables and of the device, while the core's owner is in
// the middle of something.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/tables/CollectionControl.h"
#include "platform/trace/CaptureScope.h"
#include "platform/trace/Sink.h"
#include "platform/trace/Trace.h"
#include "TarnRegFile/CoreMonitor.h"
#include "tests/unit/agent/CoreAgentFixture.h"

namespace Agent {
namespace {

using namespace TarnRegFile::Sable;
using Platform::Trace::CaptureScope;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

/// Spends time on the loop's thread, as a slow access does.
void spend(std::chrono::milliseconds time) {
   const auto end = std::chrono::steady_clock::now() + time;
   while (std::chrono::steady_clock::now() < end) {
   }
}

/// Does something once when a record whose text contains `text` is traced, as long as it lives.
class WhenTraced {
public:
   WhenTraced(std::string text, std::function<void()> work)
      : _before(Platform::Trace::sinkIs(std::make_shared<Trap>(std::move(text), std::move(work)))) {
   }
   ~WhenTraced() { Platform::Trace::sinkIs(_before); }
   WhenTraced(const WhenTraced&) = delete;
   WhenTraced& operator=(const WhenTraced&) = delete;

private:
   class Trap : public Platform::Trace::Sink {
   public:
      Trap(std::string text, std::function<void()> work)
         : _text(std::move(text)), _work(std::move(work)) {}
      void write(const Platform::Trace::Record& record) override {
         if (_work && record.text.find(_text) != record.text.npos) {
            std::exchange(_work, nullptr)();
         }
      }

   private:
      const std::string _text;
      std::function<void()> _work;
   };

   std::shared_ptr<Platform::Trace::Sink> _before;
};

/// As long as it lives, no table can be made: its file would be too large.
class NoNewTables {
public:
   NoNewTables() {
      ::getrlimit(RLIMIT_FSIZE, &_before);
      rlimit little = _before;
      little.rlim_cur = 4096;
      ::setrlimit(RLIMIT_FSIZE, &little);
   }
   ~NoNewTables() {
      ::setrlimit(RLIMIT_FSIZE, &_before);
      std::signal(SIGXFSZ, _handler);
   }
   NoNewTables(const NoNewTables&) = delete;
   NoNewTables& operator=(const NoNewTables&) = delete;

private:
   void (*_handler)(int) = std::signal(SIGXFSZ, SIG_IGN);
   rlimit _before{};
};

/// What another process does that was stopped while it made a table.
class DirectoryHeld {
public:
   explicit DirectoryHeld(const std::string& file) : _fd(::open(file.c_str(), O_RDWR | O_CLOEXEC)) {
      struct flock lock = {};
      lock.l_type = F_WRLCK;
      lock.l_whence = SEEK_SET;
      EXPECT_EQ(::fcntl(_fd, F_OFD_SETLK, &lock), 0);
   }
   ~DirectoryHeld() { ::close(_fd); }
   DirectoryHeld(const DirectoryHeld&) = delete;
   DirectoryHeld& operator=(const DirectoryHeld&) = delete;

private:
   const int _fd;
};

class CoreAgentInterleavingTest : public CoreAgentFixture {
protected:
   ~CoreAgentInterleavingTest() override {
      for (const auto& control : controls) {
         control->unmount();
      }
   }

   Platform::Ptr<Platform::Tables::CollectionControl> controlNew() {
      controls.push_back(Platform::Tables::collectionControlFactory(
         tables, {.role = Platform::Tables::TableRole::writer}));
      return controls.back();
   }

   /// A client's tables.
   Platform::Ptr<ShadowRegisterConfig> wishesNew() {
      auto wishes = shadowRegisterConfigFactory("fpga/config");
      wishes->regMapControlIs(controlNew());
      controls.back()->mount();
      return wishes;
   }
   Platform::Ptr<OrderedRegisterConfig> opsNew() {
      auto ops = orderedRegisterConfigFactory("fpga/ops");
      ops->opControlIs(controlNew());
      controls.back()->mount();
      return ops;
   }
   Platform::Ptr<OrderedRegisterStatus> outcomesNew() {
      auto outcomes = orderedRegisterStatusFactory("fpga/ops-status");
      outcomes->opControlIs(controlNew());
      controls.back()->mount();
      return outcomes;
   }

   static CoreRegister wish(std::uint32_t address, std::uint32_t value) {
      return CoreRegister(CoreRegisterKey(address), value);
   }

   /// Writes CTRL twice, and SCRATCH last.
   OrderedRegisterOp operation() const {
      OrderedRegisterOp op(id);
      op.opSizeIs(3);
      const std::vector<CoreRegister> writes = {wish(4, 0x11), wish(4, 0x22), wish(8, 0x33)};
      for (std::size_t i = 0; i < writes.size(); ++i) {
         const OpIndex index(static_cast<std::uint8_t>(i));
         op.regKeyIs(index, writes[i].key());
         op.regValueIs(index, writes[i].value());
      }
      return op;
   }

   /// Has each access take longer than a turn of the operations, so that the loop gets its turn
   /// between two writes, and runs until the first of them has been made.
   bool untilFirstWriteOf(OrderedRegisterConfig& ops) {
      access->journal.clear();
      access->onAccess = [] { spend(std::chrono::milliseconds(12)); };
      ops.opIs(operation());
      return until([this] { return !access->journal.empty(); });
   }

   void damage(const std::string& table) const {
      EXPECT_EQ(::truncate(directory.path("tables/fpga%2F" + table + ".tbl").c_str(), 4096), 0);
   }

   std::vector<std::string> written() const {
      std::vector<std::string> lines;
      std::copy_if(access->journal.begin(), access->journal.end(), std::back_inserter(lines),
                   [](const auto& line) { return line.find("write") != line.npos; });
      return lines;
   }

   const UniqueId id{7};
   std::vector<Platform::Ptr<Platform::Tables::CollectionControl>> controls;
};

TEST_F(CoreAgentInterleavingTest, ForeignWishesMadeWhileWishesAreWrittenEndNothing) {
   const auto wishes = wishesNew();
   wishes->regMapIs(wish(4, 1));
   wishes->regMapIs(wish(8, 2));
   access->onAccess = [&] {
      if (++accesses == 7) { // the first write, behind probe and sync
         for (std::uint32_t i = 0; i < 64; ++i) {
            wishes->regMapIs(wish(0x1000 + 4 * i, 1));
         }
      }
   };
   make();
   ASSERT_TRUE(untilReady(1));
   EXPECT_EQ(space.word(4), 1u);
   EXPECT_EQ(space.word(8), 2u);
   EXPECT_TRUE(until([&] { return wishes->regMap().size() == 2; })) << "the others are removed";
   EXPECT_EQ(accesses, 8);
}

TEST_F(CoreAgentInterleavingTest, WhoIsToEndAtTheLastReadWritesNoWish) {
   const auto wishes = wishesNew();
   wishes->regMapIs(wish(8, 2));
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
      if (++accesses == 6) {
         spend(std::chrono::milliseconds(101)); // longer than it takes until it is asked
      }
   };
   ASSERT_TRUE(until([&isAsked] { return isAsked; }));
   EXPECT_EQ(accesses, 6) << "those of the probe and of the sync";
   EXPECT_EQ(space.word(8), 0u);
   EXPECT_FALSE(agent->state().ready);
}

TEST_F(CoreAgentInterleavingTest, ANewGenerationAskedForOverDamagedOperationsIsBegunAllTheSame) {
   const auto ops = opsNew();
   make();
   ASSERT_TRUE(untilReady(1));
   ASSERT_TRUE(untilFirstWriteOf(*ops));
   ASSERT_THAT(written(), ElementsAre("guarded write 0x4 0x11"));
   damage("ops");
   EXPECT_NO_THROW(agent->renew());
   EXPECT_FALSE(agent->state().ready);
   ASSERT_TRUE(untilReady(2));
   loop.poll();
   EXPECT_THAT(written(), ElementsAre("guarded write 0x4 0x11")) << "neither on nor once more";
}

TEST_F(CoreAgentInterleavingTest,
       AnOperationIsNotBegunAgainThoughMakingTheTableOfClaimsFailedOnce) {
   const auto ops = opsNew();
   make();
   ASSERT_TRUE(untilReady(1));
   ASSERT_TRUE(untilFirstWriteOf(*ops));
   const CaptureScope trace("*=off,agent/CoreAgent=0");
   {
      const NoNewTables full;
      damage("ops-status");
      ASSERT_TRUE(until([&trace] {
         const auto texts = trace.texts();
         return std::any_of(texts.begin(), texts.end(), [](const auto& text) {
            return text.find("trying again in") != text.npos;
         });
      }));
   }
   ASSERT_TRUE(untilReady(2));
   ASSERT_TRUE(until([&] { return !ops->op().has(id); }));
   EXPECT_TRUE(outcomesNew()->op().has(id));
   EXPECT_THAT(written(), ElementsAre("guarded write 0x4 0x11", "guarded write 0x4 0x22"))
      << "what was made before its claim was found damaged";
}

TEST_F(CoreAgentInterleavingTest, ACoreInTroubleShowsThatItIsNotReadyBeforeItIsRepaired) {
   const auto ops = opsNew();
   make();
   ASSERT_TRUE(untilReady(1));
   const CoreMonitor monitor(loop, tables, "fpga");
   ASSERT_TRUE(monitor.isReady());
   {
      const NoNewTables full; // the repair cannot succeed
      damage("ops-status");
      ops->opIs(operation());
      ASSERT_TRUE(until([this] { return !agent->state().ready; }));
      EXPECT_FALSE(monitor.isReady());
      ASSERT_TRUE(monitor.state().has_value());
      EXPECT_EQ(monitor.state()->phase, CorePhase::waiting);
      EXPECT_FALSE(monitor.state()->valid);
      EXPECT_THAT(monitor.summary(), HasSubstr("cannot use a table"));
   }
   ASSERT_TRUE(untilReady(2));
   EXPECT_TRUE(monitor.isReady());
   EXPECT_THAT(written(), testing::IsEmpty()) << "what could not be claimed was not begun";
}

TEST_F(CoreAgentInterleavingTest, ATableThatIsCutOffWhileItIsReplacedIsReplacedOnceMore) {
   make();
   ASSERT_TRUE(untilReady(1));
   {
      // Between the making of the new one and its mounting.
      const WhenTraced again("table 'fpga/status' was damaged", [this] { damage("status"); });
      damage("status");
      agent->renew();
      ASSERT_TRUE(until([this] { return !agent->state().ready; }));
      ASSERT_TRUE(untilReady(2));
   }
   EXPECT_EQ(::access(directory.path("tables/fpga%2Fstatus.damaged.old").c_str(), F_OK), 0)
      << "both were damaged";
}

TEST_F(CoreAgentInterleavingTest, ATableThatIsCutOffBetweenItsMountAndItsFirstChangeIsReplaced) {
   make();
   ASSERT_TRUE(untilReady(1));
   damage("state");
   // The state is mounted last; the status, which has records, is emptied then.
   const WhenTraced cut("table 'fpga/state' was damaged", [this] { damage("status"); });
   agent->renew();
   ASSERT_TRUE(untilReady(2));
   EXPECT_EQ(::access(directory.path("tables/fpga%2Fstatus.damaged").c_str(), F_OK), 0);
}

TEST_F(CoreAgentInterleavingTest, AReplacementThatAnAgentWasKilledInIsFinishedByTheNext) {
   {
      const auto saved = shadowRegisterConfigFactory("fpga/config/salvaged");
      saved->regMapControlIs(controlNew());
      controls.back()->mount();
      saved->regMapIs(wish(8, 0x55));
      const auto begun = orderedRegisterStatusFactory("fpga/ops-status/salvaged");
      begun->opControlIs(controlNew());
      controls.back()->mount();
   }
   const auto ops = opsNew();
   ops->opIs(operation());
   make();
   ASSERT_TRUE(untilReady(1));
   ASSERT_TRUE(until([&] { return !ops->op().has(id); }));
   EXPECT_THAT(written(), ElementsAre("guarded write 0x8 0x55"))
      << "whether the operation was begun is not known";
   EXPECT_EQ(wishesNew()->regMap().get(CoreRegisterKey(8)), wish(8, 0x55));
   EXPECT_EQ(outcomesNew()->op().get(id).value().regKeyCount(), 0u);
   EXPECT_THAT(tables.directory().tableNames(), Not(Contains(HasSubstr("salvaged"))));
}

// The new table was complete, and nothing told the next agent that claims had been lost.
TEST_F(CoreAgentInterleavingTest, AnAgentThatIsKilledBeforeItHasEndedWhatWaitsLeavesThatToTheNext) {
   const auto ops = opsNew();
   ops->opIs(operation());
   outcomesNew()->opIs(OrderedRegisterOp(id)); // an agent before had begun it
   controls.back()->unmount();
   damage("ops-status");
   const pid_t child = ::fork();
   if (child == 0) {
      const WhenTraced killed("table 'fpga/ops-status' was damaged", [] { ::raise(SIGKILL); });
      make();
      ::_exit(0);
   }
   int status = 0;
   ASSERT_EQ(::waitpid(child, &status, 0), child);
   ASSERT_TRUE(WIFSIGNALED(status));

   make();
   ASSERT_TRUE(untilReady(1));
   ASSERT_TRUE(until([&] { return !ops->op().has(id); }));
   EXPECT_THAT(written(), testing::IsEmpty()) << "it may have been carried out already";
   EXPECT_EQ(outcomesNew()->op().get(id).value().regKeyCount(), 0u);
   EXPECT_THAT(tables.directory().tableNames(), Not(Contains(HasSubstr("salvaged"))));
}

TEST_F(CoreAgentInterleavingTest, AWishMadeDuringAnOperationStandsAndIsWrittenAfterIt) {
   const auto wishes = wishesNew();
   const auto ops = opsNew();
   wishes->regMapIs(wish(8, 1));
   make();
   ASSERT_TRUE(untilReady(1));
   ASSERT_TRUE(untilFirstWriteOf(*ops));
   wishes->regMapIs(wish(8, 0x77));
   ASSERT_TRUE(until([&] { return !ops->op().has(id); }));
   EXPECT_THAT(written(), ElementsAre("guarded write 0x4 0x11", "guarded write 0x4 0x22",
                                      "guarded write 0x8 0x33", "guarded write 0x8 0x77"));
   EXPECT_EQ(wishes->regMap().get(CoreRegisterKey(8)), wish(8, 0x77));
   EXPECT_EQ(outcomesNew()->op().get(id), operation());
}

TEST_F(CoreAgentInterleavingTest, NothingMoreOfAnOperationIsWrittenAfterTroubleWithATable) {
   const auto wishes = wishesNew();
   const auto ops = opsNew();
   wishes->regMapIs(wish(4, 1));
   make();
   ASSERT_TRUE(untilReady(1));
   access->journal.clear();
   bool isDamaged = false;
   access->onAccess = [&] {
      if (!std::exchange(isDamaged, true)) {
         damage("config"); // which is to have what is written
      }
   };
   ops->opIs(operation());
   ASSERT_TRUE(untilReady(2));
   ASSERT_TRUE(until([&] { return !ops->op().has(id); }));
   EXPECT_THAT(written(), Contains("guarded write 0x4 0x11").Times(1));
   EXPECT_THAT(written(), Not(Contains("guarded write 0x4 0x22")));
   EXPECT_THAT(written(), Not(Contains("guarded write 0x8 0x33")));
   EXPECT_LE(outcomesNew()->op().get(id).value().regKeyCount(), 1u);
}

TEST_F(CoreAgentInterleavingTest, ADeviceThatDiesWhileWishesAreWrittenIsNoticedAtTheFirst) {
   const auto wishes = wishesNew();
   constexpr std::uint32_t count = 40;
   for (std::uint32_t i = 0; i < count; ++i) {
      const std::uint32_t address = 0x100 + 4 * i;
      registerIs("R" + std::to_string(i), address);
      wishes->regMapIs(wish(address, i + 1));
   }
   constexpr int reads = 2 * (3 + static_cast<int>(count)); // of the probe and of the sync
   bool isDead = true;
   fails = [&isDead](int number) { return isDead && number > reads + 1; };
   const CaptureScope trace("*=off,agent/CoreAgent=1");
   make();
   ASSERT_TRUE(until([this] { return accesses > reads; }));
   EXPECT_EQ(accesses, reads + 2) << "one write that succeeds, and one that fails";
   EXPECT_FALSE(agent->state().ready);
   ASSERT_TRUE(until([this] { return agent->state().phase == CorePhase::waiting; }));
   EXPECT_EQ(agent->state().losses, 0u) << "nobody relied on it";
   isDead = false;
   ASSERT_TRUE(untilReady(2));
   EXPECT_THAT(trace.texts(), Not(Contains(HasSubstr("generation 1 is ready"))));
   for (std::uint32_t i = 0; i < count; ++i) {
      EXPECT_EQ(space.word(0x100 + 4 * i), i + 1);
   }
}

TEST_F(CoreAgentInterleavingTest, TablesThatCannotBeMadeForNowAreMadeLater) {
   const auto wishes = wishesNew(); // and with it the directory
   wishes->regMapIs(wish(8, 2));
   {
      const DirectoryHeld held(directory.path("tables/.lock"));
      ASSERT_NO_THROW(make()) << "the other cores have nothing to do with it";
      EXPECT_EQ(agent->state().phase, CorePhase::waiting);
      EXPECT_FALSE(agent->state().ready);
      EXPECT_THAT(agent->state().lastError, HasSubstr("is locked by another process"));
      EXPECT_EQ(accesses, 0);
   }
   ASSERT_TRUE(untilReady(1));
   EXPECT_EQ(space.word(8), 2u);
}

} // namespace
} // namespace Agent
