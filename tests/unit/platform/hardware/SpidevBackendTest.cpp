#include "platform/hardware/SpidevBackend.h"

#include <fcntl.h>
#include <linux/spi/spidev.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "platform/entity/Ptr.h"
#include "tests/support/Failure.h"
#include "tests/support/TempDir.h"

namespace {

using Hardware::SpidevBackend;
using Hardware::SpidevSettings;
using Hardware::SpidevSystem;
using Platform::Bytes;
using Platform::Ptr;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::Failure;
using TestSupport::TempDir;

/// A kernel with one SPI device, which echoes each byte with all bits turned over. Journals the
/// calls, and fails those that the test has planned.
class FakeKernel : public SpidevSystem {
public:
   int open(const char* path, int flags) override {
      calls.push_back("open " + std::string(path));
      openFlags = flags;
      if (_failed(openErrors)) {
         return -1;
      }
      return ++lastFd;
   }

   int close(int fd) override {
      calls.push_back("close " + std::to_string(fd));
      return 0;
   }

   int ioctl(int fd, unsigned long request, void* argument) override {
      if (request == SPI_IOC_WR_MODE) {
         calls.push_back("mode " + std::to_string(*static_cast<std::uint8_t*>(argument)));
         return _failed(modeErrors) ? -1 : 0;
      }
      if (request != SPI_IOC_MESSAGE(1)) {
         ADD_FAILURE() << "ioctl " << request;
         errno = ENOTTY;
         return -1;
      }
      calls.push_back("message " + std::to_string(fd));
      message = *static_cast<spi_ioc_transfer*>(argument);
      if (_failed(messageErrors)) {
         return -1;
      }
      const auto* out = reinterpret_cast<const std::uint8_t*>(message.tx_buf);
      auto* in = reinterpret_cast<std::uint8_t*>(message.rx_buf);
      sent.emplace_back(out, out + message.len);
      for (std::uint32_t i = 0; i < message.len; ++i) {
         in[i] = static_cast<std::uint8_t>(~out[i]);
      }
      return shortBy > 0 ? static_cast<int>(message.len) - shortBy : static_cast<int>(message.len);
   }

   std::vector<std::string> calls;
   std::deque<int> openErrors, modeErrors, messageErrors; // 0 for a call that succeeds
   std::vector<Bytes> sent;
   spi_ioc_transfer message{};
   int openFlags = 0;
   int lastFd = 100;
   int shortBy = 0;

private:
   static bool _failed(std::deque<int>& errors) {
      if (errors.empty()) {
         return false;
      }
      const int error = errors.front();
      errors.pop_front();
      errno = error;
      return error != 0;
   }
};

class Spidev : public testing::Test {
protected:
   Ptr<SpidevBackend> make(SpidevSettings settings = {"/dev/spidev1.2", 0, std::nullopt}) {
      return Platform::make<SpidevBackend>(std::move(settings), kernel);
   }

   int send(SpidevBackend& backend, const Bytes& bytes = {1, 2, 3}) {
      in.assign(bytes.size(), 0);
      return backend.transfer(bytes, in);
   }

