#include "platform/hardware/PciHwAccessImpl.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>
#include <vector>

#include "platform/entity/BusErrorGuard.h"
#include "platform/entity/TypeData.h"
#include "platform/hardware/SigbusException.h"
#include "tests/support/ChangeLog.h"
#include "tests/support/Failure.h"
#include "tests/support/FreshProcess.h"
#include "tests/support/Reflected.h"
#include "tests/support/RegisterSpace.h"
#include "tests/support/TempDir.h"

namespace {

using Hardware::PciHwAccessImpl;
using Hardware::pciHwAccessImplFactory;
using Hardware::SigbusException;
using Platform::BusErrorGuard;
using Platform::Ptr;
using testing::Each;
using testing::ElementsAre;
using TestSupport::Failure;
using TestSupport::RegisterSpace;
using TestSupport::TempDir;

constexpr std::uint32_t page = 4096;

// --- Mapping

TEST(PciHwAccessImpl, IsReadyOnceMapped) {
   RegisterSpace space(256);
   const auto access = pciHwAccessImplFactory("fpga", space.path());
   EXPECT_EQ(access->name(), "fpga");
   EXPECT_EQ(access->path(), space.path());
   EXPECT_EQ(access->size(), 256u);
   EXPECT_TRUE(access->ready());
   EXPECT_FALSE(access->busErrorFlag());
}

TEST(PciHwAccessImpl, MappingChangesNothingInTheFile) {
   const TempDir dir;
   const std::string file = dir.write("bar", "abcdefgh");
   { const auto access = pciHwAccessImplFactory("fpga", file); }
   EXPECT_EQ(dir.read("bar"), "abcdefgh");
}

TEST(PciHwAccessImpl, KeepsNoDescriptorOpen) {
   RegisterSpace space(256);
   const auto openFiles = [] {
      return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
   };
   const auto before = openFiles();
   const auto access = pciHwAccessImplFactory("fpga", space.path());
   EXPECT_EQ(openFiles(), before);
   const TempDir dir;
   EXPECT_THROW(pciHwAccessImplFactory("fpga", dir.write("empty", "")), std::system_error);
   EXPECT_EQ(openFiles(), before);
}

TEST(PciHwAccessImpl, AFileThatDoesNotOpenIsNamedWithTheReason) {
   const TempDir dir;
   const std::string missing = dir.path("missing");
   EXPECT_EQ(Failure([&] { pciHwAccessImplFactory("fpga", missing); }),
             Failure::system(ENOENT, "Error opening PCI register space " + missing));
   EXPECT_EQ(Failure([&] { pciHwAccessImplFactory("fpga", dir.path()); }),
             Failure::system(EISDIR, "Error opening PCI register space " + dir.path()));
   EXPECT_EQ(Failure([] { pciHwAccessImplFactory("fpga", ""); }),
             Failure::system(ENOENT, "Error opening PCI register space "));
   if (::geteuid() != 0) {
      const std::string readOnly = dir.write("read-only", "abcd");
      ::chmod(readOnly.c_str(), 0400);
      EXPECT_EQ(Failure([&] { pciHwAccessImplFactory("fpga", readOnly); }),
                Failure::system(EACCES, "Error opening PCI register space " + readOnly));
   }
}

TEST(PciHwAccessImpl, OnlyAnOrdinaryFileIsMapped) {
   EXPECT_EQ(Failure([] { pciHwAccessImplFactory("fpga", "/dev/null"); }),
             Failure::generic(ENODEV, "PCI register space /dev/null is not an ordinary file"));
   const TempDir dir;
   const std::string pipe = dir.path("pipe");
   ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
   EXPECT_EQ(Failure([&] { pciHwAccessImplFactory("fpga", pipe); }),
             Failure::generic(ENODEV, "PCI register space " + pipe + " is not an ordinary file"));
}

TEST(PciHwAccessImpl, AFileWithoutRoomForARegisterIsRefused) {
   const TempDir dir;
   for (const std::string content : {"", "a", "abc"}) {
      const std::string file = dir.write("bar", content);
      EXPECT_EQ(Failure([&] { pciHwAccessImplFactory("fpga", file); }),
                Failure::generic(EINVAL, "PCI register space " + file + " of " +
                                            std::to_string(content.size()) +
                                            " bytes has no room for a 32-bit register"));
   }
   EXPECT_EQ(pciHwAccessImplFactory("fpga", dir.write("bar", "abcd"))->size(), 4u);
}

TEST(PciHwAccessImpl, AFileThatCannotBeMappedIsRefused) {
   const int fd = ::memfd_create("sealed", MFD_CLOEXEC | MFD_ALLOW_SEALING);
   ASSERT_GE(fd, 0);
   ASSERT_EQ(::ftruncate(fd, 64), 0);
   ASSERT_EQ(::fcntl(fd, F_ADD_SEALS, F_SEAL_WRITE), 0);
   const std::string path = "/proc/self/fd/" + std::to_string(fd);
   EXPECT_EQ(Failure([&] { pciHwAccessImplFactory("fpga", path); }),
             Failure::system(EPERM, "Error mapping PCI register space " + path + " of 64 bytes"));
   ::close(fd);
}

// --- Accesses

/// The two ways to access, for what they have in common.
struct Way {
   const char* name;
   std::function<std::uint32_t(const PciHwAccessImpl&, std::uint32_t)> read;
   std::function<void(PciHwAccessImpl&, std::uint32_t, std::uint32_t)> write;
};

const Way ways[] = {
   {"plain", [](const auto& access, auto offset) { return access.read32(offset); },
    [](auto& access, auto offset, auto value) { access.write32(offset, value); }},
   {"guarded", [](const auto& access, auto offset) { return access.guardedRead32(offset); },
    [](auto& access, auto offset, auto value) { access.guardedWrite32(offset, value); }},
};

class EitherWay : public testing::TestWithParam<Way> {
protected:
   std::uint32_t read(std::uint32_t offset) { return GetParam().read(*_access, offset); }
   void write(std::uint32_t offset, std::uint32_t value) {
      GetParam().write(*_access, offset, value);
   }

