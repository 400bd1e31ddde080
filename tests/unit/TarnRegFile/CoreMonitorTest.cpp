#include "TarnRegFile/CoreMonitor.h"

#include <sys/stat.h>

#include <fcntl.h>

#include <filesystem>
#include <memory>
#include <stdexcept>

#include "TarnRegFile/ShadowError.h"
#include "tests/support/CutOffTable.h"
#include "tests/support/OwnerStandIn.h"
#include "tests/unit/TarnRegFile/RegisterTables.h"

using namespace RegisterTables;
using Kind = ShadowError::Kind;
using TarnRegFile::Sable::CorePhase;
using TestSupport::OwnerStandIn;

namespace {

constexpr std::chrono::seconds forever{60};
constexpr std::chrono::milliseconds aMoment{20};
constexpr std::uint32_t requestKey = 0;

/// Takes up requests for a new generation, as an owner does.
struct Owner {
   explicit Owner(Side& side) : standIn(side.service, "fpga"), request(side, "fpga/request") {
      if (const auto found = request.table().get(CoreRegisterKey(requestKey))) {
         standIn.state.lastRequest = found->value();
         standIn.show();
      }
      serving = Platform::subscribe(*request.entity, ShadowRegisterConfig::regMapAttr,
                                    [this](const Platform::Change&) { takeUp(); });
   }

   void takeUp() {
      const auto asked = request.table().get(CoreRegisterKey(requestKey));
      if (!asked || asked->value() == standIn.state.lastRequest) {
         return;
      }
      standIn.state.lastRequest = asked->value();
      standIn.phaseIs(CorePhase::probing);
      standIn.readyIs(standIn.state.generation + 1);
   }

   OwnerStandIn standIn;
   Mounted<ShadowConfig> request;
   Platform::Subscription serving;
};

class CoreMonitorTest : public testing::Test {
protected:
   bool has(const std::string& file) const {
      return std::filesystem::exists(directory() + "/" + file);
   }
   std::string directory() const { return temp.path("tables"); }
   std::uint32_t requested(Owner& owner) const {
      return owner.request.table().get(CoreRegisterKey(requestKey))->value();
   }

   /// The text of the ShadowError timedOut that resync() throws.
   std::string timedOut() {
      try {
         monitor->resync(aMoment);
      } catch (const ShadowError& error) {
         EXPECT_EQ(error.kind(), Kind::timedOut);
         return error.what();
      }
      return "it was resynced";
   }

   TestSupport::TempDir temp{"/dev/shm"};
   Side side{directory()};
   std::unique_ptr<CoreMonitor> monitor =
      std::make_unique<CoreMonitor>(side.loop, side.service, "fpga");
};

} // namespace

TEST_F(CoreMonitorTest, KnowsNothingBeforeAnOwnerComesAndMakesNoTable) {
   EXPECT_EQ(monitor->coreName(), "fpga");
   EXPECT_EQ(monitor->state(), std::nullopt);
   EXPECT_EQ(monitor->owner(), OwnerLife::gone);
   EXPECT_FALSE(monitor->isReady());
   EXPECT_EQ(monitor->summary(), "no owner of it has shown itself");
   EXPECT_FALSE(has(""));
   const OwnerStandIn owner(side.service, "fpga");
   EXPECT_EQ(monitor->state(), owner.state);
   EXPECT_EQ(monitor->owner(), OwnerLife::alive);
   EXPECT_TRUE(monitor->isReady());
}

TEST_F(CoreMonitorTest, SaysHowTheCoreIs) {
   OwnerStandIn owner(side.service, "fpga");
   EXPECT_EQ(monitor->summary(), "it is ready");
   owner.phaseIs(CorePhase::waiting);
   EXPECT_EQ(monitor->summary(), "it is waiting");
   owner.state.lastError = "no such device";
   owner.show();
   EXPECT_EQ(monitor->summary(), "it is waiting; its last error: no such device");
   owner.die();
   EXPECT_EQ(monitor->summary(), "its owner does not run any more; its last error: no such device");
   owner.phaseIs(CorePhase::stopped);
   EXPECT_EQ(monitor->summary(), "its owner has stopped; its last error: no such device");
}

