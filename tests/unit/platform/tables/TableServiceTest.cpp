// How changes and damage reach the owners of tables, on the event loop.

#include "platform/tables/TableService.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <map>
#include <random>
#include <set>

#include "platform/trace/CaptureScope.h"
#include "tests/support/NoDescriptorsLeft.h"
#include "tests/unit/platform/tables/ChildProcess.h"
#include "tests/unit/platform/tables/TestRecords.h"

namespace {

using namespace TablesTest;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class Service : public TableFixture {
protected:
   static TableBase::MountOptions writes() { return {.role = TableRole::writer}; }
   static NumberRecord record(std::uint32_t key, std::uint64_t value = 0) {
      return {.itsKey = {key}, .value = value};
   }

   bool runUntil(const std::function<bool()>& predicate) {
      return loop.runUntil(predicate, std::chrono::seconds(60));
   }
   /// Runs until `owner` has heard of what happened so far.
   void settle(NumberOwner& owner) {
      const std::uint32_t sentinel = 0xFFFFFF00U + sentinels++;
      writer.table->put(record(sentinel));
      EXPECT_TRUE(runUntil([&] { return owner.wasTold(sentinel); }));
      std::erase_if(owner.told, [](std::uint32_t key) { return key >= 0xFFFFFF00U; });
   }
   /// Overwrites bytes of the table's file.
   void patch(std::size_t offset, const std::string& with) {
      const int fd = ::open(file("numbers.tbl").c_str(), O_RDWR);
      EXPECT_EQ(::pwrite(fd, with.data(), with.size(), static_cast<off_t>(offset)),
                static_cast<ssize_t>(with.size()));
      ::close(fd);
   }
   std::string bytesAt(std::size_t offset, std::size_t size) {
      std::string found(size, '\0');
      const int fd = ::open(file("numbers.tbl").c_str(), O_RDONLY);
      EXPECT_EQ(::pread(fd, found.data(), size, static_cast<off_t>(offset)),
                static_cast<ssize_t>(size));
      ::close(fd);
      return found;
   }
   static constexpr std::size_t journalHead = 4096 + 128;

   Platform::EventLoop loop;
   TableService service{loop, directory};
   NumberOwner writer{"numbers"};
   NumberOwner reader{"numbers"};
   std::uint32_t sentinels = 0;
};

TEST_F(Service, TellsTheChangesOfAnotherMountOfTheProcessInOrder) {
   writer.table->mount(service, writes());
   reader.table->mount(service, {});
   writer.table->put(record(3));
   writer.table->put(record(1));
   writer.table->del({3});
   EXPECT_THAT(reader.told, IsEmpty()); // by the loop only
   settle(reader);
   EXPECT_THAT(reader.told, ElementsAre(3, 1, 3));
   EXPECT_THAT(writer.told, IsEmpty());
   reader.told.clear();
   writer.table->put(record(2));
   settle(reader);
   EXPECT_THAT(reader.told, ElementsAre(2));
}

TEST_F(Service, TellsTheChangesOfAnotherProcess) {
   reader.table->mount(service, {});
   ChildProcess child([&] {
      TableMount mount(directory, "numbers", {.role = TableRole::writer});
      for (std::uint32_t key = 0; key < 100; ++key) {
         mount.put(bytes(key), Bytes(12));
      }
      del(mount, 50);
   });
   EXPECT_TRUE(runUntil([&] { return reader.told.size() == 101; }));
   for (std::uint32_t key = 0; key < 100; ++key) {
      EXPECT_EQ(reader.told[key], key);
   }
   EXPECT_EQ(reader.told[100], 50U);
   EXPECT_TRUE(child.succeeds());
}

TEST_F(Service, TellsTwoWritersOfEachOther) {
   writer.table->mount(service, writes());
   reader.table->mount(service, writes());
   writer.table->put(record(1));
   reader.table->put(record(2));
   EXPECT_TRUE(runUntil([&] { return !writer.told.empty() && !reader.told.empty(); }));
   EXPECT_THAT(reader.told, ElementsAre(1));
   EXPECT_THAT(writer.told, ElementsAre(2));
}

TEST_F(Service, TellsNothingOfWhatWasThereBefore) {
   writer.table->mount(service, writes());
   writer.table->put(record(1));
   reader.table->mount(service, {});
   settle(reader);
   EXPECT_THAT(reader.told, IsEmpty());
   EXPECT_TRUE(reader.table->has({1}));
}

TEST_F(Service, TellsAllThatChangedAfterMoreThanTheJournalRemembersAlsoTheRemoved) {
   writer.table->mount(service, writes());
   for (std::uint32_t key = 0; key < 50; ++key) {
      writer.table->put(record(key));
   }
   reader.table->mount(service, {});
   loop.poll();
   for (std::uint32_t key = 0; key < 20; ++key) {
      writer.table->del({key});
   }
   writer.table->put(record(30, 1));
   writer.table->put(record(31)); // as it was, and written all the same
   for (std::uint32_t key = 1000; key < 6000; ++key) {
      writer.table->put(record(key));
   }
   EXPECT_TRUE(runUntil([&] { return reader.told.size() >= 5022; }));
   settle(reader);
   const std::set<std::uint32_t> told(reader.told.begin(), reader.told.end());
   EXPECT_EQ(told.size(), reader.told.size());
   EXPECT_EQ(told.size(), 20U + 2U + 5000U);
   EXPECT_TRUE(told.contains(7));
   EXPECT_TRUE(told.contains(30));
   EXPECT_TRUE(told.contains(31));
   EXPECT_FALSE(told.contains(32)) << "nobody has written it";
   EXPECT_FALSE(told.contains(500));
   EXPECT_TRUE(told.contains(5999));
   EXPECT_EQ(reader.table->size(), 5031U);
}

TEST_F(Service, WhoIsAlwaysBehindIsToldOfEachKeyButOnce) {
   writer.table->mount(service, writes());
   for (std::uint32_t key = 0; key < 20000; ++key) {
      writer.table->put(record(key));
   }
   reader.table->mount(service, {});
   loop.poll();
   // Whenever it has been told of some, the writer has gone further than the journal reaches.
   std::uint32_t next = 0;
   const auto write = [&] {
      for (unsigned i = 0; i < 5000 && next < 20000; ++i) {
         writer.table->put(record(next++, 1));
      }
   };
   write();
   reader.onChange = [&](std::uint32_t) {
      if (reader.told.size() % 1000 == 0) {
         write();
      }
   };
   EXPECT_TRUE(runUntil([&] { return reader.told.size() >= 20000; }));
   settle(reader);
   const std::set<std::uint32_t> told(reader.told.begin(), reader.told.end());
   EXPECT_EQ(told.size(), 20000U);
   EXPECT_EQ(reader.told.size(), 20000U) << "none was told twice";
}

TEST_F(Service, WhatOthersDidBeforeAnOwnWriteIsToldAlsoIfItWasMissed) {
   writer.table->mount(service, writes());
   for (std::uint32_t key = 0; key < 10; ++key) {
      writer.table->put(record(key));
   }
   reader.table->mount(service, writes());
   loop.poll();
   writer.table->put(record(1, 1));
   reader.table->put(record(1, 2));
   writer.table->del({2});
   reader.table->put(record(2));
   writer.table->put(record(3, 1));
   reader.table->del({3});
   reader.table->put(record(3, 2));
   for (unsigned i = 0; i < 5000; ++i) {
      writer.table->put(record(7, i));
   }
   settle(reader);
   const std::set<std::uint32_t> told(reader.told.begin(), reader.told.end());
   for (const std::uint32_t key : {1U, 2U, 3U, 7U}) {
      EXPECT_TRUE(told.contains(key)) << key;
   }
   for (const std::uint32_t key : {0U, 4U, 5U, 6U, 8U, 9U}) {
      EXPECT_FALSE(told.contains(key)) << key;
   }
}

// The key was known to nobody: another mount had made it, which was still to be told, and the own
// write was none of a new key.
TEST_F(Service, TheRemovalOfAnOwnRecordIsToldAlsoIfAnotherHadMadeItAndAllWasMissed) {
   writer.table->mount(service, writes());
   reader.table->mount(service, writes());
   loop.poll();
   writer.table->put(record(1));
   reader.table->put(record(1, 2)); // it believes in this one
   writer.table->del({1});
   for (unsigned i = 0; i < 5000; ++i) {
      writer.table->put(record(7, i));
   }
   settle(reader);
   EXPECT_TRUE(reader.wasTold(1));
   EXPECT_TRUE(reader.wasTold(7));
   EXPECT_EQ(reader.told.size(), 2U);
}

// Who looks need not wait until he is told.
TEST_F(Service, TheRemovalOfWhatWasSeenIsToldAlsoIfItsMakingAndAllWasMissed) {
   writer.table->mount(service, writes());
   reader.table->mount(service, {});
   loop.poll();
   for (const std::uint32_t key : {1U, 2U, 3U, 4U}) {
      writer.table->put(record(key));
      if (key == 1) {
         EXPECT_TRUE(reader.table->has({1}));
      } else if (key == 2) {
         EXPECT_EQ(reader.table->keys().size(), 1U);
      } else if (key == 3) {
         reader.table->forEach([](const NumberRecord&) {});
      }
      writer.table->del({key});
   }
   for (unsigned i = 0; i < 5000; ++i) {
      writer.table->put(record(7, i));
   }
   settle(reader);
   for (const std::uint32_t key : {1U, 2U, 3U, 7U}) {
      EXPECT_TRUE(reader.wasTold(key)) << key;
   }
   EXPECT_FALSE(reader.wasTold(4)) << "nobody has seen it";
   EXPECT_EQ(reader.told.size(), 4U);
}

// Also when the removal is of a record that was found in place of the one that was told of.
TEST_F(Service, WhatIsSeenWhileAnotherRemovalIsToldIsToldWhenItGoes) {
   writer.table->mount(service, writes());
   writer.table->put(record(1));
   reader.table->mount(service, {});
   loop.poll();
   const auto overtake = [&] {
      for (unsigned i = 0; i < 5000; ++i) {
         writer.table->put(record(7, i));
      }
   };
   std::vector<bool> seen;
   reader.onChange = [&](std::uint32_t key) {
      if (key == 1) {
         if (seen.empty()) {
            writer.table->put(record(1, 1)); // just before it is looked for
         }
         seen.push_back(reader.table->has({1}));
         if (seen.size() == 1) {
            writer.table->del({1});
            overtake();
         }
      }
   };
   writer.table->del({1});
   overtake();
   settle(reader);
   EXPECT_THAT(seen, ElementsAre(true, false));
}

// Two mounts write, remove and make anew, and are told now and then, often of more than the journal
// holds: what each made of it is what the table has.
TEST_F(Service, WhoLooksAtWhatItIsToldOfKnowsTheTable) {
   for (unsigned seed = 1; seed <= 20; ++seed) {
      SCOPED_TRACE(seed);
      std::minstd_rand random(seed);
      std::array<std::map<std::uint32_t, std::uint64_t>, 2> beliefs;
      std::array<NumberOwner, 2> owners{NumberOwner("random"), NumberOwner("random")};
      for (std::size_t who : {0U, 1U}) {
         NumberOwner& owner = owners[who];
         owner.table->mount(service, writes());
         owner.onChange = [&, who](std::uint32_t key) {
            const auto found = owner.table->get({key});
            beliefs[who].erase(key);
            if (found) {
               beliefs[who].emplace(key, found->value);
            }
            if (random() % 16 == 0) { // who is told may write, of the same key or of another
               const NumberRecord own = record(random() % 2 == 0 ? key : random() % 30, random());
               owner.table->put(own);
               beliefs[who].insert_or_assign(own.itsKey.value, own.value);
            }
         };
      }
      for (unsigned step = 0; step < 600; ++step) {
         const std::size_t who = random() % 2;
         const std::uint32_t key = random() % 30;
         switch (random() % 8) {
         case 0:
         case 1:
         case 2: {
            const std::uint64_t value = random() % 3; // the same one often
            owners[who].table->put(record(key, value));
            beliefs[who].insert_or_assign(key, value);
            break;
         }
         case 3:
         case 4:
         case 5:
            if (owners[who].table->del({key})) {
               beliefs[who].erase(key);
            }
            break;
         case 6:
            if (random() % 4 == 0) {
               for (unsigned i = 0; i < 4200; ++i) {
                  owners[who].table->put(record(100, i));
               }
               beliefs[who].insert_or_assign(100, 4199);
            }
            break;
         default:
            if (random() % 4 == 0) {
               loop.poll();
            }
         }
      }
      for (std::size_t who : {0U, 1U}) {
         owners[who].onChange = [&, who](std::uint32_t key) {
            const auto found = owners[who].table->get({key});
            beliefs[who].erase(key);
            if (found) {
               beliefs[who].emplace(key, found->value);
            }
         };
      }
      // The first may be found with all that was missed; the second comes after that.
      for (const std::uint32_t last : {200U, 201U, 202U, 203U}) {
         const std::size_t who = last % 2;
         owners[who].table->put(record(last, 1));
         beliefs[who].insert_or_assign(last, 1);
         ASSERT_TRUE(runUntil([&] { return owners[1 - who].wasTold(last); }));
      }
      std::map<std::uint32_t, std::uint64_t> table;
      owners[0].table->forEach(
         [&](const NumberRecord& held) { table.emplace(held.itsKey.value, held.value); });
      EXPECT_EQ(beliefs[0], table);
      EXPECT_EQ(beliefs[1], table);
      for (NumberOwner& owner : owners) {
         owner.onChange = {};
         owner.table->unmount();
      }
      directory.tableDel("random", true);
   }
}

// Writers in other processes that are killed at any moment, and are ahead of the reader by more
// than the journal holds, again and again.
TEST_F(Service, WhoLooksAtWhatItIsToldOfKnowsTheTableWhoeverIsKilled) {
   reader.table->mount(service, writes());
   std::map<std::uint32_t, std::uint64_t> belief;
   reader.onChange = [&](std::uint32_t key) {
      const auto found = reader.table->get({key});
      belief.erase(key);
      if (found) {
         belief.emplace(key, found->value);
      }
   };
   std::minstd_rand random(1);
   for (std::uint32_t round = 0; round < 20; ++round) {
      ChildProcess child([&](ChildProcess& self) {
         TableMount mount(directory, "numbers", {.role = TableRole::writer});
         std::minstd_rand own(round);
         self.say();
         for (std::uint64_t i = 0;; ++i) {
            const auto key = static_cast<std::uint32_t>(own() % 500);
            if (own() % 3 != 0) {
               Bytes written(12);
               std::memcpy(written.data(), &key, sizeof key);
               std::memcpy(written.data() + 4, &i, sizeof i);
               mount.put(bytes(key), written);
            } else {
               del(mount, key);
            }
         }
      });
      child.hear();
      for (std::uint32_t turns = random() % 50; turns > 0; --turns) {
         loop.poll();
         const auto key = static_cast<std::uint32_t>(random() % 500);
         if (random() % 2 == 0) {
            reader.table->put(record(key, round));
            belief.insert_or_assign(key, round);
         } else if (reader.table->del({key})) {
            belief.erase(key);
         }
      }
      child.kill();
   }
   reader.onStatus = [] { ADD_FAILURE() << "the table is not damaged"; };
   writer.table->mount(service, writes());
   // The first may be found with all that was missed; the second comes after that.
   for (const std::uint32_t last : {1000U, 1001U}) {
      writer.table->put(record(last, 1));
      ASSERT_TRUE(runUntil([&] { return reader.wasTold(last); }));
   }
   std::map<std::uint32_t, std::uint64_t> table;
   reader.table->forEach(
      [&](const NumberRecord& held) { table.emplace(held.itsKey.value, held.value); });
   EXPECT_EQ(belief, table);
   reader.onStatus = {};
}

TEST_F(Service, TellsAWriterOfManyRecordsOnlyWhatOthersChanged) {
   writer.table->mount(service, writes());
   reader.table->mount(service, writes());
   for (std::uint32_t key = 0; key < 6000; ++key) {
      reader.table->put(record(key));
   }
   settle(reader);
   EXPECT_THAT(reader.told, IsEmpty());
}

TEST_F(Service, GoesOnAfterAReactionThatThrew) {
   writer.table->mount(service, writes());
   reader.table->mount(service, {});
   loop.poll();
   reader.onChange = [](std::uint32_t key) {
      if (key % 2 == 0) {
         throw std::runtime_error("no");
      }
   };
   for (std::uint32_t key = 0; key < 10; ++key) {
      writer.table->put(record(key));
   }
   unsigned thrown = 0;
   while (reader.told.size() < 10) {
      try {
         ASSERT_TRUE(runUntil([&] { return reader.told.size() == 10; }));
      } catch (const std::runtime_error&) {
         ++thrown;
      }
   }
   EXPECT_EQ(thrown, 5U);
   EXPECT_THAT(reader.told, ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9));
   reader.onChange = {};
   settle(reader);
   EXPECT_EQ(reader.told.size(), 10U);
}

