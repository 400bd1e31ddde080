#include "nimbo/LinuxBackend.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/trace/CaptureScope.h"
#include "TarnRegFile/I2cTransportMethodImpl.h"
#include "TarnRegFile/Utils.h"
#include "tests/support/Failure.h"
#include "tests/support/KernelI2c.h"
#include "tests/support/TempDir.h"

namespace Nimbo {
namespace {

using namespace std::chrono_literals;
using Platform::Trace::CaptureScope;
using TarnRegFile::Utils::UnixFdRes;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::Failure;
using TestSupport::KernelI2c;
using Bytes = std::vector<std::uint8_t>;

class LinuxBackendTest : public testing::Test {
protected:
   LinuxBackendTest() { kernel.functions = I2C_FUNC_I2C | I2C_FUNC_SMBUS_EMUL; }

   int write(unsigned device, const Bytes& offset, const Bytes& data) {
      return backend.write(static_cast<std::uint8_t>(device), offset, data);
   }

   int read(unsigned device, const Bytes& offset, std::size_t length) {
      got.assign(length, 0x5a);
      return backend.read(static_cast<std::uint8_t>(device), offset, got);
   }

   std::vector<unsigned long> requests() const {
      std::vector<unsigned long> result;
      for (const KernelI2c::Call& call : kernel.calls) {
         result.push_back(call.request);
      }
      return result;
   }