TEST_F(CoreMonitorTest, IsReadyOnlyWhileALivingOwnerServesAValidGeneration) {
   OwnerStandIn owner(side.service, "fpga");
   EXPECT_TRUE(monitor->isReady());
   owner.state.valid = false;
   owner.show();
   EXPECT_FALSE(monitor->isReady());
   owner.phaseIs(CorePhase::syncing);
   EXPECT_FALSE(monitor->isReady());
   owner.readyIs(2);
   EXPECT_TRUE(monitor->isReady());
   owner.die();
   EXPECT_FALSE(monitor->isReady());
   EXPECT_TRUE(monitor->state()->ready) << "what it said last stays";
}

TEST_F(CoreMonitorTest, TheReadyStateOfAKilledOwnerIsNotTakenForThatOfItsSuccessor) {
   OwnerStandIn owner(side.service, "fpga");
   owner.die();
   // The successor owns the core, and has not said anything yet.
   const TarnRegFile::Utils::UnixFdRes file(
      ::open((directory() + "/fpga%2Fowner.lock").c_str(), O_RDWR));
   struct flock lock = {};
   lock.l_type = F_WRLCK;
   lock.l_start = CoreOwner::ownerByte;
   lock.l_len = 1;
   ASSERT_EQ(::fcntl(file.fd(), F_OFD_SETLK, &lock), 0);
   EXPECT_FALSE(monitor->isReady());
   EXPECT_EQ(monitor->owner(), OwnerLife::gone);
}

TEST_F(CoreMonitorTest, AConditionHoldsForOneGenerationOnly) {
   OwnerStandIn owner(side.service, "fpga");
   int asked = 0;
   EXPECT_TRUE(monitor->isReadyAnd([&] { return ++asked == 1; }));
   EXPECT_FALSE(monitor->isReadyAnd([&] {
      ++asked;
      return false;
   }));
   EXPECT_EQ(asked, 2);
   // The generation ends while the condition is looked at; also if the next one is ready already.
   EXPECT_FALSE(monitor->isReadyAnd([&] {
      owner.phaseIs(CorePhase::waiting);
      return true;
   }));
   owner.readyIs(2);
   EXPECT_FALSE(monitor->isReadyAnd([&] {
      owner.readyIs(3);
      return true;
   }));
   EXPECT_FALSE(monitor->isReadyAnd([&] {
      // Another owner, which counts from one again, in a namespace where it has the same id.
      owner.phaseIs(CorePhase::starting);
      owner.readyIs(3);
      return true;
   }));
   // Progress is no end.
   EXPECT_TRUE(monitor->isReadyAnd([&] {
      ++owner.state.errors;
      owner.show();
      return true;
   }));
   owner.die();
   EXPECT_FALSE(monitor->isReadyAnd([&] {
      ADD_FAILURE() << "nothing to look at";
      return true;
   }));
}

TEST_F(CoreMonitorTest, TellsChangesOfTheStateThroughTheLoop) {
   OwnerStandIn owner(side.service, "fpga");
   std::vector<CorePhase> told;
   const auto following = monitor->follow([&](const auto& state, OwnerLife life) {
      EXPECT_EQ(life, OwnerLife::alive);
      told.push_back(state->phase);
   });
   owner.phaseIs(CorePhase::waiting);
   EXPECT_TRUE(told.empty()); // only by the loop
   EXPECT_TRUE(side.until([&] { return told.size() == 1; }));
   owner.show(); // nothing new
   owner.phaseIs(CorePhase::probing);
   EXPECT_TRUE(side.until([&] { return told.size() == 2; }));
   EXPECT_EQ(told, (std::vector{CorePhase::waiting, CorePhase::probing}));
}

TEST_F(CoreMonitorTest, TellsThatAnOwnerComesAndGoes) {
   std::vector<OwnerLife> told;
   const auto following =
      monitor->follow([&](const auto& /*state*/, OwnerLife life) { told.push_back(life); });
   OwnerStandIn owner(side.service, "fpga");
   EXPECT_TRUE(side.until([&] { return told == std::vector{OwnerLife::alive}; }));
   owner.die();
   EXPECT_TRUE(side.until([&] { return told == std::vector{OwnerLife::alive, OwnerLife::gone}; }));
}