// What was still to be told was forgotten, if all keys were being told.
TEST_F(Service, TellsTheOtherKeysWhenOneReactionThrewAfterMissedChanges) {
   writer.table->mount(service, writes());
   reader.table->mount(service, {});
   loop.poll();
   unsigned throwing = 3;
   reader.onChange = [&](std::uint32_t) {
      if (throwing > 0) {
         --throwing;
         throw std::runtime_error("no");
      }
   };
   for (std::uint32_t key = 0; key < 5000; ++key) {
      writer.table->put(record(key));
   }
   while (throwing > 0) {
      EXPECT_THROW(runUntil([&] { return false; }), std::runtime_error);
   }
   EXPECT_TRUE(runUntil([&] { return reader.told.size() >= 5000; }));
   settle(reader);
   EXPECT_EQ(std::set<std::uint32_t>(reader.told.begin(), reader.told.end()).size(), 5000U);
}

TEST_F(Service, TellsNothingMoreToATableThatIsUnmountedInAReaction) {
   writer.table->mount(service, writes());
   reader.table->mount(service, {});
   loop.poll();
   for (std::uint32_t key = 0; key < 10; ++key) {
      writer.table->put(record(key));
   }
   reader.onChange = [&](std::uint32_t key) {
      if (key == 3) {
         reader.table->unmount();
      }
   };
   EXPECT_TRUE(runUntil([&] { return reader.told.size() == 4; }));
   loop.poll();
   EXPECT_THAT(reader.told, ElementsAre(0, 1, 2, 3));
   // And from anew after the next mount.
   reader.table->mount(service, {});
   settle(reader);
   EXPECT_THAT(reader.told, ElementsAre(0, 1, 2, 3));
}

