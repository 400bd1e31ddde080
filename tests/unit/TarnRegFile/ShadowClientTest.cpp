#include "TarnRegFile/ShadowClient.h"

#include <sys/stat.h>

#include <fcntl.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <utility>

#include "TarnRegFile/ShadowError.h"
#include "tests/support/CutOffTable.h"
#include "tests/support/OwnerStandIn.h"
#include "tests/support/Registers.h"
#include "tests/unit/TarnRegFile/RegisterTables.h"

using namespace RegisterTables;
using Kind = ShadowError::Kind;
using TestSupport::OwnerStandIn;
using Told = std::vector<std::pair<std::string, std::optional<std::uint32_t>>>;

namespace {

constexpr std::uint32_t idAddress = 0x10;
constexpr std::uint32_t scratchAddress = 0x14;
constexpr std::chrono::seconds forever{60};
constexpr std::chrono::milliseconds aMoment{20};

Ptr<Hardware::HardwareRegisterFile> registersNew() {
   const auto file = Hardware::hardwareRegisterFileFactory("fpga");
   TestSupport::registerIs(*file, "FPGA_ID", idAddress, false);
   TestSupport::registerIs(*file, "SCRATCH", scratchAddress);
   return file;
}

/// What `action` throws: its kind and text.
std::pair<Kind, std::string> errorOf(const std::function<void()>& action) {
   try {
      action();
   } catch (const ShadowError& error) {
      return {error.kind(), error.what()};
   }
   ADD_FAILURE() << "nothing was thrown";
   return {};
}

/// Carries out what is wished, as the owner of the hardware does.
struct Owner {
   explicit Owner(Side& side)
      : standIn(side.service, "fpga"), status(side, "fpga/status"), config(side, "fpga/config") {
      serving = Platform::subscribe(
         *config.entity, ShadowRegisterConfig::regMapAttr, [this](const Platform::Change& change) {
            if (const auto wish = config.table().get(change.key.as<CoreRegisterKey>())) {
               status.entity->regMapIs(*wish);
            }
         });
      // What was wished before.
      config.table().forEach([this](const CoreRegister& wish) { status.entity->regMapIs(wish); });
   }
   OwnerStandIn standIn;
   Mounted<ShadowStatus> status;
   Mounted<ShadowConfig> config;
   Platform::Subscription serving;
};

class ShadowClientTest : public testing::Test {
protected:
   std::unique_ptr<ShadowClient> clientNew() {
      return std::make_unique<ShadowClient>(side.loop, side.service, "fpga", registersNew());
   }

   bool has(const std::string& file) const {
      return std::filesystem::exists(directory() + "/" + file);
   }
   std::string directory() const { return temp.path("tables"); }

   /// As the owner does with a damaged table of the core, before it makes another.
   void cutOff(const std::string& table) {
      TestSupport::cutOffTable(side.service.directory(), "fpga/" + table);
   }

   /// Counts the reports of damage.
   void countReports() {
      side.service.corruptionHandlerIs([this](auto&, auto&) { ++reports; });
   }
   int reports = 0;

   TestSupport::TempDir temp{"/dev/shm"};
   Side side{directory()};
};

} // namespace

TEST_F(ShadowClientTest, ReadsByNameAndByAddress) {
   Mounted<ShadowStatus> status(side, "fpga/status");
   status.is(idAddress, 0xabc);
   const auto client = clientNew();
   EXPECT_EQ(client->coreName(), "fpga");
   EXPECT_EQ(client->read("FPGA_ID"), 0xabcu);
   EXPECT_EQ(client->read(idAddress), 0xabcu);
   EXPECT_EQ(client->value("FPGA_ID"), 0xabcu);
   status.is(idAddress, 0xabd);
   EXPECT_EQ(client->read("FPGA_ID"), 0xabdu);
}

