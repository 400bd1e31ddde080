// The files of tables: how they come and go, what may stand in their place, who may open them.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>

#include "tests/support/EnvironmentVariable.h"
#include "tests/unit/platform/tables/ChildProcess.h"
#include "tests/unit/platform/tables/TableFixture.h"

namespace {

using namespace TablesTest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

class TableFiles : public TableFixture {
protected:
   std::vector<std::string> files() const {
      std::vector<std::string> names;
      for (const auto& entry : std::filesystem::directory_iterator(directory.path())) {
         names.push_back(entry.path().filename());
      }
      std::sort(names.begin(), names.end());
      return names;
   }
   mode_t mode(const std::string& name) const {
      struct stat status = {};
      EXPECT_EQ(::stat(file(name).c_str(), &status), 0);
      return status.st_mode & 07777;
   }
   gid_t group(const std::string& name) const {
      struct stat status = {};
      EXPECT_EQ(::stat(file(name).c_str(), &status), 0);
      return status.st_gid;
   }
   void make() {
      TableMount mount(directory, "table", writer());
      mount.put(bytes(1), bytes(2));
   }
   std::string mountError(const TableMount::Options& options) {
      return errorOf([&] { const TableMount mount(directory, "table", options); });
   }
   /// Overwrites bytes of the table's file.
   void patch(std::size_t offset, const std::string& with) {
      const int fd = ::open(file("table.tbl").c_str(), O_RDWR);
      EXPECT_EQ(::pwrite(fd, with.data(), with.size(), static_cast<off_t>(offset)),
                static_cast<ssize_t>(with.size()));
      ::close(fd);
   }
   /// Runs `body` as another user, in `groupId` only.
   static bool asSomebodyElse(gid_t groupId, const std::function<void()>& body) {
      ChildProcess child([&] {
         ASSERT_EQ(::setgroups(0, nullptr), 0);
         ASSERT_EQ(::setresgid(groupId, groupId, groupId), 0);
         ASSERT_EQ(::setresuid(54321, 54321, 54321), 0);
         body();
      });
      return child.succeeds();
   }
   static constexpr gid_t ourGroup = 54300;
   static constexpr gid_t otherGroup = 54301;
};

#define SKIP_UNLESS_ROOT()                                                                         \
   if (::geteuid() != 0) {                                                                         \
      GTEST_SKIP() << "only root can become another user";                                         \
   }

TEST_F(TableFiles, AreMadeWithTheDirectoryAndWithModesThatIgnoreTheMask) {
   const mode_t mask = ::umask(0077);
   make();
   ::umask(mask);
   EXPECT_THAT(files(), ElementsAre(".lock", "table.bell", "table.ctl", "table.reg", "table.tbl"));
   EXPECT_EQ(mode("."), 0770U);
   EXPECT_EQ(mode("table.tbl"), 0660U);
   EXPECT_EQ(mode("table.ctl"), 0660U);
   EXPECT_EQ(mode("table.bell"), 0660U);
   EXPECT_EQ(mode("table.reg"), 0660U);
}

TEST_F(TableFiles, WhoMayReadATableMayWriteWhatReadersLeaveWordIn) {
   TableMount::Options options = writer();
   options.mode = 0640;
   const TableMount mount(directory, "table", options);
   EXPECT_EQ(mode("table.tbl"), 0640U);
   EXPECT_EQ(mode("table.ctl"), 0660U);
   EXPECT_EQ(mode("table.reg"), 0660U);
   options.mode = 0644;
   const TableMount other(directory, "other", options);
   EXPECT_EQ(mode("other.tbl"), 0644U);
   EXPECT_EQ(mode("other.ctl"), 0666U);
   EXPECT_EQ(mode("other.bell"), 0666U);
   EXPECT_EQ(mode("other.reg"), 0666U);
}

TEST_F(TableFiles, AreNotMadeByAMountThatDoesNotAskForIt) {
   EXPECT_EQ(codeOf([&] { const TableMount mount(directory, "table", reader()); }), ENOENT);
   EXPECT_FALSE(temp.has("tables"));
   { const TableMount other(directory, "other", writer()); }
   const std::vector<std::string> before = files();
   EXPECT_EQ(mountError(reader()), "2 system: cannot open '" + file("table.tbl") + "'");
   EXPECT_EQ(files(), before);
}

TEST_F(TableFiles, OfATableThatIsThereKeepTheirModeAndGroup) {
   make();
   TableMount::Options options = writer();
   options.mode = 0600;
   options.group = 1;
   const TableMount mount(directory, "table", options);
   EXPECT_EQ(mode("table.tbl"), 0660U);
   EXPECT_NE(group("table.tbl"), 1U);
   EXPECT_EQ(get(mount, 1), bytes(2));
}

TEST_F(TableFiles, CanBeMadeByAReaderThatWaitsForWriters) {
   TableMount::Options options = reader();
   options.create = true;
   TableMount reading(directory, "table", options);
   EXPECT_EQ(reading.count(), 0U);
   TableMount writing(directory, "table", writer());
   writing.put(bytes(1), bytes(2));
   EXPECT_EQ(get(reading, 1), bytes(2));
   EXPECT_EQ(changes(reading), "1");
}

TEST_F(TableFiles, OfAnyNameCanBeMadeAndAreListedUnderThatName) {
   const std::vector<std::string> names = {" ",     "%",  "%41",  ".",         "..",
                                           "../up", "/",  "a b",  "a.b",       "a/b",
                                           "a.tbl", "\n", "\xFF", "übergröße", "x.y.z"};
   for (const std::string& name : names) {
      TableMount mount(directory, name, writer());
      mount.put(bytes(1), bytes(static_cast<std::uint32_t>(name.size())));
   }
   std::vector<std::string> sorted = names;
   std::sort(sorted.begin(), sorted.end());
   EXPECT_EQ(directory.tableNames(), sorted);
   for (const std::string& name : names) {
      EXPECT_EQ(get(TableMount(directory, name, reader()), 1),
                bytes(static_cast<std::uint32_t>(name.size())));
   }
   EXPECT_EQ(TableDirectory::fileName("../a b%"), "%2E.%2Fa%20b%25");
   EXPECT_EQ(std::filesystem::exists(temp.path("up.tbl")), false);
   for (const std::string& name : names) {
      directory.tableDel(name);
   }
   EXPECT_THAT(files(), ElementsAre(".lock"));
}

TEST_F(TableFiles, HaveNamesOfAtMost200Bytes) {
   EXPECT_EQ(codeOf([&] { (void)TableDirectory::fileName(""); }), EINVAL);
   EXPECT_EQ(TableDirectory::fileName(std::string(200, 'a')).size(), 200U);
   EXPECT_EQ(codeOf([&] { (void)TableDirectory::fileName(std::string(201, 'a')); }), ENAMETOOLONG);
   EXPECT_EQ(codeOf([&] { (void)TableDirectory::fileName(std::string(67, '/')); }), ENAMETOOLONG);
   { const TableMount mount(directory, std::string(200, 'a'), writer()); }
   EXPECT_EQ(codeOf([&] { const TableMount mount(directory, std::string(201, 'a'), writer()); }),
             ENAMETOOLONG);
   EXPECT_THAT(directory.tableNames(), ElementsAre(std::string(200, 'a')));
}

TEST_F(TableFiles, ThatAreNoTablesAreNotListed) {
   make();
   temp.write("tables/README", "");
   temp.write("tables/x.tbl~", "");
   temp.write("tables/a b.tbl", ""); // would be a%20b.tbl
   temp.write("tables/%6g.tbl", "");
   temp.write("tables/%41.tbl", ""); // would be A.tbl
   temp.write("tables/.tbl", "");
   EXPECT_THAT(directory.tableNames(), ElementsAre("table"));
   EXPECT_THAT(TableDirectory(temp.path("none")).tableNames(), ElementsAre());
   EXPECT_THAT(errorOf([&] { (void)TableDirectory(file("README")).tableNames(); }),
               StartsWith("20 system: cannot read the table directory"));
}

TEST(TableDirectory, IsWhatTheEnvironmentSaysOrTheSystems) {
   {
      const TestSupport::EnvironmentVariable variable("TARN_TABLE_DIR", "/somewhere/else");
      EXPECT_EQ(TableDirectory().path(), "/somewhere/else");
   }
   {
      const TestSupport::EnvironmentVariable variable("TARN_TABLE_DIR", "");
      EXPECT_EQ(TableDirectory().path(), "/dev/shm/tarn");
   }
   const TestSupport::EnvironmentVariable variable("TARN_TABLE_DIR", std::nullopt);
   EXPECT_EQ(TableDirectory().path(), "/dev/shm/tarn");
   EXPECT_EQ(codeOf([] { TableDirectory{""}; }), EINVAL);
}

TEST_F(TableFiles, ADirectoryThatIsALinkOrAFileIsRefused) {
   make();
   std::filesystem::create_directory_symlink(directory.path(), temp.path("link"));
   const TableDirectory link{temp.path("link")};
   EXPECT_NE(codeOf([&] { const TableMount mount(link, "table", reader()); }), 0);
   EXPECT_NE(codeOf([&] { const TableMount mount(link, "other", writer()); }), 0);
   const TableDirectory plain{temp.write("plain", "")};
   EXPECT_EQ(codeOf([&] { const TableMount mount(plain, "other", writer()); }), ENOTDIR);
   const TableDirectory deep{temp.path("no/such/parent")};
   EXPECT_EQ(codeOf([&] { const TableMount mount(deep, "other", writer()); }), ENOENT);
   EXPECT_THAT(files(), ElementsAre(".lock", "table.bell", "table.ctl", "table.reg", "table.tbl"));
}

TEST_F(TableFiles, OfAMountedTableAreRemovedByForceOnly) {
   auto mount = std::make_unique<TableMount>(directory, "table", writer());
   mount->put(bytes(1), bytes(2));
   EXPECT_EQ(errorOf([&] { directory.tableDel("table"); }),
             "16 generic: the shared table 'table' is mounted");
   EXPECT_THAT(directory.tableNames(), ElementsAre("table"));
   {
      const TableMount reading(directory, "table", reader());
      mount.reset();
      EXPECT_EQ(codeOf([&] { directory.tableDel("table"); }), EBUSY);
      directory.tableDel("table", true);
      EXPECT_THAT(files(), ElementsAre(".lock"));
      EXPECT_EQ(get(reading, 1), bytes(2)); // it keeps what it has
      TableMount again(directory, "table", writer());
      EXPECT_EQ(again.count(), 0U);
      again.put(bytes(1), bytes(3));
      EXPECT_EQ(get(reading, 1), bytes(2));
   }
   directory.tableDel("table");
   EXPECT_EQ(errorOf([&] { directory.tableDel("table"); }),
             "2 generic: there is no shared table 'table' in '" + directory.path() + "'");
}

TEST_F(TableFiles, RemovingATableWhereThereIsNoDirectoryMakesNone) {
   EXPECT_EQ(codeOf([&] { directory.tableDel("table"); }), ENOENT);
   EXPECT_FALSE(temp.has("tables"));
}

TEST_F(TableFiles, ATableThatNobodyCanSayIsMountedOrNotIsNotRemoved) {
   make();
   std::filesystem::remove(file("table.reg"));
   std::filesystem::create_symlink("/dev/null", file("table.reg"));
   EXPECT_EQ(codeOf([&] { directory.tableDel("table"); }), ELOOP);
   EXPECT_THAT(directory.tableNames(), ElementsAre("table"));
   directory.tableDel("table", true);
   EXPECT_THAT(files(), ElementsAre(".lock"));
}

TEST_F(TableFiles, OfADamagedTableCanBeRemoved) {
   make();
   temp.write("tables/table.tbl", "nonsense");
   temp.write("tables/table.reg", "nonsense");
   directory.tableDel("table");
   EXPECT_THAT(files(), ElementsAre(".lock"));
}

TEST_F(TableFiles, OfASpoiledTableEverybodyFindsDamageAndEveryRecordCanBeReadStill) {
   TableMount before(directory, "table", writer());
   const TableMount reading(directory, "table", reader());
   for (std::uint32_t key = 0; key < 50; ++key) {
      before.put(bytes(key), bytes(key + 100));
   }
   directory.tableSpoil("table");
   EXPECT_THROW(before.put(bytes(1), bytes(2)), CorruptionException);
   EXPECT_THROW(before.put(bytes(1000), bytes(2)), CorruptionException);
   EXPECT_THROW(del(before, 1), CorruptionException);
   EXPECT_THROW(before.checkWrite(bytes(1)), CorruptionException);
   EXPECT_THROW(get(reading, 1), CorruptionException);
   EXPECT_THROW(TableMount(directory, "table", writer()), CorruptionException);
   const TableMount after(directory, "table", reader());
   EXPECT_EQ(contents(after).size(), 50U);
   EXPECT_EQ(contents(after).at(bytes(7)), bytes(107));
   directory.tableSpoil("table"); // is so already
   EXPECT_EQ(contents(after).size(), 50U);
}

TEST_F(TableFiles, ThatAreNoneOrNoTableOrCutOffAreSpoiledAlready) {
   EXPECT_EQ(codeOf([&] { directory.tableSpoil("table"); }), ENOENT);
   make();
   EXPECT_EQ(codeOf([&] { directory.tableSpoil("none"); }), ENOENT);
   temp.write("precious", "x");
   std::filesystem::create_symlink(temp.path("precious"), file("link.tbl"));
   EXPECT_EQ(codeOf([&] { directory.tableSpoil("link"); }), ELOOP);
   EXPECT_EQ(temp.read("precious"), "x");
   std::filesystem::resize_file(file("table.tbl"), 100);
   directory.tableSpoil("table");
   EXPECT_EQ(std::filesystem::file_size(file("table.tbl")), 100U) << "and has not grown";
}

// As long as a record of a damaged table was read to make a new one of it, others went on writing.
TEST_F(TableFiles, WhatAWriterWasToldIsWrittenIsThereWhenItsTableIsSpoiled) {
   auto* const written = static_cast<std::atomic<std::uint32_t>*>(
      ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
   ASSERT_NE(written, MAP_FAILED);
   TableShape large = shape();
   large.maxRecords = 1U << 20;
   for (std::uint32_t round = 0; round < 30; ++round) {
      SCOPED_TRACE(round);
      *written = 0;
      const bool isNew = round % 2 == 0; // new records, which fill the index anew, or one record
      ChildProcess child([&] {
         TableMount mount(directory, "table", writer(large));
         for (std::uint32_t i = 1;; ++i) {
            try {
               mount.put(bytes(isNew ? i : 7), bytes(i));
            } catch (const CorruptionException&) {
               return;
            }
            *written = i;
         }
      });
      while (*written < 100 + 50 * round) {
         ::sched_yield();
      }
      directory.tableSpoil("table");
      const auto found = contents(TableMount(directory, "table", reader(large)));
      EXPECT_TRUE(child.succeeds());
      if (isNew) {
         EXPECT_EQ(found.size(), *written);
      } else {
         EXPECT_EQ(found.at(bytes(7)), bytes(*written));
      }
      directory.tableDel("table", true);
   }
   ::munmap(written, 4096);
}

TEST_F(TableFiles, AreMadeOnceWhenManyProcessesMakeThemAtTheSameTime) {
   for (std::uint32_t round = 0; round < 20; ++round) {
      const std::string name = "table" + std::to_string(round);
      std::vector<std::unique_ptr<ChildProcess>> children;
      for (std::uint32_t i = 0; i < 8; ++i) {
         children.push_back(std::make_unique<ChildProcess>([&, i](ChildProcess& self) {
            self.hear();
            TableMount mount(directory, name, writer());
            mount.put(bytes(i), bytes(i));
            self.say();
            self.hear();
            EXPECT_EQ(mount.count(), 8U);
         }));
      }
      for (const auto& child : children) {
         child->say();
      }
      for (const auto& child : children) {
         EXPECT_EQ(child->hear(), '.');
      }
      for (const auto& child : children) {
         child->say();
         ASSERT_TRUE(child->succeeds());
      }
      const TableMount mount(directory, name, reader());
      for (std::uint32_t i = 0; i < 8; ++i) {
         ASSERT_EQ(get(mount, i), bytes(i));
      }
   }
   EXPECT_EQ(directory.tableNames().size(), 20U);
   EXPECT_EQ(files().size(), 81U);
}

TEST_F(TableFiles, ThatADyingProcessLeftHalfMadeAreNotSeenAndDoNotMatter) {
   { const TableMount other(directory, "other", writer()); }
   temp.write("tables/table.ctl", std::string(4096, '\xFF'));
   temp.write("tables/table.bell", "");
   temp.write("tables/table.reg", std::string(300, 'x'));
   EXPECT_THAT(directory.tableNames(), ElementsAre("other"));
   EXPECT_EQ(codeOf([&] { const TableMount mount(directory, "table", reader()); }), ENOENT);
   TableMount mount(directory, "table", writer());
   mount.put(bytes(1), bytes(2));
   EXPECT_EQ(mount.mounts().size(), 1U);
   EXPECT_EQ(mode("table.ctl"), 0660U);
}

TEST_F(TableFiles, AreNotThereOrCompleteWheneverTheirMakerIsKilled) {
   for (int round = 0; round < 60; ++round) {
      const std::string name = "table" + std::to_string(round);
      ChildProcess child([&](ChildProcess& self) {
         self.say();
         const TableMount mount(directory, name, writer());
         ::pause();
      });
      child.hear();
      ::usleep(static_cast<useconds_t>(round * 20));
      child.kill();
      const std::vector<std::string> names = directory.tableNames();
      const bool there = std::find(names.begin(), names.end(), name) != names.end();
      if (there) {
         const TableMount reading(directory, name, reader());
         EXPECT_EQ(reading.count(), 0U);
      }
      TableMount mount(directory, name, writer());
      mount.put(bytes(1), bytes(2));
      EXPECT_EQ(mount.audit().problems, std::vector<std::string>());
   }
}

TEST_F(TableFiles, ThatAreNoTableAreRefusedWithTheReason) {
   make();
   const std::string table = content("table.tbl");
   const auto restored = [&] { temp.write("tables/table.tbl", table); };
   const std::string prefix = "corrupted: shared table 'table' cannot be used: ";
   for (const bool writes : {false, true}) {
      const TableMount::Options options = writes ? writer() : reader();

      patch(0, "Foreign!");
      EXPECT_EQ(mountError(options), prefix + "it is no shared table");
      restored();
      patch(8, std::string("\x02\0\0\0", 4));
      EXPECT_EQ(mountError(options), prefix + "it has layout 2, and this program knows layout 1");
      restored();
      patch(12, std::string("\x01\x02\x03\x04", 4));
      EXPECT_EQ(mountError(options), prefix + "it was made by a machine of the other byte order");
      restored();
      patch(12, std::string("\x01\x02\x04\x03", 4));
      EXPECT_EQ(mountError(options), prefix + "its header fails its check");
      restored();
      patch(16, std::string("\x05", 1));
      EXPECT_EQ(mountError(options), prefix + "its header fails its check");
      restored();
      std::filesystem::resize_file(file("table.tbl"), 100);
      EXPECT_EQ(mountError(options), prefix + "it is shorter than its header");
      std::filesystem::resize_file(file("table.tbl"), 0);
      EXPECT_EQ(mountError(options), prefix + "it is shorter than its header");
      restored();
      std::filesystem::resize_file(file("table.tbl"), table.size() - 1);
      EXPECT_EQ(mountError(options), prefix + "its file has " + std::to_string(table.size() - 1) +
                                        " bytes instead of " + std::to_string(table.size()));
      std::filesystem::resize_file(file("table.tbl"), table.size() + 1);
      EXPECT_THAT(mountError(options), HasSubstr("instead of"));
      restored();
      EXPECT_EQ(mountError(options), "");
   }
}

TEST_F(TableFiles, AreReplacedByNothingElse) {
   make();
   const std::string table = content("table.tbl");
   for (const std::string suffix : {".tbl", ".ctl", ".bell", ".reg"}) {
      const std::string path = file("table" + suffix);
      const std::string kept = temp.path("kept");
      std::filesystem::rename(path, kept);

      EXPECT_EQ(mountError(reader()), "2 system: cannot open '" + path + "'");
      if (suffix != ".tbl") {
         EXPECT_EQ(mountError(writer()), "2 system: cannot open '" + path + "'");
      }
      ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
      EXPECT_EQ(mountError(reader()), "22 generic: '" + path + "' is no regular file");
      EXPECT_EQ(mountError(writer()), "22 generic: '" + path + "' is no regular file");
      std::filesystem::remove(path);

      std::filesystem::create_directory(path);
      EXPECT_NE(mountError(reader()), "");
      EXPECT_NE(mountError(writer()), "");
      std::filesystem::remove(path);

      std::filesystem::create_symlink(kept, path);
      EXPECT_EQ(mountError(reader()), "40 system: cannot open '" + path + "'");
      EXPECT_EQ(mountError(writer()), "40 system: cannot open '" + path + "'");
      std::filesystem::remove(path);

      std::filesystem::create_hard_link(kept, path);
      EXPECT_EQ(mountError(reader()), "31 generic: '" + path + "' has more than one name");
      EXPECT_EQ(mountError(writer()), "31 generic: '" + path + "' has more than one name");
      std::filesystem::remove(path);

      std::filesystem::rename(kept, path);
      EXPECT_EQ(mountError(reader()), "");
      EXPECT_EQ(mountError(writer()), "");
   }
   EXPECT_EQ(content("table.tbl").size(), table.size());
   EXPECT_EQ(get(TableMount(directory, "table", reader()), 1), bytes(2));
}

TEST_F(TableFiles, CanBeReadByOthersWhenTheModeAllowsIt) {
   SKIP_UNLESS_ROOT();
   ASSERT_EQ(::chmod(temp.path().c_str(), 0755), 0);
   TableMount::Options options = writer();
   options.mode = 0644;
   TableMount writing(directory, "table", options);
   ASSERT_EQ(::chmod(directory.path().c_str(), 0755), 0);
   const TableMount closed(directory, "closed", writer());
   writing.put(bytes(1), bytes(2));
   EXPECT_TRUE(asSomebodyElse(otherGroup, [&] {
      TableMount reading(directory, "table", reader());
      EXPECT_EQ(get(reading, 1), bytes(2));
      EXPECT_TRUE(reading.canBeWoken());
      EXPECT_TRUE(reading.arm());
      EXPECT_EQ(reading.mounts().size(), 2U);
      EXPECT_EQ(codeOf([&] { reading.put(bytes(1), bytes(3)); }), EACCES);
      EXPECT_EQ(errorOf([&] { const TableMount other(directory, "table", writer()); }),
                "13 system: cannot open '" + file("table.tbl") + "'");
      EXPECT_EQ(errorOf([&] { const TableMount other(directory, "closed", reader()); }),
                "13 system: cannot open '" + file("closed.tbl") + "'");
      EXPECT_EQ(codeOf([&] { const TableMount other(directory, "new", writer()); }), EACCES);
   }));
}

TEST_F(TableFiles, AReaderThatWouldMakeATableIfThereWereNoneNeedsNoRightToDoSoIfThereIs) {
   SKIP_UNLESS_ROOT();
   ASSERT_EQ(::chmod(temp.path().c_str(), 0755), 0);
   TableMount::Options options = writer();
   options.mode = 0644;
   TableMount writing(directory, "table", options);
   ASSERT_EQ(::chmod(directory.path().c_str(), 0755), 0);
   writing.put(bytes(1), bytes(2));
   EXPECT_TRUE(asSomebodyElse(otherGroup, [&] {
      TableMount::Options asks = reader();
      asks.create = true;
      const TableMount reading(directory, "table", asks);
      EXPECT_EQ(get(reading, 1), bytes(2));
   }));
}

TEST_F(TableFiles, CanBeReadByAGroupWhenTheyAreGivenToIt) {
   SKIP_UNLESS_ROOT();
   ASSERT_EQ(::chmod(temp.path().c_str(), 0755), 0);
   TableMount::Options options = writer();
   options.mode = 0640;
   options.group = ourGroup;
   TableMount writing(directory, "table", options);
   ASSERT_EQ(::chmod(directory.path().c_str(), 0755), 0);
   writing.put(bytes(1), bytes(2));
   for (const char* name : {"table.tbl", "table.ctl", "table.bell", "table.reg"}) {
      EXPECT_EQ(group(name), ourGroup);
   }
   EXPECT_TRUE(asSomebodyElse(ourGroup, [&] {
      const TableMount reading(directory, "table", reader());
      EXPECT_EQ(get(reading, 1), bytes(2));
      EXPECT_TRUE(reading.canBeWoken());
      EXPECT_EQ(codeOf([&] { const TableMount other(directory, "table", writer()); }), EACCES);
   }));
   EXPECT_TRUE(asSomebodyElse(otherGroup, [&] {
      EXPECT_EQ(codeOf([&] { const TableMount reading(directory, "table", reader()); }), EACCES);
   }));
}

TEST_F(TableFiles, AReaderThatMayWriteNothingAtAllReadsAndCannotBeWoken) {
   SKIP_UNLESS_ROOT();
   ASSERT_EQ(::chmod(temp.path().c_str(), 0755), 0);
   TableMount writing(directory, "table", writer());
   writing.put(bytes(1), bytes(2));
   ASSERT_EQ(::chmod(directory.path().c_str(), 0755), 0);
   for (const char* name : {"table.tbl", "table.ctl", "table.bell", "table.reg"}) {
      ASSERT_EQ(::chmod(file(name).c_str(), 0644), 0);
   }
   EXPECT_TRUE(asSomebodyElse(otherGroup, [&] {
      TableMount reading(directory, "table", reader());
      EXPECT_EQ(get(reading, 1), bytes(2));
      EXPECT_FALSE(reading.canBeWoken());
      EXPECT_TRUE(reading.mounts().empty());
      EXPECT_TRUE(reading.arm());
      reading.quiescedIs(true);
      EXPECT_EQ(reading.audit().problems, std::vector<std::string>());
      TableMount second(directory, "table", reader());
      EXPECT_EQ(changes(second), "");
   }));
   EXPECT_EQ(writing.mounts().size(), 1U);
}

} // namespace