TEST_F(Service, TellsOnToATableThatIsMountedAnewInAReaction) {
   writer.table->mount(service, writes());
   reader.table->mount(service, {});
   loop.poll();
   writer.table->put(record(1));
   writer.table->put(record(2));
   reader.onChange = [&](std::uint32_t key) {
      if (key == 1) {
         reader.table->unmount();
         reader.table->mount(service, {});
      }
   };
   EXPECT_TRUE(runUntil([&] { return reader.wasTold(1); }));
   EXPECT_TRUE(reader.table->has({2})); // whoever mounts looks for himself
   settle(reader);
   EXPECT_THAT(reader.told, ElementsAre(1));
}

TEST_F(Service, ATableMayBeDestroyedInAReaction) {
   writer.table->mount(service, writes());
   reader.table->mount(service, {});
   loop.poll();
   for (const bool missed : {false, true}) {
      NumberOwner doomed("numbers");
      doomed.table->mount(service, {});
      loop.poll();
      doomed.onChange = [&](std::uint32_t) { doomed.table.reset(); };
      for (std::uint32_t key = 0; key < (missed ? 6000U : 10U); ++key) {
         writer.table->put(record(key));
      }
      settle(reader);
      EXPECT_EQ(doomed.told.size(), 1U);
   }
}

