#include "TarnRegFile/CoreOwner.h"

#include <sys/stat.h>

#include <csignal>
#include <fcntl.h>

#include "tests/support/OwnerStandIn.h"
#include "tests/unit/TarnRegFile/RegisterTables.h"

using namespace RegisterTables;
using TestSupport::OwnerStandIn;

namespace {

class CoreOwnerTest : public testing::Test {
protected:
   TestSupport::TempDir temp{"/dev/shm"};
   Side side{temp.path("tables")};
   CoreOwner owner{side.service.directory(), "fpga"};
};

} // namespace

TEST_F(CoreOwnerTest, HasALockBesideTheCoresTables) {
   EXPECT_EQ(owner.lockPath(), temp.path("tables") + "/fpga%2Fowner.lock");
   EXPECT_THROW(CoreOwner(side.service.directory(), std::string(300, 'x')), std::system_error);
}

TEST_F(CoreOwnerTest, IsGoneWhereThereNeverWasOne) {
   EXPECT_EQ(owner.life(), OwnerLife::gone);
   EXPECT_FALSE(temp.has("tables")); // looking makes nothing
}

TEST_F(CoreOwnerTest, LivesAsLongAsItHoldsItsLock) {
   OwnerStandIn standIn(side.service, "fpga");
   EXPECT_EQ(owner.life(), OwnerLife::alive);
   EXPECT_EQ(owner.life(), OwnerLife::alive); // looking lets go of nobody's lock
   EXPECT_EQ(CoreOwner(side.service.directory(), "cpld").life(), OwnerLife::gone);
   standIn.die();
   EXPECT_EQ(owner.life(), OwnerLife::gone);
   standIn.live();
   EXPECT_EQ(owner.life(), OwnerLife::alive);
}

TEST_F(CoreOwnerTest, IsGoneOnceItsProcessIsKilled) {
   int ready[2];
   ASSERT_EQ(::pipe(ready), 0);
   const pid_t pid = ::fork();
   if (pid == 0) {
      Side own(temp.path("tables"));
      const OwnerStandIn standIn(own.service, "fpga");
      char byte = 'x';
      (void)!::write(ready[1], &byte, 1);
      ::pause();
      ::_exit(1);
   }
   char byte = 0;
   ASSERT_EQ(::read(ready[0], &byte, 1), 1);
   EXPECT_EQ(owner.life(), OwnerLife::alive);
   ASSERT_EQ(::kill(pid, SIGKILL), 0);
   ASSERT_EQ(::waitpid(pid, nullptr, 0), pid);
   EXPECT_EQ(owner.life(), OwnerLife::gone);
   ::close(ready[0]);
   ::close(ready[1]);
}

TEST_F(CoreOwnerTest, IsUnknownToWhoMayNotReadTheLock) {
   if (::geteuid() != 0) {
      GTEST_SKIP() << "needs another user";
   }
   const OwnerStandIn standIn(side.service, "fpga");
   ASSERT_EQ(::chmod(temp.path().c_str(), 0755), 0);
   ASSERT_EQ(::chmod(temp.path("tables").c_str(), 0755), 0);
   const auto lifeForOthers = [&](mode_t mode, OwnerLife expected) {
      ASSERT_EQ(::chmod(owner.lockPath().c_str(), mode), 0);
      EXPECT_TRUE(inAnotherProcess([&] {
         ASSERT_EQ(::setgid(65534), 0);
         ASSERT_EQ(::setuid(65534), 0);
         EXPECT_EQ(owner.life(), expected);
      }));
   };
   lifeForOthers(0660, OwnerLife::unknown);
   lifeForOthers(0664, OwnerLife::alive);
}

TEST_F(CoreOwnerTest, FollowsNoLinkToALock) {
   const OwnerStandIn standIn(side.service, "cpld");
   ASSERT_EQ(::symlink("cpld%2Fowner.lock", owner.lockPath().c_str()), 0);
   EXPECT_EQ(owner.life(), OwnerLife::unknown);
}

TEST_F(CoreOwnerTest, HasAStringForm) {
   EXPECT_EQ(Platform::enumString(OwnerLife::alive), "alive");
   EXPECT_EQ(Platform::enumString(OwnerLife::gone), "gone");
   EXPECT_EQ(Platform::enumString(OwnerLife::unknown), "unknown");
}