TEST_F(ShadowClientTest, AnUnknownNameIsRefusedByEveryOperation) {
   Mounted<ShadowStatus> status(side, "fpga/status");
   const auto client = clientNew();
   const std::pair expected(Kind::unknownRegister, std::string("core 'fpga' has no register 'X'"));
   EXPECT_EQ(errorOf([&] { client->read("X"); }), expected);
   EXPECT_EQ(errorOf([&] { client->value("X"); }), expected);
   EXPECT_EQ(errorOf([&] { client->wish("X"); }), expected);
   EXPECT_EQ(errorOf([&] { client->wishIs("X", 1); }), expected);
   EXPECT_EQ(errorOf([&] { client->wishDel("X"); }), expected);
   EXPECT_EQ(errorOf([&] { client->write("X", 1, forever); }), expected);
   EXPECT_EQ(errorOf([&] { (void)client->follow("X", [](auto&, auto) {}); }), expected);
   EXPECT_FALSE(has("fpga%2Fconfig.tbl"));
}

TEST_F(ShadowClientTest, ARegisterWithoutAValueIsToldApartFromOneThatHoldsZero) {
   Mounted<ShadowStatus> status(side, "fpga/status");
   status.is(idAddress, 0);
   const auto client = clientNew();
   EXPECT_EQ(client->value("FPGA_ID"), 0u);
   EXPECT_EQ(client->value("SCRATCH"), std::nullopt);
   const std::pair expected(
      Kind::noValue,
      std::string("core 'fpga' is not ready: nothing is known of register 'SCRATCH' yet"));
   EXPECT_EQ(errorOf([&] { client->read("SCRATCH"); }), expected);
   EXPECT_EQ(errorOf([&] { client->read(scratchAddress); }), expected);
}

TEST_F(ShadowClientTest, ComesBeforeTheOwnerAndSeesItsTableWhenItIsThere) {
   const auto client = clientNew();
   EXPECT_EQ(client->value("FPGA_ID"), std::nullopt);
   EXPECT_EQ(errorOf([&] { client->read("FPGA_ID"); }).first, Kind::noValue);
   EXPECT_FALSE(has("fpga%2Fstatus.tbl")); // which is the owner's to make
   Mounted<ShadowStatus> status(side, "fpga/status");
   status.is(idAddress, 7);
   EXPECT_EQ(client->read("FPGA_ID"), 7u);
}

TEST_F(ShadowClientTest, ReadingMountsNothingAsAWriter) {
   Mounted<ShadowStatus> status(side, "fpga/status", TableRole::writer);
   Mounted<ShadowConfig> config(side, "fpga/config", TableRole::writer);
   config.is(scratchAddress, 5);
   const auto client = clientNew();
   EXPECT_EQ(client->wish("SCRATCH"), 5u);
   EXPECT_EQ(client->wish("FPGA_ID"), std::nullopt);
   EXPECT_EQ(client->wish(scratchAddress), 5u);
   EXPECT_EQ(client->value("SCRATCH"), std::nullopt);
   for (const auto* name : {"fpga/status", "fpga/config"}) {
      const Platform::Tables::TableMount mount(side.service.directory(), name, {});
      std::size_t writers = 0;
      for (const auto& other : mount.mounts()) {
         writers += other.role == TableRole::writer ? 1 : 0;
      }
      EXPECT_EQ(writers, 1u) << name;
   }
}

TEST_F(ShadowClientTest, AskingForAWishMakesNoTable) {
   const auto client = clientNew();
   EXPECT_EQ(client->wish("SCRATCH"), std::nullopt);
   EXPECT_FALSE(client->wishDel("SCRATCH"));
   EXPECT_FALSE(has("fpga%2Fconfig.tbl"));
}

TEST_F(ShadowClientTest, AWishIsInTheTableWhenTheCallHasReturned) {
   const auto client = clientNew();
   client->wishIs("SCRATCH", 9);
   Mounted<ShadowConfig> config(side, "fpga/config", TableRole::reader);
   EXPECT_TRUE(config.has(scratchAddress, 9));
   EXPECT_EQ(config.table().size(), 1u);
   EXPECT_EQ(client->wish("SCRATCH"), 9u);
}

TEST_F(ShadowClientTest, AWishAfterALookAtWishesIsWritten) {
   Mounted<ShadowConfig> config(side, "fpga/config");
   const auto client = clientNew();
   EXPECT_EQ(client->wish("SCRATCH"), std::nullopt); // mounted as a reader from here on
   client->wishIs("SCRATCH", 9);
   EXPECT_TRUE(config.has(scratchAddress, 9));
}