TEST_F(Service, AnotherTableMayBeDestroyedInAReaction) {
   writer.table->mount(service, writes());
   NumberOwner first("numbers");
   NumberOwner second("numbers");
   first.table->mount(service, {});
   second.table->mount(service, {});
   reader.table->mount(service, {});
   loop.poll();
   first.onChange = [&](std::uint32_t) { second.table.reset(); };
   second.onChange = [&](std::uint32_t) { first.table.reset(); };
   writer.table->put(record(1));
   settle(reader);
   EXPECT_EQ(first.told.empty(), !second.told.empty()); // whichever came first
}

TEST_F(Service, TheServiceMayGoBeforeALoopThatStillHasWorkOfIt) {
   Platform::EventLoop other;
   NumberOwner owner("numbers");
   {
      TableService own(other, directory);
      owner.table->mount(own, writes());
      owner.table->unmount();
      owner.table->mount(own, writes());
      owner.table->unmount();
   }
   other.run();
   EXPECT_THAT(owner.told, IsEmpty());
}

TEST_F(Service, LetsTheLoopEndWhenNothingIsMounted) {
   loop.run();
   writer.table->mount(service, writes());
   reader.table->mount(service, {});
   loop.poll();
   writer.table->unmount();
   reader.table->unmount();
   loop.run();
   reader.table->mount(service, {});
   loop.post([&] { reader.table->unmount(); });
   loop.run();
}