   KernelI2c kernel;
   Bytes got;
   LinuxBackend backend{kernel.path(), std::nullopt, std::nullopt};
};

TEST_F(LinuxBackendTest, DoesNotTouchTheNodeBeforeItIsNeeded) {
   EXPECT_THAT(kernel.openFds(), IsEmpty());
   EXPECT_THAT(kernel.order, IsEmpty());
}

TEST_F(LinuxBackendTest, OpensTheNodeOnceAndLocksItEveryTime) {
   backend.begin();
   const std::vector<int> fds = kernel.openFds();
   ASSERT_EQ(fds.size(), 1U);
   EXPECT_EQ(::fcntl(fds[0], F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
   EXPECT_EQ(::fcntl(fds[0], F_GETFL) & O_ACCMODE, O_RDWR);
   EXPECT_TRUE(kernel.isLocked());
   backend.end();
   EXPECT_FALSE(kernel.isLocked());
   backend.begin();
   backend.end();
   EXPECT_EQ(kernel.openFds(), fds);
   EXPECT_THAT(requests(), ElementsAre(I2C_FUNCS));
   EXPECT_THAT(kernel.order, ElementsAre("lock exclusive", "unlock", "lock exclusive", "unlock"));
}

TEST_F(LinuxBackendTest, HoldsTheLockOverAllTransfersAndGivesItBackAfterAFailure) {
   kernel.errors = {0, ENXIO};
   backend.begin();
   EXPECT_EQ(write(0x50, {1}, {2}), 0);
   EXPECT_EQ(read(0x50, {1}, 2), ENXIO);
   EXPECT_EQ(read(0x50, {1}, 2), 0);
   backend.end();
   EXPECT_THAT(kernel.order,
               ElementsAre("lock exclusive", "transfer", "transfer", "transfer", "unlock"));
   for (std::size_t i = 1; i < kernel.calls.size(); ++i) {
      EXPECT_TRUE(kernel.calls[i].locked);
   }
   EXPECT_FALSE(kernel.isLocked());
   EXPECT_EQ(kernel.openFds().size(), 1U); // an error closes nothing
}

TEST_F(LinuxBackendTest, GivesLockAndNodeBackWhenItGoes) {
   {
      LinuxBackend other(kernel.path(), std::nullopt, std::nullopt);
      other.begin();
      EXPECT_TRUE(kernel.isLocked());
   }
   EXPECT_FALSE(kernel.isLocked());
   EXPECT_THAT(kernel.openFds(), IsEmpty());
}

TEST_F(LinuxBackendTest, WaitsForWhoHasTheLock) {
   UnixFdRes other(::open(kernel.path().c_str(), O_RDWR | O_CLOEXEC));
   ASSERT_EQ(::flock(other.fd(), LOCK_EX), 0);
   std::promise<void> waits;
   kernel.onLock = [&] { waits.set_value(); };
   std::atomic<bool> isFree = false;
   bool wasFree = false;
   std::thread thread([&] {
      backend.begin();
      wasFree = isFree;
      backend.end();
   });
   waits.get_future().wait();
   isFree = true;
   other = UnixFdRes(-1);
   thread.join();
   EXPECT_TRUE(wasFree);
   EXPECT_FALSE(kernel.isLocked());
}

TEST_F(LinuxBackendTest, ExcludesAnotherProcessWhileItHasTheBus) {
   const auto isRefused = [this] {
      const ::pid_t child = ::fork();
      if (child == 0) {
         const int fd = ::open(kernel.path().c_str(), O_RDWR | O_CLOEXEC);
         ::_exit(::flock(fd, LOCK_EX | LOCK_NB) == 0 ? 0 : 1);
      }
      int status = 0;
      ::waitpid(child, &status, 0);
      return WEXITSTATUS(status) == 1;
   };
   backend.begin();
   EXPECT_TRUE(isRefused());
   backend.end();
   EXPECT_FALSE(isRefused());
}

TEST_F(LinuxBackendTest, SharesItsLockWithProgramsThatUseTheNodeDirectly) {
   const TestSupport::TempDir directory;
   const std::string list = directory.write("list.csv", "number,name,type,writeable,width\n"
                                                        "16,STATUS,led,true,32\n");
   TarnRegFile::I2cTransportMethodImpl transport(kernel.path().c_str(), 0x50, list.c_str(),
                                                 TarnRegFile::I2cFlavour::dataBlock, nullptr);
   backend.begin();
   kernel.order.clear();
   std::promise<void> waits;
   kernel.onLock = [&] { waits.set_value(); };
   std::thread thread([&] { transport.regRead("STATUS"); });
   waits.get_future().wait();
   EXPECT_EQ(read(0x50, {1}, 2), 0);
   backend.end();
   thread.join();
   EXPECT_THAT(kernel.order,
               ElementsAre("lock exclusive", "transfer", "unlock", "write", "read", "unlock"));
}

// -- a controller that speaks I2C ----------------------------------------------------------------

TEST_F(LinuxBackendTest, WritesOffsetAndDataInOneMessage) {
   backend.begin();
   EXPECT_EQ(write(0x51, {0x12, 0x34}, {1, 2, 3}), 0);
   EXPECT_EQ(write(0x51, {7}, {}), 0);
   EXPECT_EQ(write(0x7f, {1, 2, 3, 4}, Bytes(8188, 9)), 0);
   backend.end();
   EXPECT_THAT(requests(), ElementsAre(I2C_FUNCS, I2C_RDWR, I2C_RDWR, I2C_RDWR));
   EXPECT_THAT(kernel.calls[1].messages,
               ElementsAre(KernelI2c::Message{0x51, 0, 5, {0x12, 0x34, 1, 2, 3}}));
   EXPECT_THAT(kernel.calls[2].messages, ElementsAre(KernelI2c::Message{0x51, 0, 1, {7}}));
   ASSERT_EQ(kernel.calls[3].messages.size(), 1U);
   EXPECT_EQ(kernel.calls[3].messages[0].length, 8192U);
}

TEST_F(LinuxBackendTest, ReadsBehindTheOffsetInOneTransfer) {
   kernel.bytes = {0xaa, 0xbb, 0xcc};
   backend.begin();
   EXPECT_EQ(read(0x51, {0x12, 0x34}, 3), 0);
   EXPECT_EQ(got, (Bytes{0xaa, 0xbb, 0xcc}));
   EXPECT_EQ(read(0x51, {1, 2, 3, 4}, 8192), 0);
   backend.end();
   EXPECT_THAT(kernel.calls[1].messages, ElementsAre(KernelI2c::Message{0x51, 0, 2, {0x12, 0x34}},
                                                     KernelI2c::Message{0x51, I2C_M_RD, 3}));
   EXPECT_THAT(kernel.calls[2].messages, ElementsAre(KernelI2c::Message{0x51, 0, 4, {1, 2, 3, 4}},
                                                     KernelI2c::Message{0x51, I2C_M_RD, 8192}));
}

TEST_F(LinuxBackendTest, GivesTheErrnoOfATransfer) {
   backend.begin();
   for (const int error : {ENXIO, EREMOTEIO, ETIMEDOUT, EAGAIN, EIO, ENODEV}) {
      kernel.errors = {error, error};
      EXPECT_EQ(write(0x50, {1}, {2}), error);
      EXPECT_EQ(read(0x50, {1}, 2), error);
   }
   backend.end();
}

// A failed read that looks like data would be the worst of all.
TEST_F(LinuxBackendTest, ATransferOfWhichOnlyAPartWentHasFailed) {
   backend.begin();
   kernel.transferred = 1;
   EXPECT_EQ(read(0x50, {1}, 2), EIO);
   EXPECT_EQ(write(0x50, {1}, {2}), 0);
   kernel.transferred = 0;
   EXPECT_EQ(write(0x50, {1}, {2}), EIO);
   backend.end();
}

// -- a controller that only speaks SMBus ---------------------------------------------------------

class SmbusOnly : public LinuxBackendTest {
protected:
   SmbusOnly() {
      kernel.functions = I2C_FUNC_SMBUS_I2C_BLOCK;
      backend.begin();
      kernel.calls.clear();
   }
};

TEST_F(SmbusOnly, WritesABlock) {
   EXPECT_EQ(write(0x51, {0x12}, {1, 2, 3}), 0);
   ASSERT_THAT(requests(), ElementsAre(I2C_SLAVE, I2C_SMBUS));
   EXPECT_EQ(kernel.calls[0].address, 0x51);
   EXPECT_EQ(kernel.calls[1].readWrite, I2C_SMBUS_WRITE);
   EXPECT_EQ(kernel.calls[1].command, 0x12);
   EXPECT_EQ(kernel.calls[1].size, static_cast<unsigned>(I2C_SMBUS_I2C_BLOCK_DATA));
   EXPECT_EQ(kernel.calls[1].block, (Bytes{3, 1, 2, 3}));
}

TEST_F(SmbusOnly, ReadsABlock) {
   kernel.bytes = {0xaa, 0xbb};
   EXPECT_EQ(read(0x51, {0x12}, 2), 0);
   EXPECT_EQ(got, (Bytes{0xaa, 0xbb}));
   ASSERT_THAT(requests(), ElementsAre(I2C_SLAVE, I2C_SMBUS));
   EXPECT_EQ(kernel.calls[1].readWrite, I2C_SMBUS_READ);
   EXPECT_EQ(kernel.calls[1].command, 0x12);
   EXPECT_EQ(kernel.calls[1].block, (Bytes{2})); // how much it wants
}

TEST_F(SmbusOnly, TakesTheLongestBlockAndNoLongerOne) {
   kernel.bytes = Bytes(32, 7);
   EXPECT_EQ(write(0x51, {0}, Bytes(32, 9)), 0);
   EXPECT_EQ(read(0x51, {0}, 32), 0);
   EXPECT_EQ(got, Bytes(32, 7));
   kernel.calls.clear();
   EXPECT_EQ(write(0x51, {0}, Bytes(33, 9)), EOPNOTSUPP);
   EXPECT_EQ(read(0x51, {0}, 33), EOPNOTSUPP);
   EXPECT_THAT(kernel.calls, IsEmpty());
}

TEST_F(SmbusOnly, HasNoOffsetsOfMoreThanOneByte) {
   for (const std::size_t size : {2U, 4U}) {
      EXPECT_EQ(write(0x51, Bytes(size), {1}), EOPNOTSUPP);
      EXPECT_EQ(read(0x51, Bytes(size), 1), EOPNOTSUPP);
   }
   EXPECT_THAT(kernel.calls, IsEmpty());
}

TEST_F(SmbusOnly, AnOffsetAloneIsAByteSent) {
   EXPECT_EQ(write(0x51, {0x12}, {}), 0);
   ASSERT_THAT(requests(), ElementsAre(I2C_SLAVE, I2C_SMBUS));
   EXPECT_EQ(kernel.calls[1].readWrite, I2C_SMBUS_WRITE);
   EXPECT_EQ(kernel.calls[1].command, 0x12);
   EXPECT_EQ(kernel.calls[1].size, static_cast<unsigned>(I2C_SMBUS_BYTE));
}

TEST_F(SmbusOnly, ADeviceThatStopsEarlyHasFailed) {
   kernel.bytes = {0xaa};
   EXPECT_EQ(read(0x51, {0x12}, 2), EIO);
   kernel.bytes = {0xaa, 0xbb, 0xcc};
   EXPECT_EQ(read(0x51, {0x12}, 2), 0);
   EXPECT_EQ(got, (Bytes{0xaa, 0xbb}));
}

TEST_F(SmbusOnly, ADeviceWithADriverInTheKernelIsBusy) {
   kernel.onlyTransfersFail = false;
   kernel.errors = {EBUSY};
   EXPECT_EQ(write(0x51, {0x12}, {1}), EBUSY);
   EXPECT_THAT(requests(), ElementsAre(I2C_SLAVE));
   kernel.errors = {0, ENXIO};
   EXPECT_EQ(read(0x51, {0x12}, 1), ENXIO);
}

// -- what the driver is told ---------------------------------------------------------------------

struct Wait {
   std::chrono::milliseconds timeout;
   unsigned long units;
};

class LinuxBackendTimeout : public LinuxBackendTest, public testing::WithParamInterface<Wait> {};

TEST_P(LinuxBackendTimeout, IsToldInUnitsOfTenMilliseconds) {
   LinuxBackend told(kernel.path(), GetParam().timeout, 3);
   told.begin();
   told.end();
   ASSERT_THAT(requests(), ElementsAre(I2C_FUNCS, I2C_TIMEOUT, I2C_RETRIES));
   EXPECT_EQ(kernel.calls[1].value, GetParam().units);
   EXPECT_EQ(kernel.calls[2].value, 3U);
}

INSTANTIATE_TEST_SUITE_P(All, LinuxBackendTimeout,
                         testing::Values(Wait{0ms, 1}, Wait{1ms, 1}, Wait{10ms, 1}, Wait{14ms, 1},
                                         Wait{15ms, 2}, Wait{100ms, 10}, Wait{1000ms, 100}));

TEST_F(LinuxBackendTest, NoRetriesAreToldToo) {
   LinuxBackend told(kernel.path(), std::nullopt, 0);
   told.begin();
   told.end();
   ASSERT_THAT(requests(), ElementsAre(I2C_FUNCS, I2C_RETRIES));
   EXPECT_EQ(kernel.calls[1].value, 0U);
}

TEST_F(LinuxBackendTest, ADriverThatCannotBeToldIsUsedAsItIs) {
   kernel.onlyTransfersFail = false;
   kernel.errors = {0, EINVAL, ENOTTY};
   LinuxBackend told(kernel.path(), 100ms, 3);
   const CaptureScope trace("nimbo/LinuxBackend=0");
   told.begin();
   told.end();
   EXPECT_THAT(
      trace.texts(),
      ElementsAre(kernel.path() + " keeps its time-out: Invalid argument",
                  kernel.path() + " keeps its number of retries: Inappropriate ioctl for device"));
   EXPECT_EQ(kernel.openFds().size(), 1U);
}

// -- nodes that come and go ----------------------------------------------------------------------

TEST_F(LinuxBackendTest, ANodeThatIsNotThereYetIsOpenedOnceItIs) {
   kernel.remove();
   const auto begin = [this] { backend.begin(); };
   EXPECT_EQ(Failure(begin), Failure::system(ENOENT, "cannot open " + kernel.path()))
      << Failure(begin);
   kernel.replace();
   backend.begin();
   EXPECT_EQ(read(0x50, {1}, 1), 0);
   backend.end();
   EXPECT_FALSE(kernel.isLocked());
}

TEST_F(LinuxBackendTest, WhatIsNoBusIsSaidToBeNone) {
   kernel.functions.reset();
   const auto begin = [this] { backend.begin(); };
   EXPECT_EQ(Failure(begin).text,
             Failure::system(ENOTTY, "cannot use " + kernel.path() + " as an I2C bus").text);
   EXPECT_THAT(kernel.openFds(), IsEmpty());
   kernel.functions = I2C_FUNC_I2C;
   backend.begin();
   backend.end();
   EXPECT_EQ(kernel.openFds().size(), 1U);
}

TEST_F(LinuxBackendTest, ANodeThatWasReplacedIsOpenedAnew) {
   backend.begin();
   backend.end();
   const std::vector<int> before = kernel.openFds();
   kernel.calls.clear();
   kernel.replace();
   kernel.functions = I2C_FUNC_SMBUS_I2C_BLOCK; // it is another controller, too
   EXPECT_THAT(kernel.openFds(), IsEmpty());
   backend.begin();
   EXPECT_TRUE(kernel.isLocked());
   EXPECT_EQ(write(0x50, {1}, {2}), 0);
   backend.end();
   EXPECT_EQ(kernel.openFds().size(), 1U);
   EXPECT_THAT(requests(), ElementsAre(I2C_FUNCS, I2C_SLAVE, I2C_SMBUS));
   // The old one has been closed.
   const bool isReused = kernel.openFds() == before;
   EXPECT_TRUE(isReused || ::fcntl(before[0], F_GETFD) < 0);
}

TEST_F(LinuxBackendTest, ANodeThatWasReplacedByWhatIsNoneIsTriedEveryTime) {
   backend.begin();
   backend.end();
   kernel.replace();
   kernel.functions.reset();
   for (int i = 0; i < 2; ++i) {
      EXPECT_THROW(backend.begin(), std::system_error);
   }
   EXPECT_FALSE(kernel.isLocked());
   EXPECT_THAT(kernel.openFds(), IsEmpty());
   kernel.functions = I2C_FUNC_I2C;
   backend.begin();
   EXPECT_EQ(read(0x50, {1}, 1), 0);
   backend.end();
}

TEST_F(LinuxBackendTest, ANodeThatHasGoneIsNotKeptOpen) {
   backend.begin();
   backend.end();
   const std::vector<int> before = kernel.openFds();
   ASSERT_EQ(before.size(), 1U);
   kernel.remove();
   kernel.calls.clear();
   // The driver behind it waits for that, and nothing can come back before.
   EXPECT_EQ(Failure([&] { backend.begin(); }),
             Failure::system(ENOENT, "cannot open " + kernel.path()));
   EXPECT_LT(::fcntl(before[0], F_GETFD), 0);
   EXPECT_THAT(requests(), IsEmpty());
   kernel.replace();
   backend.begin();
   EXPECT_EQ(read(0x50, {1}, 1), 0);
   backend.end();
}

} // namespace
} // namespace Nimbo