TEST_F(ShadowClientTest, AWishIsTakenBackOnce) {
   Mounted<ShadowConfig> config(side, "fpga/config");
   config.is(scratchAddress, 5);
   config.is(idAddress, 6);
   const auto client = clientNew();
   EXPECT_TRUE(client->wishDel("SCRATCH"));
   EXPECT_FALSE(client->wishDel("SCRATCH"));
   EXPECT_FALSE(config.table().has(CoreRegisterKey(scratchAddress)));
   EXPECT_TRUE(config.has(idAddress, 6));
}

TEST_F(ShadowClientTest, ARegisterThatIsNotWritableCannotBeWished) {
   const auto client = clientNew();
   EXPECT_EQ(errorOf([&] { client->wishIs("FPGA_ID", 1); }),
             std::pair(Kind::notPermitted,
                       std::string("register 'FPGA_ID' of core 'fpga' is not writable")));
   EXPECT_FALSE(has("fpga%2Fconfig.tbl"));
}

TEST_F(ShadowClientTest, WriteReturnsWhenTheOwnerHoldsTheValue) {
   Owner owner(side);
   owner.status.is(scratchAddress, 1);
   const auto client = clientNew();
   client->write("SCRATCH", 2, forever);
   EXPECT_TRUE(owner.status.has(scratchAddress, 2));
   EXPECT_EQ(client->read("SCRATCH"), 2u);
}

TEST_F(ShadowClientTest, WriteOfTheHeldValueNeedsNoTime) {
   const OwnerStandIn standIn(side.service, "fpga");
   Mounted<ShadowStatus> status(side, "fpga/status");
   status.is(scratchAddress, 2);
   const auto client = clientNew();
   client->write("SCRATCH", 2, std::chrono::seconds(0));
   EXPECT_EQ(client->wish("SCRATCH"), 2u);
}

TEST_F(ShadowClientTest, WriteThatNobodyCarriesOutTimesOutAndTheWishStands) {
   const OwnerStandIn standIn(side.service, "fpga");
   Mounted<ShadowStatus> status(side, "fpga/status");
   status.is(scratchAddress, 1);
   const auto client = clientNew();
   EXPECT_EQ(errorOf([&] { client->write("SCRATCH", 0x20, aMoment); }),
             std::pair(Kind::timedOut,
                       std::string("core 'fpga' did not set register 'SCRATCH' to 0x20 in time: "
                                   "it is ready")));
   EXPECT_EQ(client->wish("SCRATCH"), 0x20u);
   EXPECT_EQ(client->read("SCRATCH"), 1u);
}

TEST_F(ShadowClientTest, WriteFromAHandlerOfTheLoopWaitsToo) {
   Owner owner(side);
   const auto client = clientNew();
   bool done = false;
   side.loop.post([&] {
      client->write("SCRATCH", 4, forever);
      done = true;
   });
   EXPECT_TRUE(side.until([&] { return done; }));
   EXPECT_TRUE(owner.status.has(scratchAddress, 4));
}

TEST_F(ShadowClientTest, WaitsForSeveralAtATime) {
   const OwnerStandIn standIn(side.service, "fpga");
   Mounted<ShadowStatus> status(side, "fpga/status");
   const auto client = clientNew();
   const CoreRegister wanted[] = {CoreRegister(CoreRegisterKey(idAddress), 1),
                                  CoreRegister(CoreRegisterKey(scratchAddress), 2)};
   status.is(idAddress, 1);
   EXPECT_FALSE(client->waitUntilHeld(wanted, aMoment));
   side.loop.post([&] { status.is(scratchAddress, 2); });
   EXPECT_TRUE(client->waitUntilHeld(wanted, forever));
   EXPECT_TRUE(client->waitUntilHeld({}, std::chrono::seconds(0)));
}