TEST_F(Service, KeepsTheLoopRunningWhileATableIsMounted) {
   reader.table->mount(service, {});
   EXPECT_FALSE(loop.runUntil([] { return false; }, 1ms));
   Platform::EventLoop plain;
   ChildProcess child([&] {
      TableMount mount(directory, "numbers", {.role = TableRole::writer});
      mount.put(bytes(1), Bytes(12));
   });
   reader.onChange = [&](std::uint32_t) { loop.stop(); };
   loop.run();
   EXPECT_THAT(reader.told, ElementsAre(1));
   EXPECT_TRUE(child.succeeds());
}

// Committed, but the writer died before it could publish the change.
TEST_F(Service, TellsTheLastChangeOfAWriterThatDied) {
   reader.table->mount(service, {});
   NumberOwner second("numbers");
   second.table->mount(service, {});
   loop.poll();
   const std::string before = bytesAt(journalHead, 8);
   ChildProcess child([&](ChildProcess& self) {
      TableMount mount(directory, "numbers", {.role = TableRole::writer});
      mount.put(bytes(7), Bytes(12));
      self.say();
      ::pause();
   });
   child.hear();
   patch(journalHead, before);
   loop.poll();
   EXPECT_THAT(reader.told, IsEmpty());
   EXPECT_TRUE(reader.table->has({7}));
   child.kill();
   EXPECT_TRUE(runUntil([&] { return !reader.told.empty() && !second.told.empty(); }));
   EXPECT_THAT(reader.told, ElementsAre(7));
   EXPECT_THAT(second.told, ElementsAre(7));
}

