#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "platform/entity/EventLoop.h"
#include "platform/entity/MultiThreading.h"
#include "platform/tables/TableService.h"
#include "tests/unit/platform/tables/TableFixture.h"

namespace {

using namespace TablesTest;

constexpr std::uint32_t rounds = 3000;

class TableThreads : public TableFixture {
protected:
   void SetUp() override { Platform::multiThreadedIs(); }
};

// A mount belongs to a thread, and a process may have as many of both as it likes.
TEST_F(TableThreads, EachWithAMountOfItsOwnShareATable) {
   const TableMount watching(directory, "table", writer());
   std::atomic<unsigned> wrong{0};
   const auto write = [&](std::uint32_t own, std::uint32_t other) {
      TableMount mount(directory, "table", writer());
      for (std::uint32_t round = 1; round <= rounds; ++round) {
         mount.put(bytes(own), bytes(round));
         const std::optional<Bytes> seen = get(mount, bytes(own));
         wrong += seen != bytes(round);
         // The other's is whole, and never goes back.
         get(mount, bytes(other));
      }
   };
   std::thread first([&] { write(1, 2); });
   std::thread second([&] { write(2, 1); });
   first.join();
   second.join();
   EXPECT_EQ(wrong.load(), 0U);
   EXPECT_EQ(get(watching, bytes(1)), bytes(rounds));
   EXPECT_EQ(get(watching, bytes(2)), bytes(rounds));
   EXPECT_EQ(watching.count(), 2U);
   EXPECT_EQ(watching.audit().problems, std::vector<std::string>());
}

TEST_F(TableThreads, HearOfEachOthersChangesOnTheirOwnLoops) {
   TableMount writing(directory, "table", writer());
   std::atomic<bool> ready{false};
   std::uint32_t last = 0;
   std::thread following([&] {
      Platform::EventLoop loop;
      TableService service(loop, directory);
      TableMount mount(directory, "table", reader());
      Words key(mount.keyWords());
      const auto look = [&](bool) {
         do {
            while (mount.nextChange(key) != TableMount::Change::none) {
               Words record(mount.recordWords());
               if (mount.get(bytes(number(key)), record)) {
                  last = number(record);
               }
            }
         } while (!mount.arm());
      };
      const TableService::Watch watch(service, mount, look);
      look(false);
      ready.store(true);
      EXPECT_TRUE(loop.runUntil([&] { return last == rounds; }, std::chrono::minutes(1)));
   });
   while (!ready.load()) {
      std::this_thread::yield();
   }
   for (std::uint32_t round = 1; round <= rounds; ++round) {
      writing.put(bytes(7), bytes(round));
   }
   following.join();
   EXPECT_EQ(last, rounds);
}

} // namespace
