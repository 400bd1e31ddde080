// Who has a table mounted, what a fork does to that, and how writers take turns.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/tables/private/Geometry.h"
#include "tests/unit/platform/tables/ChildProcess.h"
#include "tests/unit/platform/tables/TableFixture.h"

namespace {

using namespace TablesTest;

/// The word of a table's file by which writers take turns.
class LockWord {
public:
   explicit LockWord(const std::string& path) {
      const int fd = ::open(path.c_str(), O_RDWR);
      _page =
         ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, Geometry::controlOffset);
      ::close(fd);
      EXPECT_NE(_page, MAP_FAILED);
   }
   ~LockWord() { ::munmap(_page, 4096); }
   LockWord(const LockWord&) = delete;
   LockWord& operator=(const LockWord&) = delete;

   std::uint32_t get() const { return __atomic_load_n(_word(), __ATOMIC_SEQ_CST); }
   void set(std::uint32_t value) { __atomic_store_n(_word(), value, __ATOMIC_SEQ_CST); }
   bool hasWaiters() const { return get() >> 31 != 0; }

private:
   std::uint32_t* _word() const { return static_cast<std::uint32_t*>(_page); }
   void* _page;
};

class TableMounts : public TableFixture {
protected:
   /// The word by which the mount in place `index` has the table.
   std::uint32_t wordOf(std::uint32_t index) const {
      const std::string entries = content("table.reg");
      std::uint32_t nonce = 0;
      std::memcpy(&nonce, entries.data() + index * 128 + 4, sizeof nonce);
      return index << 21 | nonce;
   }
   static std::vector<std::uint32_t> places(const TableMount& mount) {
      std::vector<std::uint32_t> found;
      for (const MountInfo& info : mount.mounts()) {
         found.push_back(info.index);
      }
      return found;
   }
};

using Places = std::vector<std::uint32_t>;

TEST_F(TableMounts, AreListedWithWhoTheyAre) {
   const TableMount writing(directory, "table", writer());
   TableMount reading(directory, "table", reader());
   reading.quiescedIs(true);
   for (const TableMount* mount : {&writing, &std::as_const(reading)}) {
      const std::vector<MountInfo> mounts = mount->mounts();
      ASSERT_EQ(mounts.size(), 2U);
      EXPECT_EQ(mounts[0].index, 0U);
      EXPECT_EQ(mounts[0].role, TableRole::writer);
      EXPECT_FALSE(mounts[0].quiesced);
      EXPECT_EQ(mounts[1].index, 1U);
      EXPECT_EQ(mounts[1].role, TableRole::reader);
      EXPECT_TRUE(mounts[1].quiesced);
      for (const MountInfo& info : mounts) {
         EXPECT_EQ(info.pid, static_cast<std::uint32_t>(::getpid()));
         EXPECT_EQ(info.program, std::string(program_invocation_short_name).substr(0, 63));
      }
   }
   reading.quiescedIs(false);
   EXPECT_FALSE(writing.mounts()[1].quiesced);
}

TEST_F(TableMounts, GivePlacesBackThatOthersTake) {
   auto first = std::make_unique<TableMount>(directory, "table", writer());
   const TableMount second(directory, "table", reader());
   const TableMount third(directory, "table", reader());
   EXPECT_EQ(places(third), (Places{0, 1, 2}));
   first.reset();
   EXPECT_EQ(places(third), (Places{1, 2}));
   const TableMount fourth(directory, "table", reader());
   EXPECT_EQ(places(third), (Places{0, 1, 2}));
}

TEST_F(TableMounts, OfADeadProcessVanish) {
   const TableMount mount(directory, "table", writer());
   ChildProcess child([&](ChildProcess& self) {
      const TableMount own(directory, "table", writer());
      self.say();
      ::pause();
   });
   child.hear();
   ASSERT_EQ(mount.mounts().size(), 2U);
   EXPECT_EQ(mount.mounts()[1].pid, static_cast<std::uint32_t>(child.pid()));
   child.kill();
   EXPECT_EQ(places(mount), Places{0});
}