// Who came after a table whose reaction threw did not hear that a writer was gone.
TEST_F(Service, TellsTheLastChangeOfAWriterThatDiedAlsoBehindAReactionThatThrew) {
   reader.table->mount(service, {});
   NumberOwner second("numbers");
   second.table->mount(service, {});
   loop.poll();
   reader.onChange = second.onChange = [&](std::uint32_t) {
      if (reader.told.size() + second.told.size() == 1) {
         throw std::runtime_error("no");
      }
   };
   const std::string before = bytesAt(journalHead, 8);
   ChildProcess child([&](ChildProcess& self) {
      TableMount mount(directory, "numbers", {.role = TableRole::writer});
      mount.put(bytes(7), Bytes(12));
      self.say();
      ::pause();
   });
   child.hear();
   patch(journalHead, before);
   loop.poll();
   child.kill();
   EXPECT_THROW(runUntil([&] { return false; }), std::runtime_error);
   EXPECT_TRUE(runUntil([&] { return !reader.told.empty() && !second.told.empty(); }));
   EXPECT_THAT(reader.told, ElementsAre(7));
   EXPECT_THAT(second.told, ElementsAre(7));
}

TEST_F(Service, TellsOfADamagedTableOnceAndGoesOnWithTheOthers) {
   std::vector<std::string> heard;
   service.corruptionHandlerIs([&](const std::string& table, const std::string& message) {
      heard.push_back(table + ": " + message);
   });
   const Platform::Trace::CaptureScope captured;
   reader.table->mount(service, {});
   TableMount raw(directory, "numbers", {.role = TableRole::writer});
   NumberOwner otherWriter("other");
   NumberOwner otherReader("other");
   otherWriter.table->mount(service, writes());
   otherReader.table->mount(service, {});
   loop.poll();
   raw.put(bytes(1), Bytes(12));
   patch(journalHead, "12345678");
   otherWriter.table->put(record(2));
   EXPECT_TRUE(runUntil([&] { return !heard.empty() && !otherReader.told.empty(); }));
   loop.poll();
   const std::string message =
      "shared table 'numbers' is corrupted: an entry of the journal fails its check: number 0";
   EXPECT_THAT(heard, ElementsAre("numbers: " + message));
   EXPECT_THAT(captured.texts(), testing::Contains("table 'numbers': " + message));
   EXPECT_EQ(reader.table->mountStatus(), MountStatus::corrupted);
   EXPECT_EQ(reader.table->statusText(), message);
   EXPECT_THAT(reader.statuses, ElementsAre("mounted", "corrupted"));
   EXPECT_THAT(reader.told, IsEmpty());
   EXPECT_TRUE(reader.table->has({1}));
   EXPECT_THAT(otherReader.told, ElementsAre(2));
   reader.table->unmount();
   EXPECT_THAT(reader.statuses, ElementsAre("mounted", "corrupted", "unmounted"));
   EXPECT_EQ(reader.table->statusText(), "");
}