   const std::shared_ptr<FakeKernel> kernel = std::make_shared<FakeKernel>();
   Bytes in;
};

TEST_F(Spidev, OpensNothingUntilTheFirstTransfer) {
   const auto backend = make();
   EXPECT_EQ(backend->name(), "/dev/spidev1.2");
   EXPECT_FALSE(backend->isOpen());
   EXPECT_THAT(kernel->calls, IsEmpty());
}

TEST_F(Spidev, SendsOneMessageForATransferBothWays) {
   auto backend = make({"/dev/spidev1.2", 5'000'000, std::nullopt});
   EXPECT_EQ(send(*backend, {0x12, 0xab, 0xcd}), 0);
   EXPECT_THAT(kernel->calls, ElementsAre("open /dev/spidev1.2", "message 101"));
   EXPECT_EQ(kernel->openFlags & O_ACCMODE, O_RDWR);
   EXPECT_NE(kernel->openFlags & O_CLOEXEC, 0);
   EXPECT_THAT(kernel->sent, ElementsAre(Bytes{0x12, 0xab, 0xcd}));
   EXPECT_THAT(in, ElementsAre(0xed, 0x54, 0x32));
   EXPECT_EQ(kernel->message.len, 3u);
   EXPECT_EQ(kernel->message.speed_hz, 5'000'000u);
   EXPECT_EQ(kernel->message.bits_per_word, 8);
   EXPECT_EQ(kernel->message.cs_change, 0) << "the chip select is let go at the end only";
   EXPECT_EQ(kernel->message.delay_usecs, 0);
   EXPECT_EQ(kernel->message.pad, 0);
   EXPECT_EQ(send(*backend), 0);
   EXPECT_THAT(kernel->calls, ElementsAre("open /dev/spidev1.2", "message 101", "message 101"));
   backend.reset();
   EXPECT_EQ(kernel->calls.back(), "close 101");
   EXPECT_EQ(kernel->calls.size(), 4u);
}

TEST_F(Spidev, SetsTheModeOnceForEachOpeningIfThereIsOneToSet) {
   const auto backend = make({"/dev/spidev1.2", 0, 3});
   send(*backend);
   send(*backend);
   EXPECT_THAT(kernel->calls,
               ElementsAre("open /dev/spidev1.2", "mode 3", "message 101", "message 101"));
}

TEST_F(Spidev, ARefusedModeFailsTheTransferAndIsTriedAgain) {
   const auto backend = make({"/dev/spidev1.2", 0, 1});
   kernel->modeErrors = {EINVAL};
   EXPECT_EQ(send(*backend), EINVAL);
   EXPECT_FALSE(backend->isOpen());
   EXPECT_THAT(kernel->calls, ElementsAre("open /dev/spidev1.2", "mode 1", "close 101"));
   EXPECT_EQ(send(*backend), 0);
}

TEST_F(Spidev, RefusesSettingsThatCannotBe) {
   EXPECT_EQ(Failure([&] {
                make({"", 0, std::nullopt});
             }),
             Failure::generic(EINVAL, "SPI device path must not be empty"));
   EXPECT_EQ(Failure([&] {
                make({"/dev/spidev1.2", 0, 4});
             }),
             Failure::generic(EINVAL, "SPI mode 4 is not 0 to 3"));
   for (std::uint8_t mode = 0; mode < 4; ++mode) {
      EXPECT_EQ(make({"/dev/spidev1.2", 0, mode})->settings().mode, mode);
   }
   EXPECT_THAT(kernel->calls, IsEmpty());
}

TEST_F(Spidev, RepeatsInterruptedCalls) {
   const auto backend = make({"/dev/spidev1.2", 0, 0});
   kernel->openErrors = {EINTR, EINTR};
   kernel->modeErrors = {EINTR};
   kernel->messageErrors = {EINTR, EINTR, EINTR};
   EXPECT_EQ(send(*backend), 0);
   EXPECT_EQ(kernel->calls.size(), 3u + 2u + 4u);
   EXPECT_EQ(kernel->sent.size(), 1u);
}

TEST_F(Spidev, AnErrorOfTheTransferLeavesTheDeviceOpen) {
   const auto backend = make();
   for (const int error : {EIO, ETIMEDOUT, EMSGSIZE, EINVAL, EREMOTEIO}) {
      kernel->messageErrors = {error};
      EXPECT_EQ(send(*backend), error);
      EXPECT_TRUE(backend->isOpen());
   }
   EXPECT_EQ(send(*backend), 0);
   EXPECT_EQ(kernel->lastFd, 101) << "opened once";
   EXPECT_EQ(kernel->calls.size(), 7u) << "and each tried once";
}

TEST_F(Spidev, AMessageCutShortIsAnError) {
   const auto backend = make();
   kernel->shortBy = 1;
   EXPECT_EQ(send(*backend), EIO);
   kernel->shortBy = 3;
   EXPECT_EQ(send(*backend), EIO);
}

TEST_F(Spidev, ADeviceThatWentAndCameBackJustWorks) {
   for (const int error : {ENODEV, ENXIO, ESHUTDOWN, EBADF, ENOTTY}) {
      const auto backend = make({"/dev/spidev1.2", 0, 2});
      send(*backend);
      kernel->calls.clear();
      kernel->sent.clear();
      kernel->messageErrors = {error};
      EXPECT_EQ(send(*backend), 0) << error;
      const std::string fd = std::to_string(kernel->lastFd);
      const std::string before = std::to_string(kernel->lastFd - 1);
      EXPECT_THAT(kernel->calls, ElementsAre("message " + before, "close " + before,
                                             "open /dev/spidev1.2", "mode 2", "message " + fd));
      EXPECT_EQ(kernel->sent.size(), 1u);
   }
}

TEST_F(Spidev, ADeviceThatIsGoneFailsEachTransferUntilItIsBack) {
   const auto backend = make();
   send(*backend);
   kernel->messageErrors = {ESHUTDOWN};
   kernel->openErrors = {ENOENT, ENOENT};
   EXPECT_EQ(send(*backend), ENOENT);
   EXPECT_FALSE(backend->isOpen());
   EXPECT_EQ(send(*backend), ENOENT);
   EXPECT_EQ(send(*backend), 0);
}

TEST_F(Spidev, AFreshlyOpenedNodeWithoutADeviceIsNotTriedTwice) {
   const auto backend = make();
   kernel->messageErrors = {ENODEV};
   EXPECT_EQ(send(*backend), ENODEV);
   EXPECT_THAT(kernel->calls, ElementsAre("open /dev/spidev1.2", "message 101", "close 101"));
   kernel->messageErrors = {0, ENODEV, ENODEV};
   EXPECT_EQ(send(*backend), 0);
   EXPECT_EQ(send(*backend), ENODEV) << "the stale one, then the fresh one; no further";
   EXPECT_FALSE(backend->isOpen());
}

// -- against the real kernel ---------------------------------------------------------------------

class SpidevOnThisSystem : public testing::Test {
protected:
   int send(const std::string& path) {
      const auto backend = Platform::make<SpidevBackend>(SpidevSettings{path, 0, std::nullopt});
      const Bytes out{1, 2, 3};
      Bytes in(3);
      const int error = backend->transfer(out, in);
      EXPECT_FALSE(backend->isOpen());
      EXPECT_EQ(backend->transfer(out, in), error) << "the same each time";
      return error;
   }

   const TempDir dir;
};

TEST_F(SpidevOnThisSystem, AMissingPathIsMissing) {
   EXPECT_EQ(send(dir.path("spidev0.0")), ENOENT);
}

TEST_F(SpidevOnThisSystem, AnOrdinaryFileIsNoDeviceAndIsLeftAlone) {
   const std::string file = dir.write("spidev0.0", "content");
   EXPECT_EQ(send(file), ENOTTY);
   EXPECT_EQ(dir.read("spidev0.0"), "content");
}

TEST_F(SpidevOnThisSystem, ADirectoryIsNoDevice) {
   EXPECT_EQ(send(dir.path()), EISDIR);
}

TEST_F(SpidevOnThisSystem, AnotherKindOfDeviceIsRefused) {
   EXPECT_EQ(send("/dev/null"), ENOTTY);
}

} // namespace
