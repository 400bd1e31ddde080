#include "platform/entity/PatchedMemory.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/entity/BusErrorGuard.h"
#include "tests/support/FreshProcess.h"
#include "tests/support/RegisterSpace.h"

namespace {

using Platform::PatchedMemory;
using TestSupport::RegisterSpace;

constexpr std::size_t page = 4096;

/// A mapped file of four pages.
class Mapped {
public:
   explicit Mapped(int protection = PROT_READ | PROT_WRITE)
      : base(static_cast<volatile char*>(
           ::mmap(nullptr, size, protection, MAP_SHARED, _space.fd(), 0))) {
      EXPECT_NE(const_cast<char*>(base), MAP_FAILED);
   }
   ~Mapped() { ::munmap(begin(), size); }
   Mapped(const Mapped&) = delete;
   Mapped& operator=(const Mapped&) = delete;

   void cutTo(std::size_t pages) { _space.sizeIs(pages * page); }
   void* begin() const { return const_cast<char*>(base); }

   static constexpr std::size_t size = 4 * page;

private:
   RegisterSpace _space{size};

public:
   volatile char* const base;
};

TEST(PatchedMemory, HasZerosWhereTheFileWasCutOffAndSaysSo) {
   Mapped mapped;
   const PatchedMemory patched(mapped.begin(), Mapped::size, PROT_READ | PROT_WRITE);
   mapped.base[0] = 'a';
   mapped.base[3 * page] = 'b';
   EXPECT_FALSE(patched.lost());
   mapped.cutTo(1);
   EXPECT_FALSE(patched.lost());
   EXPECT_EQ(mapped.base[0], 'a');
   EXPECT_FALSE(patched.lost());
   EXPECT_EQ(mapped.base[3 * page], 0);
   EXPECT_TRUE(patched.lost());
   EXPECT_EQ(mapped.base[4 * page - 1], 0);
   EXPECT_EQ(mapped.base[page], 0);
   EXPECT_EQ(mapped.base[0], 'a');
}

TEST(PatchedMemory, WritesWhereNobodyReads) {
   Mapped mapped;
   const PatchedMemory patched(mapped.begin(), Mapped::size, PROT_READ | PROT_WRITE);
   mapped.cutTo(1);
   mapped.base[2 * page + 5] = 'x';
   EXPECT_TRUE(patched.lost());
   EXPECT_EQ(mapped.base[2 * page + 5], 'x');
   mapped.cutTo(4);
   EXPECT_EQ(mapped.base[2 * page + 5], 'x'); // its own, not the file's
   EXPECT_EQ(mapped.base[3 * page], 0);
   EXPECT_TRUE(patched.lost());
}

TEST(PatchedMemory, AnswersForItsOwnRangeOnly) {
   Mapped first;
   Mapped second;
   const PatchedMemory ofFirst(first.begin(), Mapped::size, PROT_READ | PROT_WRITE);
   const PatchedMemory ofSecond(second.begin(), Mapped::size, PROT_READ | PROT_WRITE);
   first.cutTo(0);
   EXPECT_EQ(first.base[0], 0);
   EXPECT_TRUE(ofFirst.lost());
   EXPECT_FALSE(ofSecond.lost());
   second.base[0] = 'x';
   EXPECT_EQ(second.base[0], 'x');
}

TEST(PatchedMemory, LeavesOtherMemoryToTheDefaultAction) {
   EXPECT_KILLED_BY(SIGBUS, [] {
      Mapped mapped;
      Mapped other;
      const PatchedMemory patched(mapped.begin(), Mapped::size, PROT_READ | PROT_WRITE);
      other.cutTo(0);
      static_cast<void>(other.base[0]);
   });
   EXPECT_KILLED_BY(SIGBUS, [] {
      Mapped mapped;
      { const PatchedMemory gone(mapped.begin(), Mapped::size, PROT_READ | PROT_WRITE); }
      mapped.cutTo(0);
      static_cast<void>(mapped.base[0]);
   });
   EXPECT_KILLED_BY(SIGBUS, [] {
      Mapped mapped;
      const PatchedMemory half(mapped.begin(), 2 * page, PROT_READ | PROT_WRITE);
      mapped.cutTo(0);
      EXPECT_EQ(mapped.base[2 * page - 1], 0);
      static_cast<void>(mapped.base[2 * page]);
   });
}

TEST(PatchedMemory, LeavesGuardedAccessesToTheGuard) {
   Mapped mapped;
   const PatchedMemory patched(mapped.begin(), Mapped::size, PROT_READ | PROT_WRITE);
   mapped.cutTo(0);
   const bool done = Platform::BusErrorGuard::run(
      mapped.base, Mapped::size,
      [](void* base) noexcept { static_cast<void>(*static_cast<volatile char*>(base)); },
      mapped.begin());
   EXPECT_FALSE(done);
   EXPECT_FALSE(patched.lost());
   EXPECT_EQ(mapped.base[0], 0);
   EXPECT_TRUE(patched.lost());
}

TEST(PatchedMemory, KeepsErrnoAsItWas) {
   Mapped mapped;
   const PatchedMemory patched(mapped.begin(), Mapped::size, PROT_READ | PROT_WRITE);
   mapped.cutTo(0);
   errno = EXDEV;
   static_cast<void>(mapped.base[0]);
   EXPECT_EQ(errno, EXDEV);
   EXPECT_TRUE(patched.lost());
}

TEST(PatchedMemory, MustBeginWithAPage) {
   Mapped mapped;
   try {
      const PatchedMemory patched(static_cast<char*>(mapped.begin()) + 8, page, PROT_READ);
      ADD_FAILURE();
   } catch (const std::system_error& error) {
      EXPECT_EQ(error.code(), std::error_code(EINVAL, std::generic_category()));
   }
}

TEST(PatchedMemory, IsThere4096TimesAtTheMostAndAgainWhenSomeAreGone) {
   Mapped mapped;
   std::vector<std::unique_ptr<PatchedMemory>> patched;
   for (std::size_t i = 0; i < PatchedMemory::maxRanges; ++i) {
      patched.push_back(std::make_unique<PatchedMemory>(mapped.begin(), page, PROT_READ));
   }
   try {
      const PatchedMemory more(mapped.begin(), page, PROT_READ);
      ADD_FAILURE();
   } catch (const std::system_error& error) {
      EXPECT_EQ(error.code(), std::error_code(ENFILE, std::generic_category()));
   }
   patched[17].reset();
   Mapped last;
   const PatchedMemory ofLast(last.begin(), Mapped::size, PROT_READ | PROT_WRITE);
   last.cutTo(0);
   EXPECT_EQ(last.base[0], 0);
   EXPECT_TRUE(ofLast.lost());
}

TEST(PatchedMemory, MayBeLostOnSeveralThreadsAtOnceWhileOthersComeAndGo) {
   std::atomic<bool> stop{false};
   std::thread churning([&] {
      while (!stop) {
         Mapped other;
         const PatchedMemory patched(other.begin(), Mapped::size, PROT_READ | PROT_WRITE);
         other.cutTo(0);
         EXPECT_EQ(other.base[page], 0);
         EXPECT_TRUE(patched.lost());
      }
   });
   for (int round = 0; round < 200; ++round) {
      Mapped mapped;
      const PatchedMemory patched(mapped.begin(), Mapped::size, PROT_READ | PROT_WRITE);
      mapped.cutTo(0);
      const auto read = [&] {
         for (std::size_t at = 0; at < Mapped::size; at += page / 2) {
            EXPECT_EQ(mapped.base[at], 0);
         }
         EXPECT_TRUE(patched.lost());
      };
      std::thread other(read);
      read();
      other.join();
   }
   stop = true;
   churning.join();
}

} // namespace