TEST_F(Service, TellsOfATableThatWasCutOff) {
   std::vector<std::string> heard;
   service.corruptionHandlerIs(
      [&](const std::string& table, const std::string&) { heard.push_back(table); });
   reader.table->mount(service, {});
   TableMount raw(directory, "numbers", {.role = TableRole::writer});
   loop.poll();
   raw.put(bytes(1), Bytes(12));
   ASSERT_EQ(::truncate(file("numbers.tbl").c_str(), 0), 0);
   EXPECT_TRUE(runUntil([&] { return !heard.empty(); }));
   EXPECT_THAT(heard, ElementsAre("numbers"));
   EXPECT_EQ(reader.table->mountStatus(), MountStatus::corrupted);
}

TEST_F(Service, TellsOfDamageThatAMountFinds) {
   std::vector<std::string> heard;
   service.corruptionHandlerIs([&](const std::string& table, const std::string& message) {
      heard.push_back(table + ": " + message);
   });
   writer.table->mount(service, writes());
   writer.table->unmount();
   patch(0, "garbage!");
   const std::string message = "shared table 'numbers' cannot be used: it is no shared table";
   EXPECT_EQ(errorOf([&] { reader.table->mount(service, {}); }), "corrupted: " + message);
   EXPECT_THAT(heard, ElementsAre("numbers: " + message));
   EXPECT_EQ(reader.table->mountStatus(), MountStatus::corrupted);
   EXPECT_EQ(reader.table->statusText(), message);
   // It is told already.
   reader.table->handleCorruption(message);
   EXPECT_EQ(heard.size(), 1U);
}

TEST_F(Service, TheStatusIsSetWhateverTheCorruptionHandlerThrows) {
   struct Alarm {};
   service.corruptionHandlerIs([](const std::string&, const std::string&) { throw Alarm(); });
   writer.table->mount(service, writes());
   reader.table->mount(service, {});
   EXPECT_THROW(reader.table->handleCorruption("said by its user"), Alarm);
   EXPECT_EQ(reader.table->mountStatus(), MountStatus::corrupted);
   EXPECT_EQ(reader.table->statusText(), "said by its user");
   writer.table->unmount();
   reader.table->unmount();
   patch(0, "garbage!");
   EXPECT_THROW(reader.table->mount(service, {}), Alarm);
   EXPECT_EQ(reader.table->mountStatus(), MountStatus::corrupted);
}