TEST_F(TableMounts, OfAParentDoNotOutliveItInItsChildren) {
   const TableMount mount(directory, "table", writer());
   ChildProcess parent([&](ChildProcess& self) {
      const TableMount own(directory, "table", writer());
      const TableMount also(directory, "table", reader());
      if (::fork() == 0) {
         self.say('c');
         self.hear(); // until the test ends
         ::_exit(0);
      }
      ::pause();
   });
   EXPECT_EQ(parent.hear(), 'c');
   EXPECT_EQ(places(mount), (Places{0, 1, 2}));
   parent.kill();
   EXPECT_EQ(places(mount), Places{0});
}

TEST_F(TableMounts, InAForkedChildMayReadAndNotWrite) {
   TableMount writing(directory, "table", writer());
   TableMount reading(directory, "table", reader());
   writing.put(bytes(1), bytes(2));
   ChildProcess child([&](ChildProcess& self) {
      EXPECT_EQ(get(writing, 1), bytes(2));
      EXPECT_EQ(get(reading, 1), bytes(2));
      EXPECT_EQ(errorOf([&] { writing.put(bytes(1), bytes(3)); }),
                "1 generic: shared table 'table' was mounted by the parent process: a child has to "
                "mount it itself");
      EXPECT_EQ(codeOf([&] { del(writing, 1); }), EPERM);
      EXPECT_EQ(codeOf([&] { reading.put(bytes(1), bytes(3)); }), EACCES);
      EXPECT_EQ(changes(reading), "1");
      EXPECT_EQ(writing.audit().problems, std::vector<std::string>());
      EXPECT_TRUE(writing.mounts().empty());
      writing.quiescedIs(true);
      {
         TableMount own(directory, "table", writer());
         own.put(bytes(2), bytes(3));
         EXPECT_EQ(places(own), (Places{0, 1, 2}));
      }
      self.say();
      EXPECT_EQ(self.hear(), '.');
      EXPECT_EQ(get(writing, 1), bytes(4));
   });
   EXPECT_EQ(child.hear(), '.');
   EXPECT_EQ(places(writing), (Places{0, 1}));
   EXPECT_FALSE(writing.mounts()[0].quiesced);
   EXPECT_EQ(changes(writing), "2");
   writing.put(bytes(1), bytes(4));
   child.say();
   EXPECT_TRUE(child.succeeds());
   EXPECT_EQ(places(writing), (Places{0, 1}));
   writing.put(bytes(1), bytes(5));
}

TEST_F(TableMounts, CanBeDestroyedInAForkedChildWithoutHarmToTheParents) {
   auto writing = std::make_unique<TableMount>(directory, "table", writer());
   ChildProcess child([&] {
      writing.reset();
      // Numbers of closed descriptors may have been taken by others.
      const int own = ::dup(0);
      EXPECT_GE(::fcntl(own, F_GETFD), 0);
   });
   EXPECT_TRUE(child.succeeds());
   EXPECT_EQ(places(*writing), Places{0});
   writing->put(bytes(1), bytes(1));
}

// A mount that had failed left the number of its bell behind, to be closed in forked children.
TEST_F(TableMounts, ThatFailedHaveNoDescriptorsOfOthersClosedInForkedChildren) {
   { const TableMount mount(directory, "table", writer()); }
   const int fd = ::open(file("table.tbl").c_str(), O_RDWR);
   ASSERT_EQ(::pwrite(fd, "garbage", 7, Geometry::controlOffset + 128), 7); // the journal's head
   ::close(fd);
   EXPECT_NE(errorOf([&] { const TableMount mount(directory, "table", writer()); }), "");
   std::vector<int> descriptors;
   for (int i = 0; i < 20; ++i) {
      descriptors.push_back(::dup(0));
   }
   ChildProcess child([&] {
      for (const int descriptor : descriptors) {
         EXPECT_GE(::fcntl(descriptor, F_GETFD), 0);
      }
   });
   EXPECT_TRUE(child.succeeds());
   for (const int descriptor : descriptors) {
      ::close(descriptor);
   }
}

