// What becomes of a damaged table.

#include "agent/DamagedTable.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "platform/tables/TableMount.h"
#include "tests/support/TempDir.h"
#include "tests/torture/Tracee.h"
#include "tests/unit/platform/tables/ChildProcess.h"

namespace Agent {
namespace {

using namespace Platform::Tables;
using Bytes = std::vector<std::uint8_t>;

TableShape shape() {
   TableShape of;
   of.keyType = "Key";
   of.recordType = "Record";
   of.keySize = 4;
   of.recordSize = 8;
   of.maxRecords = 1000;
   return of;
}

Bytes bytesOf(std::uint32_t value) {
   Bytes bytes(4);
   std::memcpy(bytes.data(), &value, sizeof value);
   return bytes;
}

class DamagedTableTest : public testing::Test {
protected:
   DamagedTableTest() {
      TableMount mount(tables, "t", {.role = TableRole::writer, .shape = shape(), .create = true});
      for (std::uint32_t key = 1; key <= 100; ++key) {
         mount.put(bytesOf(key), bytesOf(0xabcd0000 + key));
      }
   }

   std::string file(const std::string& suffix) const { return front + suffix; }

   /// Damages the record of a key.
   void damage(std::uint32_t key, const std::string& suffix = ".tbl") const {
      const int fd = ::open(file(suffix).c_str(), O_RDWR);
      const std::uint32_t value = 0xabcd0000 + key;
      const auto size = static_cast<std::size_t>(std::filesystem::file_size(file(suffix)));
      std::string content(size, '\0');
      ASSERT_EQ(::pread(fd, content.data(), size, 0), static_cast<ssize_t>(size));
      const std::size_t at =
         content.find(std::string(reinterpret_cast<const char*>(&value), sizeof value));
      ASSERT_NE(at, std::string::npos);
      ASSERT_EQ(::pwrite(fd, "?", 1, static_cast<off_t>(at)), 1);
      ::close(fd);
   }

   /// What the agent does at its start.
   DamagedTable::Outcome mend() {
      const DamagedTable table(tables, "t");
      const TableBase::MountOptions options{.role = TableRole::writer};
      try {
         DamagedTable::Outcome outcome;
         if (table.isInterrupted()) {
            outcome = table.finish(shape(), options, all());
         }
         const TableMount mount(tables, "t", {.role = TableRole::writer});
         table.settle();
         return outcome;
      } catch (const CorruptionException&) {
         return replace(all());
      }
   }
   DamagedTable::Outcome replace(const DamagedTable::IsRecord& isRecord) {
      const DamagedTable table(tables, "t");
      const auto outcome = table.replace(shape(), {.role = TableRole::writer}, isRecord);
      table.settle();
      return outcome;
   }
   static DamagedTable::IsRecord all() {
      return [](auto key, auto record) { return key.size() == 4 && record.size() == 4; };
   }
   std::size_t count() const { return TableMount(tables, "t", {}).count(); }