   RegisterSpace _space{32};
   Ptr<PciHwAccessImpl> _access = pciHwAccessImplFactory("fpga", _space.path());
};

INSTANTIATE_TEST_SUITE_P(PciHwAccessImpl, EitherWay, testing::ValuesIn(ways),
                         [](const auto& way) { return std::string(way.param.name); });

TEST_P(EitherWay, ReadsTheWordAtTheOffset) {
   _space.wordIs(0, 0x01020304);
   _space.wordIs(28, 0xffffffff);
   EXPECT_EQ(read(0), 0x01020304u);
   EXPECT_EQ(read(4), 0u);
   EXPECT_EQ(read(28), 0xffffffffu);
}

TEST_P(EitherWay, EveryReadAsksTheDevice) {
   EXPECT_EQ(read(8), 0u);
   _space.wordIs(8, 5);
   EXPECT_EQ(read(8), 5u);
}

TEST_P(EitherWay, WritesTheWordAtTheOffsetAndNoOther) {
   write(4, 0xdeadbeef);
   write(28, 0xffffffff);
   EXPECT_THAT(_space.words(), ElementsAre(0, 0xdeadbeef, 0, 0, 0, 0, 0, 0xffffffff));
}

TEST_P(EitherWay, AnOffsetThatIsNotAlignedIsRefused) {
   for (const std::uint32_t offset : {1u, 2u, 3u, 29u, 31u, 0xffffffffu}) {
      const Failure refused = Failure::generic(
         EINVAL,
         fmt::format("PCI register space {} of 32 bytes: offset {:#x} is not aligned to 4 bytes",
                     _space.path(), offset));
      EXPECT_EQ(Failure([&] { read(offset); }), refused);
      EXPECT_EQ(Failure([&] { write(offset, 0xffffffff); }), refused);
   }
   EXPECT_THAT(_space.words(), Each(0));
}

TEST_P(EitherWay, AnOffsetBeyondTheEndIsRefused) {
   // The mapping itself extends to the end of its page.
   for (const std::uint32_t offset : {32u, 36u, 4092u, 4096u, 0x80000000u, 0xfffffffcu}) {
      const Failure refused = Failure::generic(
         ENXIO,
         fmt::format("PCI register space {} of 32 bytes has no 32-bit register at offset {:#x}",
                     _space.path(), offset));
      EXPECT_EQ(Failure([&] { read(offset); }), refused);
      EXPECT_EQ(Failure([&] { write(offset, 0xffffffff); }), refused);
   }
   EXPECT_THAT(_space.words(), Each(0));
}

TEST_P(EitherWay, AnIncompleteWordAtTheEndIsNone) {
   RegisterSpace odd(7);
   _access = pciHwAccessImplFactory("fpga", odd.path());
   EXPECT_EQ(_access->size(), 7u);
   EXPECT_EQ(read(0), 0u);
   EXPECT_EQ(Failure([&] { read(4); }).code, ENXIO);
   EXPECT_EQ(Failure([&] { write(4, 1); }).code, ENXIO);
}

TEST_P(EitherWay, ReadinessIsNotLookedAt) {
   _access->readyIs(false);
   write(4, 5);
   EXPECT_EQ(read(4), 5u);
}

TEST_P(EitherWay, OnceUnmappedEveryAccessIsRefused) {
   _access->unmap();
   for (const std::uint32_t offset : {0u, 4u, 7u, 32u}) {
      const Failure refused = Failure::generic(
         ENODEV, fmt::format("PCI register space {} is not mapped: no access at offset {:#x}",
                             _space.path(), offset));
      EXPECT_EQ(Failure([&] { read(offset); }), refused);
      EXPECT_EQ(Failure([&] { write(offset, 1); }), refused);
   }
}

TEST_P(EitherWay, KeepsErrno) {
   errno = EBADMSG;
   write(4, 5);
   EXPECT_EQ(errno, EBADMSG);
   read(4);
   EXPECT_EQ(errno, EBADMSG);
}

TEST_P(EitherWay, TwoHandlesOnOneSpaceSeeEachOthersWrites) {
   const auto other = pciHwAccessImplFactory("fpga2", _space.path());
   write(4, 5);
   EXPECT_EQ(GetParam().read(*other, 4), 5u);
}

// --- Teardown

TEST(PciHwAccessImpl, UnmappingMakesItNotReadyOnce) {
   RegisterSpace space(32);
   const auto access = pciHwAccessImplFactory("fpga", space.path());
   std::uint64_t sizeWhenTold = 1;
   TestSupport::ChangeLog log(*access, [&] { sizeWhenTold = access->size(); });
   access->unmap();
   EXPECT_FALSE(access->ready());
   EXPECT_EQ(access->size(), 0u);
   EXPECT_EQ(sizeWhenTold, 0u);
   access->unmap();
   EXPECT_THAT(log.changes, ElementsAre("ready"));
}

std::size_t mappings(const std::string& of) {
   std::ifstream maps("/proc/self/maps");
   std::size_t count = 0;
   for (std::string line; std::getline(maps, line);) {
      count += line.find(of) != std::string::npos;
   }
   return count;
}

TEST(PciHwAccessImpl, TheMappingGoesWithUnmapAndWithTheHandle) {
   const TempDir dir;
   const std::string file = dir.write("bar-to-look-for", std::string(64, 'x'));
   auto access = pciHwAccessImplFactory("fpga", file);
   EXPECT_EQ(mappings("bar-to-look-for"), 1u);
   access->unmap();
   EXPECT_EQ(mappings("bar-to-look-for"), 0u);
   access.reset();
   access = pciHwAccessImplFactory("fpga", file);
   EXPECT_EQ(mappings("bar-to-look-for"), 1u);
   access.reset();
   EXPECT_EQ(mappings("bar-to-look-for"), 0u);
}

TEST(PciHwAccessImpl, ReadinessIsSetByWhoeverWatchesOverTheDevice) {
   RegisterSpace space(32);
   const auto access = pciHwAccessImplFactory("fpga", space.path());
   TestSupport::ChangeLog log(*access);
   access->readyIs(false);
   EXPECT_FALSE(access->ready());
   access->readyIs(true);
   EXPECT_TRUE(access->ready());
   EXPECT_THAT(log.changes, ElementsAre("ready", "ready"));
}

TEST(PciHwAccessImpl, ReflectsItsPath) {
   EXPECT_THAT(TestSupport::reflectedAttributes(PciHwAccessImpl::staticType()),
               ElementsAre("path"));
   EXPECT_THAT(TestSupport::reflectedOperations(PciHwAccessImpl::staticType()),
               ElementsAre("unmap()"));
   RegisterSpace space(32);
   space.wordIs(8, 77);
   const auto access = pciHwAccessImplFactory("fpga", space.path());
   EXPECT_EQ(&access->typeData(), &PciHwAccessImpl::staticType());
}

// --- A device that vanishes

TEST(PciHwAccessImpl, AGuardedAccessToAVanishedDeviceThrows) {
   RegisterSpace space(2 * page);
   const auto access = pciHwAccessImplFactory("fpga", space.path());
   space.sizeIs(page);
   for (int i = 0; i < 100; ++i) {
      EXPECT_THROW(access->guardedRead32(page), SigbusException);
      EXPECT_THROW(access->guardedWrite32(page + 4, 1), SigbusException);
      EXPECT_EQ(access->guardedRead32(page - 4), 0u) << "what is left of it answers";
   }
   EXPECT_TRUE(access->ready()) << "readiness is not for the handle to judge";
   space.sizeIs(2 * page);
   EXPECT_EQ(access->guardedRead32(page + 4), 0u) << "it has come back, and nothing was written";
}

TEST(PciHwAccessImpl, ABusErrorKeepsErrno) {
   RegisterSpace space(page);
   const auto access = pciHwAccessImplFactory("fpga", space.path());
   space.sizeIs(0);
   errno = EBADMSG;
   EXPECT_THROW(access->guardedRead32(0), SigbusException);
   EXPECT_EQ(errno, EBADMSG);
   EXPECT_THROW(access->guardedWrite32(0, 1), SigbusException);
   EXPECT_EQ(errno, EBADMSG);
}

TEST(PciHwAccessImpl, TheExceptionUnwindsTheCaller) {
   RegisterSpace space(page);
   const auto access = pciHwAccessImplFactory("fpga", space.path());
   space.sizeIs(0);
   int unwound = 0;
   struct Unwound {
      int& count;
      ~Unwound() { ++count; }
   };
   const auto caller = [&] {
      const Unwound local{unwound};
      access->guardedRead32(0);
   };
   EXPECT_THROW(caller(), SigbusException);
   EXPECT_EQ(unwound, 1);
}

TEST(PciHwAccessImpl, HandlesOnManyThreadsFaultAndWorkSideBySide) {
   constexpr int threads = 4;
   constexpr std::uint32_t rounds = 1000;
   std::atomic<int> wrong{0};
   std::vector<std::thread> running;
   for (int t = 0; t < threads; ++t) {
      running.emplace_back([&] {
         RegisterSpace goodSpace(page);
         RegisterSpace goneSpace(page);
         const auto good = pciHwAccessImplFactory("good", goodSpace.path());
         const auto gone = pciHwAccessImplFactory("gone", goneSpace.path());
         goneSpace.sizeIs(0);
         const auto faults = [](const std::function<void()>& body) {
            try {
               body();
            } catch (const SigbusException&) {
               return true;
            }
            return false;
         };
         for (std::uint32_t i = 0; i < rounds; ++i) {
            good->guardedWrite32(8, i);
            wrong += !faults([&] { gone->guardedWrite32(8, i); });
            wrong += good->guardedRead32(8) != i;
            wrong += !faults([&] { gone->guardedRead32(8); });
         }
      });
   }
   for (std::thread& thread : running) {
      thread.join();
   }
   EXPECT_EQ(wrong, 0);
}

TEST(PciHwAccessImplDeathTest, APlainAccessToAVanishedDeviceIsFatal) {
   EXPECT_KILLED_BY(SIGBUS, [] {
      RegisterSpace space(page);
      const auto access = pciHwAccessImplFactory("fpga", space.path());
      space.sizeIs(0);
      access->read32(0);
   });
   EXPECT_KILLED_BY(SIGBUS, [] {
      RegisterSpace space(page);
      const auto access = pciHwAccessImplFactory("fpga", space.path());
      space.sizeIs(0);
      access->write32(0, 1);
   });
   EXPECT_KILLED_BY(SIGBUS, [] {
      BusErrorGuard::initialize();
      RegisterSpace space(page);
      const auto access = pciHwAccessImplFactory("fpga", space.path());
      space.sizeIs(0);
      access->read32(0);
   });
}

TEST(PciHwAccessImplDeathTest, TheFirstGuardedAccessInstallsTheGuard) {
   EXPECT_IN_A_FRESH_PROCESS([] {
      RegisterSpace space(page);
      const auto access = pciHwAccessImplFactory("fpga", space.path());
      access->write32(0, 5);
      EXPECT_EQ(access->read32(0), 5u);
      EXPECT_THROW(access->guardedRead32(page), std::system_error);
      EXPECT_FALSE(BusErrorGuard::initialized()) << "a program that needs none gets none";
      EXPECT_EQ(access->guardedRead32(0), 5u);
      EXPECT_TRUE(BusErrorGuard::initialized());
      space.sizeIs(0);
      EXPECT_THROW(access->guardedRead32(0), SigbusException);
   });
   EXPECT_IN_A_FRESH_PROCESS([] {
      RegisterSpace space(page);
      const auto access = pciHwAccessImplFactory("fpga", space.path());
      space.sizeIs(0);
      EXPECT_THROW(access->guardedWrite32(0, 1), SigbusException);
   });
}

TEST(PciHwAccessImplDeathTest, WithAutoInstallOffAGuardedAccessIsLikeAPlainOne) {
   EXPECT_IN_A_FRESH_PROCESS([] {
      BusErrorGuard::autoInstallIs(false);
      RegisterSpace space(page);
      const auto access = pciHwAccessImplFactory("fpga", space.path());
      access->guardedWrite32(0, 5);
      EXPECT_EQ(access->guardedRead32(0), 5u);
      EXPECT_FALSE(BusErrorGuard::initialized());
      struct sigaction action = {};
      ::sigaction(SIGBUS, nullptr, &action);
      EXPECT_EQ(action.sa_handler, SIG_DFL);
   });
   EXPECT_KILLED_BY(SIGBUS, [] {
      BusErrorGuard::autoInstallIs(false);
      RegisterSpace space(page);
      const auto access = pciHwAccessImplFactory("fpga", space.path());
      space.sizeIs(0);
      access->guardedRead32(0);
   });
   EXPECT_IN_A_FRESH_PROCESS([] {
      BusErrorGuard::autoInstallIs(false);
      BusErrorGuard::initialize();
      RegisterSpace space(page);
      const auto access = pciHwAccessImplFactory("fpga", space.path());
      space.sizeIs(0);
      EXPECT_THROW(access->guardedRead32(0), SigbusException);
   });
}

} // namespace