// Its name was used after it had gone.
TEST_F(Service, ATableMayBeDestroyedWhenItHearsOfItsDamage) {
   std::vector<std::string> heard;
   service.corruptionHandlerIs(
      [&](const std::string& table, const std::string&) { heard.push_back(table); });
   NumberOwner owner("a name that is too long to be kept in the string itself");
   const std::string name = owner.table->name();
   owner.table->mount(service, writes());
   owner.onStatus = [&] { owner.table.reset(); };
   owner.table->handleCorruption("damaged");
   EXPECT_THAT(heard, ElementsAre(name));
   owner.onStatus = {};

   // Likewise when the loop finds it.
   writer.table->mount(service, writes());
   reader.table->mount(service, {});
   loop.poll();
   writer.table->put(record(1));
   patch(journalHead, "12345678");
   reader.onStatus = [&] { reader.table.reset(); };
   EXPECT_TRUE(runUntil([&] { return heard.size() >= 2; }));
}

TEST_F(Service, LooksFromTimeToTimeWhereThereIsNoInotify) {
   SKIP_IF_THE_SANITIZER_NEEDS_DESCRIPTORS();
   std::unique_ptr<TableService> without;
   {
      const TestSupport::NoDescriptorsLeft none;
      without = std::make_unique<TableService>(loop, directory);
   }
   writer.table->mount(service, writes());
   reader.table->mount(*without, {});
   writer.table->put(record(1));
   writer.table->put(record(2));
   EXPECT_TRUE(runUntil([&] { return reader.told.size() == 2; }));
   EXPECT_THAT(reader.told, ElementsAre(1, 2));
   writer.table->del({1});
   EXPECT_TRUE(runUntil([&] { return reader.told.size() == 3; }));
   reader.table->unmount();
   writer.table->unmount();
   loop.run(); // nothing keeps it
}

TEST_F(Service, LooksFromTimeToTimeWhereTheSystemWatchesNoMoreFiles) {
   ChildProcess child([&](ChildProcess& self) {
      const uid_t user = ::geteuid();
      const gid_t group = ::getegid();
      if (::unshare(CLONE_NEWUSER) != 0) {
         self.say('s');
         return;
      }
      std::ofstream("/proc/self/setgroups") << "deny";
      std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
      std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
      std::ofstream limit("/proc/sys/user/max_inotify_watches");
      limit << "0" << std::flush;
      if (!limit) {
         self.say('s');
         return;
      }
      self.say('r');
      Platform::EventLoop ownLoop;
      TableService own(ownLoop, directory);
      writer.table->mount(own, writes());
      reader.table->mount(own, {});
      writer.table->put(record(1));
      EXPECT_TRUE(ownLoop.runUntil([&] { return !reader.told.empty(); }, 60s));
      EXPECT_THAT(reader.told, ElementsAre(1));
      writer.table->unmount();
      reader.table->unmount();
      ownLoop.run();
   });
   if (child.hear() == 's') {
      GTEST_SKIP() << "this process may not have a user namespace of its own";
   }
   EXPECT_TRUE(child.succeeds());
}

TEST_F(Service, AMountThatGetsNoDescriptorsFailsAndLeavesNothing) {
   SKIP_IF_THE_SANITIZER_NEEDS_DESCRIPTORS();
   writer.table->mount(service, writes());
   {
      const TestSupport::NoDescriptorsLeft none;
      EXPECT_EQ(codeOf([&] { reader.table->mount(service, {}); }), EMFILE);
   }
   EXPECT_EQ(reader.table->mountStatus(), MountStatus::failed);
   EXPECT_NE(reader.table->statusText(), "");
   EXPECT_EQ(writer.table->tableMount()->mounts().size(), 1U);
   reader.table->mount(service, {});
   settle(reader);
}

TEST_F(Service, ALargeTableHasItsBurstsToldInTurnsWithOtherWork) {
   writer.table->mount(service, writes());
   reader.table->mount(service, {});
   loop.poll();
   for (std::uint32_t key = 0; key < 20000; ++key) {
      writer.table->put(record(key));
   }
   std::size_t toldBeforeWork = 0;
   reader.onChange = [&](std::uint32_t) {
      if (reader.told.size() == 1) {
         loop.post([&] { toldBeforeWork = reader.told.size(); });
      }
   };
   EXPECT_TRUE(runUntil([&] { return reader.told.size() >= 20000; }));
   settle(reader);
   EXPECT_EQ(reader.told.size(), 20000U);
   EXPECT_LT(toldBeforeWork, 2000U);
}

} // namespace
