#include "platform/hardware/DeviceNode.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "tests/support/TempDir.h"

namespace Hardware {
namespace {

// Ordinary files, which are nodes as good as any here.
class DeviceNodeTest : public ::testing::Test {
protected:
   void make() { std::ofstream(path) << "x"; }

   static bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

   TestSupport::TempDir dir;
   const std::string path = dir.path("node");
   DeviceNode node{path};
};

TEST_F(DeviceNodeTest, IsOpenedWhenItIsAskedTo) {
   make();
   EXPECT_EQ(node.fd(), -1);
   EXPECT_FALSE(node.isCurrent());
   EXPECT_EQ(node.open(), 0);
   EXPECT_TRUE(node.isCurrent());
   EXPECT_TRUE(isOpen(node.fd()));
   EXPECT_EQ(::fcntl(node.fd(), F_GETFL) & O_ACCMODE, O_RDWR);
   EXPECT_NE(::fcntl(node.fd(), F_GETFD) & FD_CLOEXEC, 0);
   EXPECT_EQ(node.path(), path);
}

TEST_F(DeviceNodeTest, OneThatIsNotThereIsAnErrno) {
   EXPECT_EQ(node.open(), ENOENT);
   EXPECT_EQ(node.fd(), -1);
   EXPECT_FALSE(node.isCurrent());
}

TEST_F(DeviceNodeTest, StaysTheOneThatItIsWhateverBecomesOfIt) {
   make();
   ASSERT_EQ(node.open(), 0);
   const int fd = node.fd();
   ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
   std::ofstream(path) << "more";
   EXPECT_TRUE(node.isCurrent());
   EXPECT_EQ(node.fd(), fd);
}

TEST_F(DeviceNodeTest, IsClosedWhenItHasGoneWithNothingInItsPlace) {
   make();
   ASSERT_EQ(node.open(), 0);
   const int fd = node.fd();
   std::filesystem::remove(path);
   EXPECT_FALSE(node.isCurrent());
   EXPECT_EQ(node.fd(), -1);
   EXPECT_FALSE(isOpen(fd));
   EXPECT_EQ(node.open(), ENOENT);
   make();
   EXPECT_EQ(node.open(), 0);
   EXPECT_TRUE(node.isCurrent());
}

TEST_F(DeviceNodeTest, IsClosedWhenAnotherIsInItsPlace) {
   make();
   ASSERT_EQ(node.open(), 0);
   std::ofstream(dir.path("other")) << "y";
   std::filesystem::rename(dir.path("other"), path);
   EXPECT_FALSE(node.isCurrent());
   EXPECT_EQ(node.fd(), -1);
   EXPECT_EQ(node.open(), 0);
   EXPECT_TRUE(node.isCurrent());
}

TEST_F(DeviceNodeTest, OpeningItAgainClosesWhatWasOpen) {
   make();
   ASSERT_EQ(node.open(), 0);
   std::filesystem::remove(path);
   const int fd = node.fd();
   EXPECT_EQ(node.open(), ENOENT);
   EXPECT_FALSE(isOpen(fd));
}

TEST_F(DeviceNodeTest, IsClosedWithItsOwner) {
   make();
   int fd = -1;
   {
      DeviceNode other(path);
      ASSERT_EQ(other.open(), 0);
      fd = other.fd();
      other.close();
      other.close();
      EXPECT_FALSE(isOpen(fd));
      ASSERT_EQ(other.open(), 0);
      fd = other.fd();
   }
   EXPECT_FALSE(isOpen(fd));
}

} // namespace
} // namespace Hardware