TEST_F(CoreMonitorTest, WhoLetsGoIsNotToldAndWhoThrowsKeepsNobodyFromIt) {
   OwnerStandIn owner(side.service, "fpga");
   int told = 0;
   const auto first =
      monitor->follow([](const auto&, OwnerLife) { throw std::runtime_error("no"); });
   const auto second = monitor->follow([&](const auto&, OwnerLife) { ++told; });
   (void)monitor->follow([](const auto&, OwnerLife) { ADD_FAILURE() << "let go of"; });
   owner.phaseIs(CorePhase::waiting);
   EXPECT_THROW(side.until([] { return false; }), std::runtime_error);
   EXPECT_EQ(told, 1);
}

TEST_F(CoreMonitorTest, AHandlerMayEndTheMonitor) {
   OwnerStandIn owner(side.service, "fpga");
   int told = 0;
   const auto first = monitor->follow([&](const auto&, OwnerLife) {
      ++told;
      monitor.reset();
   });
   const auto second = monitor->follow([&](const auto&, OwnerLife) { ++told; });
   owner.phaseIs(CorePhase::waiting);
   EXPECT_TRUE(side.until([&] { return told > 0; }));
   side.loop.poll();
   EXPECT_EQ(told, 1);
}

TEST_F(CoreMonitorTest, ResyncReturnsInANewGeneration) {
   Owner owner(side);
   const CoreState state = monitor->resync(forever);
   EXPECT_EQ(state.generation, 2u);
   EXPECT_TRUE(state.ready);
   EXPECT_EQ(state.lastRequest, requested(owner));
   EXPECT_EQ(monitor->resync(forever).generation, 3u);
}

TEST_F(CoreMonitorTest, ResyncDoesNotTakeAGenerationThatWasUnderWayForItsOwn) {
   Owner owner(side);
   owner.serving = {}; // it is busy
   owner.standIn.phaseIs(CorePhase::syncing);
   owner.standIn.state.generation = 2;
   side.loop.post([&] {
      owner.standIn.readyIs(2);
      side.loop.post([&] { owner.takeUp(); });
   });
   EXPECT_EQ(monitor->resync(forever).generation, 3u);
}

TEST_F(CoreMonitorTest, SeveralResyncsAtATimeAllSucceed) {
   // Two wait within each other; the owner only looks when both have asked, and sees the later one.
   Owner owner(side);
   owner.serving = {};
   CoreMonitor other(side.loop, side.service, "fpga");
   std::uint32_t inner = 0;
   side.loop.post([&] {
      side.loop.post([&] { owner.takeUp(); });
      inner = other.resync(forever).generation;
   });
   EXPECT_EQ(monitor->resync(forever).generation, 2u);
   EXPECT_EQ(inner, 2u);
}

TEST_F(CoreMonitorTest, ResyncsOfSeveralProcessesAllSucceed) {
   Owner owner(side);
   constexpr int processes = 4;
   std::vector<pid_t> pids;
   for (int i = 0; i < processes; ++i) {
      std::fflush(nullptr);
      const pid_t pid = ::fork();
      if (pid == 0) {
         int verdict = 1;
         try {
            Side own(directory());
            CoreMonitor mine(own.loop, own.service, "fpga");
            std::uint32_t last = 0;
            verdict = 0;
            for (int round = 0; round < 20; ++round) {
               const std::uint32_t before = mine.state()->generation;
               const std::uint32_t now = mine.resync(forever).generation;
               if (now <= before || now < last) {
                  verdict = 2;
               }
               last = now;
            }
         } catch (const std::exception& error) {
            std::fprintf(stderr, "in the other process: %s\n", error.what());
            verdict = 1;
         }
         ::_exit(verdict);
      }
      pids.push_back(pid);
   }
   int ended = 0;
   int good = 0;
   EXPECT_TRUE(side.until([&] {
      int status = 0;
      for (pid_t& pid : pids) {
         if (pid > 0 && ::waitpid(pid, &status, WNOHANG) == pid) {
            pid = 0;
            ++ended;
            good += WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 1 : 0;
         }
      }
      return ended == processes;
   }));
   EXPECT_EQ(good, processes);
}

