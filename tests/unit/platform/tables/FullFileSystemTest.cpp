// A file system that has no more memory: an error for who wants more, and nothing else.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <unistd.h>

#include <fstream>

#include "tests/unit/platform/tables/ChildProcess.h"
#include "tests/unit/platform/tables/TableFixture.h"

namespace {

using namespace TablesTest;

void writeTo(const std::string& path, const std::string& text) {
   std::ofstream(path) << text;
}

/// A tmpfs of 2 MiB, for a process of its own.
class FullFileSystem : public TableFixture {
protected:
   /// Runs `body` where `directory` is in the small file system.
   void inSmallFileSystem(const std::function<void()>& body) {
      ChildProcess child([&](ChildProcess& self) {
         const uid_t user = ::geteuid();
         const gid_t group = ::getegid();
         const bool isRoot = user == 0;
         if (::unshare(isRoot ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0) {
            self.say('s');
            return;
         }
         if (!isRoot) {
            writeTo("/proc/self/setgroups", "deny");
            writeTo("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
            writeTo("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
         }
         if (::mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0 ||
             ::mount("small", temp.path().c_str(), "tmpfs", 0, "size=2m") != 0) {
            self.say('s');
            return;
         }
         self.say('r');
         body();
      });
      if (child.hear() == 's') {
         GTEST_SKIP() << "this process may not mount a file system of its own";
      }
      EXPECT_TRUE(child.succeeds());
   }

   /// Takes all the memory that is left.
   void fill() const {
      const int fd = ::open(temp.path("filling").c_str(), O_RDWR | O_CREAT, 0600);
      const std::string block(4096, 'x');
      while (::write(fd, block.data(), block.size()) > 0) {
      }
      ::close(fd);
   }
   void makeRoom() const { ::unlink(temp.path("filling").c_str()); }
};

TEST_F(FullFileSystem, IsAnErrorAndLosesNothingAndIsForgottenWhenThereIsRoom) {
   inSmallFileSystem([&] {
      TableMount writing(directory, "table", writer());
      TableMount reading(directory, "table", reader());
      std::map<Bytes, Bytes> model;
      for (std::uint32_t key = 0; key < 1000; ++key) {
         writing.put(bytes(key), bytes(key));
         model[bytes(key)] = bytes(key);
      }
      fill();
      std::uint32_t key = 1000;
      for (;; ++key) {
         const std::string error = errorOf([&] { writing.put(bytes(key), bytes(key)); });
         if (!error.empty()) {
            EXPECT_EQ(error, "28 system: no memory for another record of shared table 'table'");
            break;
         }
         model[bytes(key)] = bytes(key);
         ASSERT_LT(key, 60000U);
      }
      EXPECT_EQ(codeOf([&] { writing.put(bytes(key), bytes(key)); }), ENOSPC);
      EXPECT_EQ(contents(reading), model);
      EXPECT_EQ(get(reading, key), std::nullopt);
      EXPECT_EQ(writing.audit().problems, std::vector<std::string>());
      EXPECT_EQ(writing.audit().recoveries, 0U);
      // What needs no memory goes on: records are replaced, removed, and put where others were.
      EXPECT_FALSE(writing.put(bytes(5), bytes(50)));
      EXPECT_TRUE(del(writing, 6));
      EXPECT_TRUE(writing.put(bytes(key), bytes(key)));
      EXPECT_EQ(get(reading, key), bytes(key));
      EXPECT_EQ(codeOf([&] { writing.put(bytes(6), bytes(6)); }), ENOSPC);
      makeRoom();
      for (std::uint32_t more = 0; more < 2000; ++more) {
         writing.put(bytes(100000 + more), bytes(more));
      }
      EXPECT_EQ(reading.count(), model.size() + 2000);
      EXPECT_EQ(writing.audit().problems, std::vector<std::string>());
   });
}

TEST_F(FullFileSystem, IsAnErrorForWhoWouldMakeATableAndLeavesNoneBehind) {
   inSmallFileSystem([&] {
      { const TableMount other(directory, "other", writer()); }
      fill();
      EXPECT_EQ(codeOf([&] { const TableMount mount(directory, "table", writer()); }), ENOSPC);
      EXPECT_EQ(directory.tableNames(), std::vector<std::string>{"other"});
      EXPECT_EQ(codeOf([&] { const TableMount mount(directory, "table", reader()); }), ENOENT);
      // What is there can be mounted.
      const TableMount other(directory, "other", reader());
      EXPECT_EQ(other.count(), 0U);
      makeRoom();
      TableMount mount(directory, "table", writer());
      mount.put(bytes(1), bytes(1));
   });
}

TEST_F(FullFileSystem, KeepsNobodyFromBeingWokenOrFromRecovering) {
   inSmallFileSystem([&] {
      TableMount writing(directory, "table", writer());
      TableMount reading(directory, "table", reader());
      for (std::uint32_t key = 0; key < 1000; ++key) {
         writing.put(bytes(key), bytes(key));
         if (key % 2 == 0) {
            del(writing, key);
         }
      }
      (void)changes(reading);
      fill();
      const int fd = ::inotify_init1(IN_NONBLOCK);
      const std::string bell = "/proc/self/fd/" + std::to_string(reading.bellFd());
      ASSERT_GE(::inotify_add_watch(fd, bell.c_str(), IN_MODIFY), 0);
      EXPECT_TRUE(reading.arm());
      writing.put(bytes(1), bytes(7));
      char buffer[4096];
      EXPECT_GT(::read(fd, buffer, sizeof buffer), 0);
      EXPECT_EQ(changes(reading), "1");
      // As a dead writer leaves the lock.
      const int table = ::open(file("table.tbl").c_str(), O_RDWR);
      const std::uint32_t dead = 900U << 21 | 5;
      ASSERT_EQ(::pwrite(table, &dead, sizeof dead, 4096), 4);
      ::close(table);
      writing.put(bytes(1), bytes(8));
      EXPECT_EQ(get(reading, 1), bytes(8));
      EXPECT_GT(::read(fd, buffer, sizeof buffer), 0); // it always rings then
      EXPECT_EQ(writing.audit().recoveries, 1U);
      EXPECT_EQ(writing.audit().problems, std::vector<std::string>());
      EXPECT_EQ(reading.count(), 500U);
      ::close(fd);
   });
}

} // namespace