   TestSupport::TempDir directory;
   TableDirectory tables{directory.path("tables")};
   std::string front = directory.path("tables/t");
};

TEST_F(DamagedTableTest, EveryUndamagedRecordIsInTheNewOne) {
   damage(7);
   damage(50);
   const auto outcome = replace(all());
   EXPECT_EQ(outcome.kept, 98u);
   EXPECT_EQ(outcome.lost, 2u);
   EXPECT_TRUE(outcome.isKnown);
   EXPECT_EQ(outcome.file, file(".damaged"));
   const TableMount mount(tables, "t", {.role = TableRole::writer}); // which looks through it
   EXPECT_EQ(mount.count(), 98u);
   std::vector<std::uint64_t> record(mount.recordWords());
   EXPECT_EQ(mount.get(bytesOf(7), record), std::nullopt);
   EXPECT_EQ(mount.get(bytesOf(8), record), 4u);
   EXPECT_EQ(static_cast<std::uint32_t>(record.front()), 0xabcd0008);
}

TEST_F(DamagedTableTest, WhatIsNoRecordIsLeftOut) {
   const auto outcome = replace([](auto key, auto) { return key.front() != 9; });
   EXPECT_EQ(outcome.kept, 99u);
   EXPECT_EQ(outcome.lost, 1u);
}

TEST_F(DamagedTableTest, OneThatIsFoundOutAgainBeginsEmpty) {
   const auto outcome = replace({});
   EXPECT_EQ(outcome.kept, 0u);
   EXPECT_EQ(count(), 0u);
}

TEST_F(DamagedTableTest, OfNoTableAtAllNothingIsKnown) {
   std::filesystem::resize_file(file(".tbl"), 100);
   const auto outcome = replace(all());
   EXPECT_EQ(outcome.kept, 0u);
   EXPECT_FALSE(outcome.isKnown);
   EXPECT_EQ(count(), 0u);
   EXPECT_EQ(std::filesystem::file_size(file(".damaged")), 100u);
}

TEST_F(DamagedTableTest, TheLastTwoAreKeptAsTheyWere) {
   std::string before(1000, '\0');
   const int fd = ::open(file(".tbl").c_str(), O_RDONLY);
   ASSERT_EQ(::pread(fd, before.data(), before.size(), 4096), 1000);
   ::close(fd);
   replace({});
   EXPECT_EQ(directory.read("tables/t.damaged").substr(4096, 1000), before);
   replace({});
   EXPECT_EQ(directory.read("tables/t.damaged.old").substr(4096, 1000), before);
   EXPECT_NE(directory.read("tables/t.damaged").substr(4096, 1000), before);
   replace({});
   EXPECT_NE(directory.read("tables/t.damaged.old").substr(4096, 1000), before);
   EXPECT_THAT(tables.tableNames(), testing::ElementsAre("t")) << "they are no tables";
}

TEST_F(DamagedTableTest, WhoHasTheOldOneMountedMeetsTheDamage) {
   const TableMount reader(tables, "t", {});
   TableMount writer(tables, "t", {.role = TableRole::writer});
   replace(all());
   std::vector<std::uint64_t> record(reader.recordWords());
   EXPECT_THROW(reader.get(bytesOf(8), record), CorruptionException);
   EXPECT_THROW(writer.put(bytesOf(8), bytesOf(1)), CorruptionException);
   EXPECT_EQ(count(), 100u);
}

TEST_F(DamagedTableTest, NoLinkIsFollowed) {
   directory.write("precious", "x");
   std::filesystem::create_symlink(directory.path("precious"), file(".damaged.old"));
   std::filesystem::create_symlink(directory.path("precious"), file(".damaged"));
   replace({});
   replace({});
   EXPECT_EQ(directory.read("precious"), "x");
}

// Of what was written while the rest was read, nobody knew.
TEST_F(DamagedTableTest, WhatIsWrittenMeanwhileIsRefusedOrKept) {
   TableMount client(tables, "t", {.role = TableRole::writer});
   damage(7);
   std::size_t refused = 0;
   std::size_t accepted = 0;
   const auto outcome = replace([&](auto key, auto) {
      // The record has been read, and another client replaces it.
      try {
         client.put(key, bytesOf(0x1111));
         ++accepted;
      } catch (const CorruptionException&) {
         ++refused;
      }
      return true;
   });
   EXPECT_GE(accepted + refused, 99u);
   EXPECT_EQ(outcome.kept, 99u);
   const TableMount mount(tables, "t", {});
   std::vector<std::uint64_t> record(mount.recordWords());
   std::size_t found = 0;
   for (std::uint32_t key = 1; key <= 100; ++key) {
      if (mount.get(bytesOf(key), record)) {
         found += static_cast<std::uint32_t>(record.front()) == 0x1111 ? 1U : 0U;
      }
   }
   EXPECT_EQ(found, accepted) << "what was accepted is there";
}

TEST_F(DamagedTableTest, WhatIsRemovedMeanwhileIsRefusedOrStaysAway) {
   TableMount client(tables, "t", {.role = TableRole::writer});
   damage(7);
   std::vector<std::uint64_t> record(client.recordWords());
   std::size_t removed = 0;
   replace([&](auto key, auto) {
      try {
         removed += client.del(key, record) ? 1U : 0U;
      } catch (const CorruptionException&) {
         // It is told.
      }
      return true;
   });
   EXPECT_EQ(count(), 99u - removed);
}

TEST_F(DamagedTableTest, UntilItIsSettledItCountsAsInterrupted) {
   const DamagedTable table(tables, "t");
   damage(7);
   table.replace(shape(), {.role = TableRole::writer}, all());
   EXPECT_TRUE(table.isInterrupted());
   table.settle();
   EXPECT_FALSE(table.isInterrupted());
   table.settle(); // which is done
   table.replace(shape(), {.role = TableRole::writer}, {});
   EXPECT_FALSE(table.isInterrupted()) << "nothing was salvaged";
}

TEST_F(DamagedTableTest, ALinkInThePlaceOfTheSavedRecordsIsNotFollowedAndNoObstacle) {
   directory.write("precious", "x");
   std::filesystem::create_symlink(directory.path("precious"), file("%2Fsalvaged.tbl"));
   EXPECT_EQ(mend().kept, 0u);
   EXPECT_EQ(count(), 100u);
   std::filesystem::create_symlink(directory.path("precious"), file("%2Fsalvaged.tbl"));
   damage(7);
   EXPECT_EQ(mend().kept, 99u);
   EXPECT_EQ(directory.read("precious"), "x");
   EXPECT_THAT(tables.tableNames(), testing::ElementsAre("t"));
}

TEST_F(DamagedTableTest, WhatStandsInThePlaceOfTheSavedRecordsIsNoObstacle) {
   TableShape other = shape();
   other.keySize = 12;
   other.recordType = "Other";
   {
      TableMount mount(tables, "t/salvaged",
                       {.role = TableRole::writer, .shape = other, .create = true});
      mount.put(Bytes(12, 1), Bytes(4, 1));
   }
   damage(7);
   const auto outcome = mend();
   EXPECT_EQ(outcome.kept, 99u);
   EXPECT_GE(outcome.lost, 1u);
   EXPECT_FALSE(outcome.isKnown);
   EXPECT_EQ(count(), 99u);
   EXPECT_THAT(tables.tableNames(), testing::ElementsAre("t"));
}

// They went with the table that they were saved in.
TEST_F(DamagedTableTest, WhatOnlyADamagedTableOfSavedRecordsHasIsKeptAsFarAsItCanBeRead) {
   {
      TableMount spare(tables, "t/salvaged",
                       {.role = TableRole::writer, .shape = shape(), .create = true});
      for (std::uint32_t key = 200; key < 210; ++key) {
         spare.put(bytesOf(key), bytesOf(0xabcd0000 + key));
      }
      spare.put(bytesOf(8), bytesOf(0x11)); // older
   }
   damage(7);
   damage(203, "%2Fsalvaged.tbl");
   const auto outcome = mend();
   EXPECT_EQ(outcome.kept, 99u + 9u);
   EXPECT_FALSE(outcome.isKnown);
   const TableMount mount(tables, "t", {});
   EXPECT_EQ(mount.count(), 99u + 9u);
   std::vector<std::uint64_t> record(mount.recordWords());
   ASSERT_EQ(mount.get(bytesOf(8), record), 4u);
   EXPECT_EQ(static_cast<std::uint32_t>(record.front()), 0xabcd0008)
      << "what the table has is newer";
   EXPECT_EQ(mount.get(bytesOf(204), record), 4u);
   EXPECT_EQ(mount.get(bytesOf(203), record), std::nullopt);
   EXPECT_THAT(tables.tableNames(), testing::ElementsAre("t"));
}

// Who had the table mounted was left on it for ever, if the process was killed between the removal
// of its name and that of its contents.
TEST_F(DamagedTableTest, KilledAtAnySystemCallItLosesNothingAndLeavesNobodyOnTheOldOne) {
   std::size_t calls = 0;
   std::size_t finished = 0;
   for (bool isDone = false; !isDone; calls += 2) { // each call is met at its begin and at its end
      const TableMount reader(tables, "t", {});
      TableMount writer(tables, "t", {.role = TableRole::writer});
      damage(7);
      {
         Torture::Tracee process([] {}, [this] { replace(all()); });
         for (std::size_t i = 0; i < calls && !isDone; ++i) {
            isDone = !process.call();
         }
      }
      const bool isInterrupted = DamagedTable(tables, "t").isInterrupted();
      finished += isInterrupted ? 1U : 0U;
      const auto outcome = mend();
      if (isInterrupted) {
         EXPECT_FALSE(outcome.isKnown) << "whether more was lost is not known any more";
      }
      EXPECT_FALSE(DamagedTable(tables, "t").isInterrupted()) << calls;
      EXPECT_THAT(tables.tableNames(), testing::ElementsAre("t"));
      ASSERT_EQ(count(), 99u) << "killed at system call " << calls;
      std::vector<std::uint64_t> record(reader.recordWords());
      EXPECT_THROW(reader.get(bytesOf(8), record), CorruptionException) << calls;
      EXPECT_THROW(writer.put(bytesOf(8), bytesOf(1)), CorruptionException) << calls;
      TableMount mount(tables, "t", {.role = TableRole::writer});
      mount.put(bytesOf(7), bytesOf(0xabcd0007));
   }
   EXPECT_GT(calls, 50u);
   EXPECT_GT(finished, 10u);
}

TEST_F(DamagedTableTest, WhatIsNewerThanAnInterruptionStays) {
   {
      TableMount spare(tables, "t/salvaged",
                       {.role = TableRole::writer, .shape = shape(), .create = true});
      spare.put(bytesOf(7), bytesOf(0x11));
      spare.put(bytesOf(1000), bytesOf(0x22));
   }
   const auto outcome = mend();
   EXPECT_EQ(outcome.kept, 1u);
   const TableMount mount(tables, "t", {});
   std::vector<std::uint64_t> record(mount.recordWords());
   ASSERT_EQ(mount.get(bytesOf(7), record), 4u);
   EXPECT_EQ(static_cast<std::uint32_t>(record.front()), 0xabcd0007);
   ASSERT_EQ(mount.get(bytesOf(1000), record), 4u);
   EXPECT_EQ(static_cast<std::uint32_t>(record.front()), 0x22u);
}

TEST_F(DamagedTableTest, WhatWasSavedIsNotUsedIfItIsDamagedItself) {
   TableMount(tables, "t/salvaged", {.role = TableRole::writer, .shape = shape(), .create = true});
   std::filesystem::resize_file(directory.path("tables/t%2Fsalvaged.tbl"), 100);
   const auto finished = mend();
   EXPECT_EQ(finished.kept, 0u);
   EXPECT_EQ(count(), 100u);
   EXPECT_THAT(tables.tableNames(), testing::ElementsAre("t"));

   directory.write("tables/t%2Fsalvaged.tbl", "no table");
   damage(7);
   const auto replaced = replace(all());
   EXPECT_EQ(replaced.kept, 99u);
   EXPECT_FALSE(replaced.isKnown);
   EXPECT_THAT(tables.tableNames(), testing::ElementsAre("t"));
}

TEST_F(DamagedTableTest, HoweverLittleRoomThereIsNothingIsLost) {
   const std::string place = directory.path("small");
   std::filesystem::create_directory(place);
   TablesTest::ChildProcess child([&](TablesTest::ChildProcess& self) {
      if (::unshare(CLONE_NEWNS) != 0 ||
          ::mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0 ||
          ::mount("small", place.c_str(), "tmpfs", 0, "size=4m") != 0) {
         self.say('s');
         return;
      }
      self.say('r');
      tables = TableDirectory(place + "/tables");
      front = place + "/tables/t";
      unsigned refused = 0;
      unsigned done = 0;
      // From no room at all to enough of it.
      for (std::size_t room = 0; done < 3 && room < 400; room += 10) {
         {
            TableMount mount(tables, "t",
                             {.role = TableRole::writer, .shape = shape(), .create = true});
            for (std::uint32_t key = 1; key <= 1000; ++key) {
               mount.put(bytesOf(key), bytesOf(0xabcd0000 + key));
            }
         }
         damage(7);
         const std::string filling = place + "/filling";
         const int fd = ::open(filling.c_str(), O_RDWR | O_CREAT, 0600);
         const std::string block(4096, 'x');
         off_t size = 0;
         for (ssize_t got; (got = ::write(fd, block.data(), block.size())) > 0; size += got) {
         }
         EXPECT_EQ(::ftruncate(fd, std::max<off_t>(0, size - static_cast<off_t>(4096 * room))), 0);
         ::close(fd);
         try {
            replace(all());
            ++done;
         } catch (const std::system_error& error) {
            EXPECT_EQ(error.code(), std::errc::no_space_on_device);
            ++refused;
            ::unlink(filling.c_str());
            mend();
         }
         ::unlink(filling.c_str());
         EXPECT_EQ(count(), 999u) << room;
         tables.tableDel("t", true);
         ::unlink((place + "/tables/t.damaged").c_str());
         ::unlink((place + "/tables/t.damaged.old").c_str());
      }
      EXPECT_GT(refused, 3u);
      EXPECT_EQ(done, 3u);
   });
   if (child.hear() == 's') {
      GTEST_SKIP() << "this process may not mount a file system of its own";
   }
   EXPECT_TRUE(child.succeeds());
}

TEST_F(DamagedTableTest, WithoutRoomForWhatIsSavedTheDamagedOneStays) {
   directory.write("tables/t%2Fsalvaged.ctl", "");
   std::filesystem::create_directory(file("%2Fsalvaged.tbl"));
   damage(7);
   EXPECT_THROW(replace(all()), std::exception);
   EXPECT_TRUE(std::filesystem::exists(file(".tbl")));
}

} // namespace
} // namespace Agent