TEST_F(ShadowClientTest, WhatIsLeftOfAGenerationThatHasEndedIsNotHeld) {
   Owner owner(side);
   owner.status.is(scratchAddress, 2);
   const auto client = clientNew();
   const CoreRegister wanted[] = {CoreRegister(CoreRegisterKey(scratchAddress), 2)};
   EXPECT_TRUE(client->waitUntilHeld(wanted, aMoment));
   using TarnRegFile::Sable::CorePhase;
   for (const CorePhase phase : {CorePhase::starting, CorePhase::waiting, CorePhase::probing,
                                 CorePhase::syncing, CorePhase::stopped}) {
      owner.standIn.phaseIs(phase);
      EXPECT_FALSE(client->waitUntilHeld(wanted, std::chrono::seconds(0))) << phase;
   }
   EXPECT_EQ(client->read("SCRATCH"), 2u); // which the monitor tells the worth of
   EXPECT_FALSE(client->monitor().isReady());
   owner.standIn.readyIs(2);
   EXPECT_TRUE(client->waitUntilHeld(wanted, aMoment));
}

TEST_F(ShadowClientTest, WhatAnOwnerThatHasGoneHeldLastIsNotHeld) {
   Owner owner(side);
   const auto client = clientNew();
   owner.standIn.state.lastError = "it was fine";
   owner.standIn.show();
   owner.standIn.die();
   EXPECT_EQ(errorOf([&] { client->write("SCRATCH", 7, aMoment); }),
             std::pair(Kind::timedOut,
                       std::string("core 'fpga' did not set register 'SCRATCH' to 0x7 in time: its "
                                   "owner does not run any more; its last error: it was fine")));
   EXPECT_TRUE(owner.status.has(scratchAddress, 7));
   EXPECT_EQ(client->wish("SCRATCH"), 7u);
   owner.standIn.live();
   client->write("SCRATCH", 7, forever);
}

TEST_F(ShadowClientTest, WithoutAnOwnerThatShowsItselfNothingIsHeld) {
   Mounted<ShadowStatus> status(side, "fpga/status");
   status.is(scratchAddress, 2);
   const auto client = clientNew();
   EXPECT_EQ(errorOf([&] { client->write("SCRATCH", 2, aMoment); }),
             std::pair(Kind::timedOut,
                       std::string("core 'fpga' did not set register 'SCRATCH' to 0x2 in time: no "
                                   "owner of it has shown itself")));
}

TEST_F(ShadowClientTest, AWaitEndsWhenTheDeviceIsBackAndHoldsTheValue) {
   Owner owner(side);
   owner.status.is(scratchAddress, 3);
   const auto client = clientNew();
   owner.standIn.phaseIs(TarnRegFile::Sable::CorePhase::waiting);
   const CoreRegister wanted[] = {CoreRegister(CoreRegisterKey(scratchAddress), 3)};
   // What a new generation does: the old is forgotten, what is there now is read.
   side.loop.post([&] {
      owner.standIn.phaseIs(TarnRegFile::Sable::CorePhase::syncing);
      owner.status.del(scratchAddress);
      owner.status.is(scratchAddress, 0);
      side.loop.post([&] {
         owner.standIn.readyIs(2);
         side.loop.post([&] { owner.status.is(scratchAddress, 3); });
      });
   });
   EXPECT_TRUE(client->waitUntilHeld(wanted, forever));
   EXPECT_EQ(client->monitor().state()->generation, 2u);
}

TEST_F(ShadowClientTest, TheEndOfTheClientEndsItsWaitInTime) {
   const OwnerStandIn standIn(side.service, "fpga");
   auto client = clientNew();
   side.loop.post([&] { client.reset(); });
   EXPECT_EQ(errorOf([&] { client->write("SCRATCH", 1, aMoment); }).first, Kind::timedOut);
   EXPECT_EQ(client, nullptr);
}

TEST_F(ShadowClientTest, AnOwnerInAnotherProcessCarriesOutAWish) {
   const pid_t owner = ::fork();
   if (owner == 0) {
      Side own(directory());
      Owner serving(own);
      own.loop.keepRunningIs(true);
      own.until([] { return false; }); // what it holds counts as long as it lives
      ::_exit(1);
   }
   {
      const auto client = clientNew();
      client->write("SCRATCH", 77, forever);
      EXPECT_EQ(client->read("SCRATCH"), 77u);
   }
   EXPECT_EQ(::kill(owner, SIGKILL), 0);
   EXPECT_EQ(::waitpid(owner, nullptr, 0), owner);
}