TEST_F(CoreMonitorTest, ARequestThatWasPutBackIsMadeAgain) {
   Owner owner(side);
   owner.serving = {};
   owner.request.is(requestKey, owner.standIn.state.lastRequest);
   side.loop.post([&] {
      owner.request.is(requestKey, owner.standIn.state.lastRequest); // by a careless client
      owner.takeUp();
      side.loop.post([&] {
         owner.request.del(requestKey); // or another one
         side.loop.post([&] {
            owner.serving =
               Platform::subscribe(*owner.request.entity, ShadowRegisterConfig::regMapAttr,
                                   [&](const Platform::Change&) { owner.takeUp(); });
         });
      });
   });
   EXPECT_EQ(monitor->resync(forever).generation, 2u);
}

TEST_F(CoreMonitorTest, AnOwnerThatComesLaterServesTheRequestThatItFinds) {
   std::unique_ptr<Owner> owner;
   side.loop.post([&] { owner = std::make_unique<Owner>(side); });
   EXPECT_EQ(monitor->resync(forever).generation, 1u);
}

TEST_F(CoreMonitorTest, AnOwnerInPlaceOfAKilledOneServesTheRequestThatItFinds) {
   // With the same generation, request and process id: in a namespace of its own it may be so.
   auto owner = std::make_unique<Owner>(side);
   owner->standIn.die();
   side.loop.post([&] {
      owner.reset();
      owner = std::make_unique<Owner>(side);
   });
   EXPECT_EQ(monitor->resync(forever).generation, 1u);
}

TEST_F(CoreMonitorTest, AResyncThatIsNotCarriedOutTimesOutAndSaysHowTheCoreIs) {
   EXPECT_EQ(timedOut(),
             "core 'fpga' has no new generation in time: no owner of it has shown itself");
   {
      OwnerStandIn owner(side.service, "fpga");
      owner.state.lastError = "no such device";
      owner.phaseIs(CorePhase::waiting);
      EXPECT_EQ(timedOut(), "core 'fpga' has no new generation in time: it is waiting; its last "
                            "error: no such device");
      owner.readyIs(7);
      EXPECT_EQ(timedOut(), "core 'fpga' has no new generation in time: it is ready; its last "
                            "error: no such device");
   }
   EXPECT_EQ(timedOut(), "core 'fpga' has no new generation in time: its owner does not run any "
                         "more; its last error: no such device");
   Mounted<ShadowConfig> request(side, "fpga/request");
   EXPECT_EQ(request.table().size(), 1u) << "the request stands";
}

TEST_F(CoreMonitorTest, TheEndOfTheMonitorEndsItsResyncInTime) {
   side.loop.post([&] { monitor.reset(); });
   EXPECT_NE(timedOut(), "");
   EXPECT_EQ(monitor, nullptr);
}

TEST_F(CoreMonitorTest, ADamagedStateIsSaidToBe) {
   { const OwnerStandIn owner(side.service, "fpga"); }
   ASSERT_EQ(::truncate((directory() + "/fpga%2Fstate.tbl").c_str(), 100), 0);
   for (const std::function<void()>& action : std::vector<std::function<void()>>{
           [&] { (void)monitor->state(); }, [&] { (void)monitor->summary(); },
           [&] { (void)monitor->resync(aMoment); }, [&] { (void)monitor->follow({}); }}) {
      try {
         action();
         ADD_FAILURE() << "nothing was thrown";
      } catch (const ShadowError& error) {
         EXPECT_EQ(error.kind(), Kind::damaged);
      }
   }
   EXPECT_NE(monitor->damage(), "");
}

TEST_F(CoreMonitorTest, OneLookMeetsTheDamageAndTheNextSeesTheStateThatReplacedIt) {
   auto owner = std::make_unique<OwnerStandIn>(side.service, "fpga");
   EXPECT_TRUE(monitor->isReady());
   owner.reset();
   TestSupport::cutOffTable(side.service.directory(), "fpga/state");
   owner = std::make_unique<OwnerStandIn>(side.service, "fpga");
   owner->readyIs(5);
   try {
      (void)monitor->state();
      ADD_FAILURE() << "nothing was thrown";
   } catch (const ShadowError& error) {
      EXPECT_EQ(error.kind(), Kind::damaged);
   }
   EXPECT_NE(monitor->damage(), "");
   EXPECT_EQ(monitor->state(), owner->state);
   EXPECT_TRUE(monitor->isReady());
   EXPECT_EQ(monitor->damage(), "");
}

