// One agent for a core.

#include "agent/OwnerLock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <system_error>

#include "TarnRegFile/CoreOwner.h"
#include "tests/support/TempDir.h"

namespace Agent {
namespace {

using Platform::Tables::TableDirectory;

TEST(OwnerLock, KeepsOthersFromTheSameCoreOnly) {
   const TestSupport::TempDir dir;
   const TableDirectory directory(dir.path());
   const OwnerLock first(directory, "fpga");
   const OwnerLock other(directory, "cpld");
   try {
      const OwnerLock second(directory, "fpga");
      FAIL() << "not refused";
   } catch (const OwnedError& error) {
      EXPECT_EQ(error.what(),
                "core 'fpga' has an agent already, process " + std::to_string(::getpid()));
   }
}

TEST(OwnerLock, IsFreeAgainOnceItsOwnerHasGone) {
   const TestSupport::TempDir dir;
   const TableDirectory directory(dir.path());
   std::optional<OwnerLock> first(std::in_place, directory, "fpga");
   first.reset();
   EXPECT_NO_THROW(OwnerLock(directory, "fpga"));
}

TEST(OwnerLock, ShowsAnOwnerThatLivesOnceItServes) {
   const TestSupport::TempDir dir;
   const TableDirectory directory(dir.path());
   const TarnRegFile::Sable::CoreOwner owner(directory, "fpga");
   using TarnRegFile::Sable::OwnerLife;
   EXPECT_EQ(owner.life(), OwnerLife::gone);
   {
      OwnerLock lock(directory, "fpga");
      EXPECT_EQ(owner.life(), OwnerLife::gone); // the core's state is not its own yet
      lock.serve();
      EXPECT_EQ(owner.life(), OwnerLife::alive);
      EXPECT_THROW(OwnerLock(directory, "fpga"), OwnedError);
      EXPECT_EQ(owner.life(), OwnerLife::alive);
   }
   EXPECT_EQ(owner.life(), OwnerLife::gone);
}

TEST(OwnerLock, IsNoTable) {
   const TestSupport::TempDir dir;
   const TableDirectory directory(dir.path());
   const OwnerLock lock(directory, "fpga");
   EXPECT_THAT(directory.tableNames(), testing::IsEmpty());
}

TEST(OwnerLock, FollowsNoLinkAndNeedsTheDirectory) {
   const TestSupport::TempDir dir;
   const TableDirectory directory(dir.path());
   EXPECT_THROW(OwnerLock(TableDirectory(dir.path("none")), "fpga"), std::system_error);
   dir.write("target", "precious");
   std::filesystem::create_symlink(dir.path("target"),
                                   dir.path(TableDirectory::fileName("fpga/owner") + ".lock"));
   EXPECT_THROW(OwnerLock(directory, "fpga"), std::system_error);
   EXPECT_EQ(dir.read("target"), "precious");
}

} // namespace
} // namespace Agent