TEST_F(ShadowClientTest, FollowsOneRegisterAndTellsOnlyWhatIsNew) {
   Mounted<ShadowStatus> status(side, "fpga/status");
   status.is(scratchAddress, 1);
   const auto client = clientNew();
   Told told;
   const auto following = client->follow(
      "SCRATCH", [&](const std::string& name, auto value) { told.emplace_back(name, value); });
   status.is(idAddress, 5);
   status.is(scratchAddress, 1);
   status.is(scratchAddress, 2);
   EXPECT_TRUE(told.empty()); // only by the loop
   EXPECT_TRUE(side.until([&] { return !told.empty(); }));
   status.del(scratchAddress);
   EXPECT_TRUE(side.until([&] { return told.size() > 1; }));
   EXPECT_EQ(told, (Told{{"SCRATCH", 2}, {"SCRATCH", std::nullopt}}));
}

TEST_F(ShadowClientTest, FollowsEveryRegisterOfTheListAndNoOther) {
   Mounted<ShadowStatus> status(side, "fpga/status");
   const auto client = clientNew();
   Told told;
   const auto following =
      client->follow([&](const std::string& name, auto value) { told.emplace_back(name, value); });
   status.is(0x999, 1);
   status.is(idAddress, 5);
   status.is(scratchAddress, 6);
   EXPECT_TRUE(side.until([&] { return told.size() == 2; }));
   EXPECT_EQ(told, (Told{{"FPGA_ID", 5}, {"SCRATCH", 6}}));
}

TEST_F(ShadowClientTest, FollowsATableThatComesLater) {
   const auto client = clientNew();
   Told told;
   const auto following = client->follow(
      "SCRATCH", [&](const std::string& name, auto value) { told.emplace_back(name, value); });
   Mounted<ShadowStatus> status(side, "fpga/status");
   status.is(scratchAddress, 6);
   EXPECT_TRUE(side.until([&] { return told.size() == 1; }));
   status.is(scratchAddress, 7);
   EXPECT_TRUE(side.until([&] { return told.size() == 2; }));
   EXPECT_EQ(told, (Told{{"SCRATCH", 6}, {"SCRATCH", 7}}));
}

TEST_F(ShadowClientTest, WhatIsLetGoOfIsNotTold) {
   Mounted<ShadowStatus> status(side, "fpga/status");
   const auto client = clientNew();
   int kept = 0;
   int dropped = 0;
   ShadowClient::Following second;
   const auto first = client->follow("SCRATCH", [&](auto&, auto) {
      ++kept;
      second.reset(); // the next one, in the middle of the telling
   });
   second = client->follow("SCRATCH", [&](auto&, auto) { ++dropped; });
   status.is(scratchAddress, 1);
   EXPECT_TRUE(side.until([&] { return kept == 1; }));
   side.loop.poll();
   EXPECT_EQ(dropped, 0);
}

TEST_F(ShadowClientTest, AHandlerThatThrowsKeepsNobodyFromBeingTold) {
   Mounted<ShadowStatus> status(side, "fpga/status");
   const auto client = clientNew();
   int told = 0;
   const auto first =
      client->follow("SCRATCH", [&](auto&, auto) { throw std::runtime_error("no"); });
   const auto second = client->follow("SCRATCH", [&](auto&, auto) { ++told; });
   status.is(scratchAddress, 1);
   EXPECT_THROW(side.until([] { return false; }), std::runtime_error);
   EXPECT_EQ(told, 1);
}

TEST_F(ShadowClientTest, AHandlerMayEndTheClient) {
   Mounted<ShadowStatus> status(side, "fpga/status");
   auto client = clientNew();
   int told = 0;
   const auto first = client->follow("SCRATCH", [&](auto&, auto) {
      ++told;
      client.reset();
   });
   const auto second = client->follow("SCRATCH", [&](auto&, auto) { ++told; });
   status.is(scratchAddress, 1);
   EXPECT_TRUE(side.until([&] { return told > 0; }));
   side.loop.poll();
   EXPECT_EQ(told, 1);
}