TEST_F(TableMounts, Are1023AtTheMost) {
   auto first = std::make_unique<TableMount>(directory, "table", writer());
   const int fd = ::open(file("table.reg").c_str(), O_RDWR);
   struct flock lock = {};
   lock.l_type = F_WRLCK;
   lock.l_whence = SEEK_SET;
   lock.l_start = 1;
   lock.l_len = 1022;
   ASSERT_EQ(::fcntl(fd, F_OFD_SETLK, &lock), 0);
   EXPECT_EQ(errorOf([&] { const TableMount mount(directory, "table", writer()); }),
             "24 generic: a shared table cannot be mounted more than 1023 times at once");
   lock.l_type = F_UNLCK;
   lock.l_start = 1022;
   lock.l_len = 1;
   ASSERT_EQ(::fcntl(fd, F_OFD_SETLK, &lock), 0);
   {
      TableMount last(directory, "table", writer());
      EXPECT_EQ(places(last), (Places{0, 1022}));
      last.put(bytes(1), bytes(1));
      first->put(bytes(1), bytes(2));
      EXPECT_EQ(changes(last), "1");
      LockWord(file("table.tbl")).set(wordOf(1022)); // as if it were at work
   }
   // It is gone, and who comes next takes over from it.
   first->put(bytes(1), bytes(3));
   EXPECT_EQ(first->audit().recoveries, 1U);
   ::close(fd);
}

TEST_F(TableMounts, ADamagedRegisterHidesMountsAndHarmsNobody) {
   TableMount first(directory, "table", writer());
   TableMount second(directory, "table", writer());
   const int fd = ::open(file("table.reg").c_str(), O_RDWR);
   const std::string noise(300, '\x5A');
   ASSERT_EQ(::pwrite(fd, noise.data(), noise.size(), 0), 300);
   EXPECT_TRUE(first.mounts().empty());
   first.put(bytes(1), bytes(1));
   second.put(bytes(1), bytes(2));
   ASSERT_EQ(::ftruncate(fd, 0), 0);
   ::close(fd);
   EXPECT_TRUE(first.mounts().empty());
   first.put(bytes(1), bytes(3));
   EXPECT_EQ(codeOf([&] { directory.tableDel("none"); }), ENOENT);
   const TableMount third(directory, "table", writer());
   EXPECT_EQ(places(third), Places{2});
   EXPECT_EQ(get(third, 1), bytes(3));
   first.quiescedIs(true); // registers anew
   EXPECT_EQ(places(third), (Places{0, 2}));
}

TEST_F(TableMounts, AWriterWaitsForOneThatIsAtWork) {
   TableMount writing(directory, "table", writer());
   ChildProcess holder([&](ChildProcess& self) {
      const TableMount own(directory, "table", writer());
      LockWord word(file("table.tbl"));
      word.set(wordOf(1));
      self.say();
      while (!word.hasWaiters()) {
         ::usleep(100);
      }
      word.set(0);
      self.hear();
   });
   holder.hear();
   writing.put(bytes(1), bytes(1));
   EXPECT_EQ(writing.audit().recoveries, 0U);
   EXPECT_EQ(get(writing, 1), bytes(1));
}

TEST_F(TableMounts, AWriterThatWaitsTakesOverFromOneThatIsKilled) {
   TableMount writing(directory, "table", writer());
   ChildProcess holder([&](ChildProcess& self) {
      const TableMount own(directory, "table", writer());
      LockWord(file("table.tbl")).set(wordOf(1));
      self.say();
      ::pause();
   });
   holder.hear();
   ChildProcess killer([&] {
      const LockWord word(file("table.tbl"));
      while (!word.hasWaiters()) {
         ::usleep(100);
      }
      holder.signalIs(SIGKILL);
   });
   writing.put(bytes(1), bytes(1));
   EXPECT_EQ(writing.audit().recoveries, 1U);
   EXPECT_EQ(get(writing, 1), bytes(1));
   EXPECT_TRUE(killer.succeeds());
}

TEST_F(TableMounts, AWriterGivesUpAfterFiveSecondsBehindOneThatIsStopped) {
   TableMount writing(directory, "table", writer());
   writing.put(bytes(1), bytes(1));
   ChildProcess holder([&](ChildProcess& self) {
      const TableMount own(directory, "table", writer());
      LockWord(file("table.tbl")).set(wordOf(1));
      self.say();
      ::pause();
   });
   holder.hear();
   holder.stop();
   EXPECT_EQ(errorOf([&] { writing.put(bytes(1), bytes(2)); }),
             "110 generic: shared table 'table' has been locked by another mount for 5 seconds");
   EXPECT_EQ(get(writing, 1), bytes(1)); // readers never wait
   EXPECT_EQ(contents(writing).size(), 1U);
   holder.kill();
   writing.put(bytes(1), bytes(3));
   EXPECT_EQ(writing.audit().problems, std::vector<std::string>());
   EXPECT_EQ(writing.audit().recoveries, 1U);
}