TEST_F(CoreMonitorTest, FollowersAreToldOfTheStateThatReplacedADamagedOne) {
   auto owner = std::make_unique<OwnerStandIn>(side.service, "fpga");
   std::vector<std::uint32_t> told;
   const auto following =
      monitor->follow([&](const std::optional<CoreState>& state, TarnRegFile::Sable::OwnerLife) {
         told.push_back(state ? state->generation : 0);
      });
   owner.reset();
   TestSupport::cutOffTable(side.service.directory(), "fpga/state");
   owner = std::make_unique<OwnerStandIn>(side.service, "fpga");
   owner->readyIs(5);
   int damages = 0;
   const auto until = [&](const std::function<bool()>& condition) {
      for (;;) {
         try {
            return side.until(condition);
         } catch (const ShadowError& error) {
            EXPECT_EQ(error.kind(), Kind::damaged);
            ++damages;
         }
      }
   };
   EXPECT_TRUE(until([&] { return !told.empty(); }));
   EXPECT_LE(damages, 1) << "who looks first meets it, unless it was heard of";
   EXPECT_EQ(monitor->damage(), "");
   owner->readyIs(6);
   EXPECT_TRUE(until([&] { return told.back() == 6; }));
   EXPECT_EQ(told, (std::vector<std::uint32_t>{5, 6}));
   EXPECT_LE(damages, 1);
}

TEST_F(CoreMonitorTest, OfADamagedStateThatNobodyReplacesTheLoopIsToldOnce) {
   const OwnerStandIn owner(side.service, "fpga");
   int told = 0;
   const auto following = monitor->follow(
      [&](const std::optional<CoreState>&, TarnRegFile::Sable::OwnerLife) { ++told; });
   ASSERT_EQ(::truncate((directory() + "/fpga%2Fstate.tbl").c_str(), 0), 0);
   EXPECT_THROW(side.until([] { return false; }), ShadowError);
   EXPECT_FALSE(side.loop.runUntil([] { return false; }, 15 * aMoment));
   EXPECT_EQ(told, 0);
   EXPECT_NE(monitor->damage(), "");
}

TEST_F(CoreMonitorTest, WhoMayOnlyReadLooksAndCannotAsk) {
   if (::geteuid() != 0) {
      GTEST_SKIP() << "needs another user";
   }
   Owner owner(side);
   ASSERT_EQ(::chmod(temp.path().c_str(), 0755), 0);
   ASSERT_EQ(::chmod(directory().c_str(), 0755), 0);
   const auto modes = [&](mode_t ofLock) {
      for (const auto& file : std::filesystem::directory_iterator(directory())) {
         const bool isLock = file.path().extension() == ".lock";
         ASSERT_EQ(::chmod(file.path().c_str(), isLock ? ofLock : 0644), 0);
      }
   };
   const auto asOther = [&](const std::function<void(CoreMonitor&)>& body) {
      return inAnotherProcess([&] {
         ASSERT_EQ(::setgid(65534), 0);
         ASSERT_EQ(::setuid(65534), 0);
         Side own(directory());
         CoreMonitor mine(own.loop, own.service, "fpga");
         body(mine);
      });
   };
   modes(0644);
   EXPECT_TRUE(asOther([&](CoreMonitor& mine) {
      EXPECT_TRUE(mine.isReady());
      EXPECT_EQ(mine.owner(), OwnerLife::alive);
      try {
         mine.resync(forever);
         ADD_FAILURE() << "it was asked";
      } catch (const ShadowError& error) {
         EXPECT_EQ(error.kind(), Kind::notPermitted);
      }
   }));
   EXPECT_EQ(owner.request.table().size(), 0u);
   // Who may not know whether the owner lives goes by what it has said.
   modes(0600);
   EXPECT_TRUE(asOther([&](CoreMonitor& mine) {
      EXPECT_EQ(mine.owner(), OwnerLife::unknown);
      EXPECT_TRUE(mine.isReady());
      EXPECT_EQ(mine.summary(), "it is ready");
   }));
}