TEST_F(ShadowClientTest, ADamagedTableOfStatusIsSaidToBe) {
   {
      Mounted<ShadowStatus> status(side, "fpga/status");
      status.is(scratchAddress, 1);
   }
   std::string reported;
   side.service.corruptionHandlerIs(
      [&](const std::string& table, const std::string&) { reported = table; });
   const auto client = clientNew();
   EXPECT_EQ(client->read("SCRATCH"), 1u);
   EXPECT_EQ(client->damage(), "");
   ASSERT_EQ(::truncate((directory() + "/fpga%2Fstatus.tbl").c_str(), 0), 0);
   EXPECT_EQ(errorOf([&] { client->read("SCRATCH"); }).first, Kind::damaged);
   EXPECT_EQ(reported, "fpga/status");
   EXPECT_NE(client->damage(), "");
}

TEST_F(ShadowClientTest, ADamagedTableIsNotMounted) {
   { Mounted<ShadowStatus> status(side, "fpga/status"); }
   { Mounted<ShadowConfig> config(side, "fpga/config"); }
   ASSERT_EQ(::truncate((directory() + "/fpga%2Fconfig.tbl").c_str(), 100), 0);
   const auto client = clientNew();
   EXPECT_EQ(errorOf([&] { client->wish("SCRATCH"); }).first, Kind::damaged);
   EXPECT_EQ(errorOf([&] { client->wishIs("SCRATCH", 1); }).first, Kind::damaged);
   ASSERT_EQ(::truncate((directory() + "/fpga%2Fstatus.tbl").c_str(), 100), 0);
   EXPECT_EQ(errorOf([&] { clientNew(); }).first, Kind::damaged);
}

TEST_F(ShadowClientTest, ADamagedTableThatNobodyReplacesStaysDamagedAndIsNotReportedAtEachLook) {
   Mounted<ShadowStatus> status(side, "fpga/status");
   status.is(scratchAddress, 1);
   const auto client = clientNew();
   int told = 0;
   const auto following = client->follow([&](auto&, auto) { ++told; });
   countReports();
   ASSERT_EQ(::truncate((directory() + "/fpga%2Fstatus.tbl").c_str(), 0), 0);
   EXPECT_EQ(errorOf([&] { client->read("SCRATCH"); }).first, Kind::damaged);
   EXPECT_EQ(errorOf([&] { client->read("SCRATCH"); }).first, Kind::damaged);
   // What looks for another table meanwhile finds none, and bothers nobody.
   EXPECT_FALSE(side.loop.runUntil([] { return false; }, 8 * aMoment));
   EXPECT_EQ(errorOf([&] { client->read("SCRATCH"); }).first, Kind::damaged);
   EXPECT_EQ(errorOf([&] { (void)client->follow([](auto&, auto) {}); }).first, Kind::damaged);
   EXPECT_LE(reports, 3) << "who read, and the two mounts that are told of changes";
   EXPECT_EQ(told, 0);
   EXPECT_NE(client->damage(), "");
}

TEST_F(ShadowClientTest, ADamagedTableThatIsRemovedAndNotMadeAnewStaysDamaged) {
   { Mounted<ShadowStatus> status(side, "fpga/status"); }
   { Mounted<ShadowConfig> config(side, "fpga/config"); }
   const auto client = clientNew();
   client->wishIs("SCRATCH", 1);
   cutOff("status");
   cutOff("config");
   for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(errorOf([&] { client->value("SCRATCH"); }).first, Kind::damaged);
      EXPECT_EQ(errorOf([&] { client->wishIs("SCRATCH", 2); }).first, Kind::damaged);
   }
   EXPECT_FALSE(has("fpga%2Fconfig.tbl")) << "in the middle of the owner's work it would be wrong";
}