TEST_F(TableMounts, NonsenseInTheLockIsTakenForADeadWriter) {
   TableMount writing(directory, "table", writer());
   TableMount other(directory, "table", writer());
   LockWord word(file("table.tbl"));
   std::uint64_t recoveries = 0;
   const std::uint32_t own = wordOf(0);
   for (const std::uint32_t nonsense :
        {1U, 0x7FFFFFFFU, 0xFFFFFFFFU, 0x80000000U | 1023U << 21, 500U << 21 | 17, own ^ 1,
         own | 1U << 31, own, wordOf(1) ^ 2}) {
      word.set(nonsense);
      writing.put(bytes(1), bytes(nonsense));
      EXPECT_EQ(get(other, 1), bytes(nonsense));
      EXPECT_EQ(writing.audit().recoveries, ++recoveries) << std::hex << nonsense;
      EXPECT_EQ(writing.audit().problems, std::vector<std::string>());
      EXPECT_EQ(word.get(), 0U);
   }
}

TEST_F(TableMounts, WhatAKilledWriterHadAcknowledgedIsThereAndTheRestIsWhole) {
   TableMount watching(directory, "table", writer());
   for (int round = 0; round < 40; ++round) {
      int report[2];
      ASSERT_EQ(::pipe(report), 0);
      ChildProcess child([&](ChildProcess& self) {
         TableMount writing(directory, "table", writer());
         self.say();
         for (std::uint32_t i = 0;; ++i) {
            writing.put(bytes(i % 700), bytes(i));
            if (i % 3 == 0) {
               del(writing, (i / 2) % 700);
            }
            if (::write(report[1], &i, sizeof i) < 0) {
               ::_exit(1);
            }
         }
      });
      child.hear();
      ::close(report[1]);
      std::uint32_t last = 0;
      for (int i = 0; i < 100 + round * 37; ++i) {
         ASSERT_EQ(::read(report[0], &last, sizeof last), static_cast<ssize_t>(sizeof last));
      }
      child.kill();
      while (::read(report[0], &last, sizeof last) == static_cast<ssize_t>(sizeof last)) {
      }
      ::close(report[0]);
      const std::optional<Bytes> acknowledged = get(watching, last % 700);
      if (!(last % 3 == 0 && (last / 2) % 700 == last % 700)) {
         ASSERT_TRUE(acknowledged) << last;
      }
      watching.put(bytes(9999), bytes(1));
      ASSERT_EQ(watching.audit().problems, std::vector<std::string>());
      ASSERT_EQ(watching.mounts().size(), 1U);
   }
}

TEST_F(TableMounts, WritersInManyProcessesLoseNothing) {
   constexpr std::uint32_t processes = 4;
   constexpr std::uint32_t each = 3000;
   TableMount watching(directory, "table", writer());
   std::vector<std::unique_ptr<ChildProcess>> children;
   for (std::uint32_t process = 0; process < processes; ++process) {
      children.push_back(std::make_unique<ChildProcess>([&, process] {
         TableMount writing(directory, "table", writer());
         for (std::uint32_t i = 0; i < each; ++i) {
            writing.put(bytes(process * each + i), bytes(i));
            if (i % 2 == 1) {
               EXPECT_TRUE(del(writing, process * each + i - 1));
            }
         }
      }));
   }
   for (const auto& child : children) {
      EXPECT_TRUE(child->succeeds());
   }
   EXPECT_EQ(watching.count(), processes * each / 2);
   for (std::uint32_t key = 0; key < processes * each; ++key) {
      ASSERT_EQ(get(watching, key),
                key % each % 2 == 1 ? std::optional(bytes(key % each)) : std::nullopt);
   }
   EXPECT_EQ(watching.audit().problems, std::vector<std::string>());
   EXPECT_EQ(watching.audit().changes, processes * each * 3 / 2);
}

} // namespace
