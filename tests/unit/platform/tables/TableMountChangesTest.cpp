// What a mount is told of the changes that others make.

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "tests/unit/platform/tables/TableFixture.h"

namespace {

using namespace TablesTest;

class TableMountChanges : public TableFixture {
protected:
   static TableShape smallJournal() {
      TableShape of = shape();
      of.journalEntries = 16;
      return of;
   }
};

/// Hears a mount's bell.
class Listener {
public:
   explicit Listener(const TableMount& mount) : _fd(::inotify_init1(IN_NONBLOCK)) {
      const std::string path = "/proc/self/fd/" + std::to_string(mount.bellFd());
      EXPECT_GE(::inotify_add_watch(_fd, path.c_str(), IN_MODIFY), 0);
   }
   ~Listener() { ::close(_fd); }
   Listener(const Listener&) = delete;
   Listener& operator=(const Listener&) = delete;

   bool heard() {
      char buffer[4096];
      return ::read(_fd, buffer, sizeof buffer) > 0;
   }

private:
   int _fd;
};

TEST_F(TableMountChanges, AreToldInOrderWithTheirKeys) {
   TableMount writing(directory, "table", writer());
   writing.put(bytes(1), bytes(1)); // before the mount
   TableMount reading(directory, "table", reader());
   EXPECT_EQ(changes(reading), "");
   writing.put(bytes(3), bytes(1));
   writing.put(bytes(2), bytes(1));
   writing.put(bytes(3), bytes(2));
   del(writing, 1);
   EXPECT_EQ(changes(reading), "3 2 3 1");
   EXPECT_EQ(changes(reading), "");
   EXPECT_FALSE(del(writing, 1));
   EXPECT_EQ(changes(reading), "");
}

TEST_F(TableMountChanges, OfOneselfAreSkippedAndOfEveryOtherMountTold) {
   TableMount first(directory, "table", writer());
   TableMount second(directory, "table", writer());
   TableMount reading(directory, "table", reader());
   first.put(bytes(1), bytes(1));
   second.put(bytes(2), bytes(1));
   first.put(bytes(3), bytes(1));
   EXPECT_EQ(changes(first), "2");
   EXPECT_EQ(changes(second), "1 3");
   EXPECT_EQ(changes(reading), "1 2 3");
}

TEST_F(TableMountChanges, OfAMountThatHadOnesPlaceBeforeAreTold) {
   { const TableMount making(directory, "table", writer()); }
   TableMount reading(directory, "table", reader());
   { TableMount(directory, "table", writer()).put(bytes(1), bytes(1)); }
   TableMount writing(directory, "table", writer());
   { TableMount(directory, "table", writer()).put(bytes(2), bytes(1)); }
   EXPECT_EQ(changes(reading), "1 2");
   EXPECT_EQ(changes(writing), "2");
}

TEST_F(TableMountChanges, AreAllToldWhileTheJournalHasThem) {
   TableMount writing(directory, "table", writer(smallJournal()));
   TableMount reading(directory, "table", reader(smallJournal()));
   std::string expected;
   for (unsigned round = 0; round < 20; ++round) {
      expected.clear();
      for (std::uint32_t key = 0; key < 16; ++key) {
         writing.put(bytes(key), bytes(round));
         expected += (key != 0 ? " " : "") + std::to_string(key);
      }
      ASSERT_EQ(changes(reading), expected);
   }
}

TEST_F(TableMountChanges, AreMissedByWhoIsBehindByMoreThanTheJournalHas) {
   TableMount writing(directory, "table", writer(smallJournal()));
   TableMount reading(directory, "table", reader(smallJournal()));
   for (std::uint32_t key = 0; key < 17; ++key) {
      writing.put(bytes(key), bytes(1));
   }
   EXPECT_EQ(changes(reading), "missed");
   writing.put(bytes(99), bytes(1));
   EXPECT_EQ(changes(reading), "99");
}

TEST_F(TableMountChanges, OfOneselfAreNeverMissed) {
   TableMount writing(directory, "table", writer(smallJournal()));
   TableMount other(directory, "table", writer(smallJournal()));
   for (std::uint32_t key = 0; key < 100; ++key) {
      writing.put(bytes(key), bytes(1));
   }
   for (std::uint32_t key = 0; key < 100; ++key) {
      del(writing, key);
   }
   EXPECT_EQ(changes(writing), "");
   other.put(bytes(5), bytes(1));
   EXPECT_EQ(changes(writing), "5");
}

TEST_F(TableMountChanges, OfOthersAreNotSkippedWithThoseOfOneself) {
   TableMount writing(directory, "table", writer(smallJournal()));
   TableMount other(directory, "table", writer(smallJournal()));
   other.put(bytes(1), bytes(1));
   writing.put(bytes(2), bytes(1));
   EXPECT_EQ(changes(writing), "1");
   writing.put(bytes(3), bytes(1));
   other.put(bytes(4), bytes(1));
   writing.put(bytes(5), bytes(1));
   EXPECT_EQ(changes(writing), "4");
   EXPECT_EQ(changes(other), "2 3 5");
}

TEST_F(TableMountChanges, ArmingSaysWhetherThereAreSome) {
   TableMount writing(directory, "table", writer());
   TableMount reading(directory, "table", reader());
   EXPECT_TRUE(reading.canBeWoken());
   EXPECT_TRUE(reading.arm());
   writing.put(bytes(1), bytes(1));
   EXPECT_FALSE(reading.arm());
   EXPECT_EQ(changes(reading), "1");
   EXPECT_TRUE(reading.arm());
}

TEST_F(TableMountChanges, RingTheBellOnceForThoseWhoAskedToBeWoken) {
   TableMount writing(directory, "table", writer());
   TableMount reading(directory, "table", reader());
   Listener listener(reading);
   writing.put(bytes(1), bytes(1));
   EXPECT_FALSE(listener.heard());
   (void)changes(reading);
   EXPECT_TRUE(reading.arm());
   writing.put(bytes(1), bytes(2));
   EXPECT_TRUE(listener.heard());
   writing.put(bytes(1), bytes(3));
   EXPECT_FALSE(listener.heard());
   (void)changes(reading);
   EXPECT_TRUE(reading.arm());
   del(writing, 1);
   EXPECT_TRUE(listener.heard());
}

TEST_F(TableMountChanges, OfOneselfDoNotRingForOneselfAndLeaveTheWishInPlace) {
   TableMount writing(directory, "table", writer());
   TableMount other(directory, "table", writer());
   Listener listener(writing);
   EXPECT_TRUE(writing.arm());
   writing.put(bytes(1), bytes(1));
   EXPECT_FALSE(listener.heard());
   other.put(bytes(1), bytes(2));
   EXPECT_TRUE(listener.heard());
}

TEST_F(TableMountChanges, RingForMountsBeyondThoseThatHaveABitOfTheirOwn) {
   std::vector<std::unique_ptr<TableMount>> mounts;
   for (int i = 0; i < 70; ++i) {
      mounts.push_back(std::make_unique<TableMount>(directory, "table", writer()));
   }
   for (const std::size_t sleeper : {62U, 63U, 64U, 69U}) {
      Listener listener(*mounts[sleeper]);
      for (const std::size_t writing : {0U, 61U, 63U, 65U, 68U}) {
         if (writing == sleeper) {
            continue;
         }
         (void)changes(*mounts[sleeper]);
         ASSERT_TRUE(mounts[sleeper]->arm());
         mounts[writing]->put(bytes(1), bytes(1));
         ASSERT_TRUE(listener.heard()) << sleeper << " " << writing;
      }
   }
}

TEST_F(TableMountChanges, ThatADeadWriterCommittedAreToldBeforeAndAfterTheyArePublished) {
   TableMount writing(directory, "table", writer());
   TableMount reading(directory, "table", reader());
   TableMount other(directory, "table", writer());
   Words key(reading.keyWords());
   EXPECT_FALSE(reading.preparedChange(key));
   const int fd = ::open(file("table.tbl").c_str(), O_RDWR);
   // As it is left by a writer that dies after its commit.
   std::uint64_t head = 0;
   const std::uint32_t dead = 900U << 21 | 5;
   ASSERT_EQ(::pread(fd, &head, sizeof head, 4096 + 128), 8);
   writing.put(bytes(7), bytes(1));
   ASSERT_EQ(::pwrite(fd, &head, sizeof head, 4096 + 128), 8);
   ASSERT_EQ(::pwrite(fd, &dead, sizeof dead, 4096), 4);
   ::close(fd);

   EXPECT_EQ(changes(reading), "");
   EXPECT_EQ(get(reading, 7), bytes(1));
   EXPECT_TRUE(reading.preparedChange(key));
   EXPECT_EQ(number(key), 7U);
   other.put(bytes(8), bytes(1));
   EXPECT_EQ(changes(reading), "7 8");
   EXPECT_EQ(changes(other), "7");
   EXPECT_FALSE(reading.preparedChange(key));
   EXPECT_EQ(other.audit().recoveries, 1U);
   EXPECT_EQ(other.audit().problems, std::vector<std::string>());
}

TEST_F(TableMountChanges, ThatWereRefusedAreNotTold) {
   TableShape of = smallJournal();
   of.maxRecords = 1;
   TableMount writing(directory, "table", writer(of));
   TableMount reading(directory, "table", reader(of));
   writing.put(bytes(1), bytes(1));
   EXPECT_EQ(codeOf([&] { writing.put(bytes(2), bytes(1)); }), ENOBUFS);
   EXPECT_EQ(codeOf([&] { writing.put(bytes(1), Bytes(13)); }), EINVAL);
   Words key(reading.keyWords());
   EXPECT_EQ(changes(reading), "1");
   EXPECT_FALSE(reading.preparedChange(key));
}

} // namespace