TEST_F(ShadowClientTest, OneReadMeetsTheDamageAndTheNextReadsTheTableThatReplacedIt) {
   auto status = std::make_unique<Mounted<ShadowStatus>>(side, "fpga/status");
   status->is(scratchAddress, 1);
   const auto client = clientNew();
   EXPECT_EQ(client->read("SCRATCH"), 1u);
   countReports();
   cutOff("status");
   status = std::make_unique<Mounted<ShadowStatus>>(side, "fpga/status");
   status->is(scratchAddress, 2);
   EXPECT_EQ(errorOf([&] { client->read("SCRATCH"); }).first, Kind::damaged);
   EXPECT_NE(client->damage(), "");
   EXPECT_EQ(client->read("SCRATCH"), 2u);
   EXPECT_EQ(client->damage(), "");
   status->is(scratchAddress, 3);
   EXPECT_EQ(client->read("SCRATCH"), 3u);
   EXPECT_EQ(reports, 1);
}

TEST_F(ShadowClientTest, WishesGoOnInTheTableThatReplacedADamagedOne) {
   auto config = std::make_unique<Mounted<ShadowConfig>>(side, "fpga/config");
   const auto client = clientNew();
   client->wishIs("SCRATCH", 1);
   cutOff("config");
   config = std::make_unique<Mounted<ShadowConfig>>(side, "fpga/config");
   EXPECT_EQ(errorOf([&] { client->wishIs("SCRATCH", 2); }).first, Kind::damaged);
   EXPECT_FALSE(config->has(scratchAddress, 2));
   EXPECT_EQ(client->wish("SCRATCH"), std::nullopt);
   client->wishIs("SCRATCH", 3);
   EXPECT_TRUE(config->has(scratchAddress, 3));
   EXPECT_EQ(client->damage(), "");
}

TEST_F(ShadowClientTest, AWaitThatMeetsTheDamageEndsAndTheNextOneIsServed) {
   auto owner = std::make_unique<Owner>(side);
   const auto client = clientNew();
   client->write("SCRATCH", 1, forever);
   const CoreRegister wanted[] = {CoreRegister(CoreRegisterKey(scratchAddress), 2)};
   side.loop.post([&] {
      owner.reset();
      for (const char* table : {"status", "config", "state"}) {
         cutOff(table);
      }
   });
   EXPECT_EQ(errorOf([&] { client->waitUntilHeld(wanted, forever); }).first, Kind::damaged);
   owner = std::make_unique<Owner>(side);
   const auto isServed = [&] {
      try {
         client->write("SCRATCH", 2, forever);
         return true;
      } catch (const ShadowError& error) {
         EXPECT_EQ(error.kind(), Kind::damaged);
         return false;
      }
   };
   // Each of the other tables may be met once.
   EXPECT_TRUE(isServed() || isServed() || isServed());
   EXPECT_EQ(client->read("SCRATCH"), 2u);
   EXPECT_EQ(client->damage(), "");
}

TEST_F(ShadowClientTest, FollowersAreToldHowTheTableThatReplacedADamagedOneDiffers) {
   auto status = std::make_unique<Mounted<ShadowStatus>>(side, "fpga/status");
   status->is(idAddress, 7);
   status->is(scratchAddress, 1);
   const auto client = clientNew();
   Told all;
   Told one;
   const auto followingAll =
      client->follow([&](const std::string& name, auto value) { all.emplace_back(name, value); });
   const auto followingOne = client->follow(
      "SCRATCH", [&](const std::string& name, auto value) { one.emplace_back(name, value); });
   cutOff("status");
   EXPECT_TRUE(side.until([&] { return !client->damage().empty(); })) << "it hears of it";
   EXPECT_TRUE(all.empty());
   status = std::make_unique<Mounted<ShadowStatus>>(side, "fpga/status");
   status->is(idAddress, 7);
   status->is(scratchAddress, 2);
   EXPECT_TRUE(side.until([&] { return !all.empty() && !one.empty(); }));
   EXPECT_EQ(client->damage(), "");
   status->is(scratchAddress, 3);
   EXPECT_TRUE(side.until([&] { return all.size() == 2 && one.size() == 2; }));
   EXPECT_EQ(all, (Told{{"SCRATCH", 2}, {"SCRATCH", 3}})) << "FPGA_ID has not changed";
   EXPECT_EQ(one, all);
}

TEST_F(ShadowClientTest, FollowersAreToldWhatTheTableThatReplacedADamagedOneHasNot) {
   auto status = std::make_unique<Mounted<ShadowStatus>>(side, "fpga/status");
   status->is(idAddress, 7);
   const auto client = clientNew();
   Told told;
   const auto following =
      client->follow([&](const std::string& name, auto value) { told.emplace_back(name, value); });
   cutOff("status");
   status = std::make_unique<Mounted<ShadowStatus>>(side, "fpga/status");
   // Also if somebody's access finds both out.
   EXPECT_EQ(errorOf([&] { client->read("FPGA_ID"); }).first, Kind::damaged);
   EXPECT_EQ(client->value("FPGA_ID"), std::nullopt);
   EXPECT_TRUE(told.empty()); // only by the loop
   EXPECT_TRUE(side.until([&] { return !told.empty(); }));
   EXPECT_EQ(told, (Told{{"FPGA_ID", std::nullopt}}));
}

TEST_F(ShadowClientTest, ATableInTheDamagedOnesPlaceThatIsDamagedTooIsToldOnceAndReplacedAsWell) {
   auto status = std::make_unique<Mounted<ShadowStatus>>(side, "fpga/status");
   const auto client = clientNew();
   Told told;
   const auto following =
      client->follow([&](const std::string& name, auto value) { told.emplace_back(name, value); });
   cutOff("status");
   EXPECT_TRUE(side.until([&] { return !client->damage().empty(); }));
   countReports();
   { Mounted<ShadowStatus>(side, "fpga/status"); }
   ASSERT_EQ(::truncate((directory() + "/fpga%2Fstatus.tbl").c_str(), 100), 0);
   EXPECT_EQ(errorOf([&] { side.until([] { return false; }); }).first, Kind::damaged);
   EXPECT_FALSE(side.loop.runUntil([] { return false; }, 8 * aMoment));
   EXPECT_EQ(reports, 1);
   cutOff("status");
   status = std::make_unique<Mounted<ShadowStatus>>(side, "fpga/status");
   status->is(scratchAddress, 2);
   EXPECT_TRUE(side.until([&] { return !told.empty(); }));
   EXPECT_EQ(told, (Told{{"SCRATCH", 2}}));
   EXPECT_EQ(client->damage(), "");
}

TEST_F(ShadowClientTest, AUserWhoMayOnlyReadReadsAndWishesNothing) {
   if (::geteuid() != 0) {
      GTEST_SKIP() << "needs another user";
   }
   Mounted<ShadowStatus> status(side, "fpga/status");
   Mounted<ShadowConfig> config(side, "fpga/config");
   status.is(scratchAddress, 1);
   config.is(scratchAddress, 1);
   ASSERT_EQ(::chmod(temp.path().c_str(), 0755), 0);
   ASSERT_EQ(::chmod(directory().c_str(), 0755), 0);
   for (const auto& file : std::filesystem::directory_iterator(directory())) {
      ASSERT_EQ(::chmod(file.path().c_str(), 0644), 0);
   }
   EXPECT_TRUE(inAnotherProcess([&] {
      ASSERT_EQ(::setgid(65534), 0);
      ASSERT_EQ(::setuid(65534), 0);
      Side own(directory());
      ShadowClient client(own.loop, own.service, "fpga", registersNew());
      EXPECT_EQ(client.read("SCRATCH"), 1u);
      EXPECT_EQ(errorOf([&] { client.wishIs("SCRATCH", 2); }).first, Kind::notPermitted);
      EXPECT_EQ(errorOf([&] { client.wishDel("SCRATCH"); }).first, Kind::notPermitted);
      EXPECT_EQ(client.wish("SCRATCH"), 1u);
   }));
   EXPECT_TRUE(config.has(scratchAddress, 1));
   ASSERT_EQ(::chmod((directory() + "/fpga%2Fstatus.tbl").c_str(), 0600), 0);
   EXPECT_TRUE(inAnotherProcess([&] {
      ASSERT_EQ(::setgid(65534), 0);
      ASSERT_EQ(::setuid(65534), 0);
      Side own(directory());
      EXPECT_EQ(errorOf([&] { ShadowClient(own.loop, own.service, "fpga", registersNew()); }).first,
                Kind::notPermitted);
   }));
}
