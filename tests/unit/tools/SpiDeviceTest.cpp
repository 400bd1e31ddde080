// The simulated SPI device and its node: what is sent, what comes back, what goes wrong, and what
// is told of it.

#include "tools/tarnsim/SpiDevice.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/spi/spidev.h>

#include "board/SimulatedBoardParser.h"
#include "tests/support/Failure.h"
#include "tools/tarnsim/SpiNode.h"

namespace TarnSim {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::Failure;
using Bytes = std::vector<std::uint8_t>;

class SpiDeviceTest : public testing::Test {
protected:
   static Board::SpiSpec spec(const std::string& more = "") {
      return Board::simulatedBoardFromText("[simulate.spi.s]\ndevice = \"/dev/spidev0.0\"\n" + more,
                                           "b.toml")
         .spi.at(0);
   }

   /// What comes back.
   static Bytes exchanged(SpiDevice& device, const Bytes& out) {
      Bytes in(out.size(), 0xee);
      EXPECT_EQ(device.transfer(out, in), 0);
      return in;
   }
};

TEST_F(SpiDeviceTest, KeepsAJournalOfWhatIsSentUntilItIsForgotten) {
   SpiDevice device(spec("values = { 7 = 9 }\n"));
   EXPECT_THAT(device.journal(), IsEmpty()) << "what the board gives it is no access";
   exchanged(device, {0x10, 0xab, 0xcd});
   exchanged(device, {});
   EXPECT_THAT(device.journal(), ElementsAre("transfer: 10 ab cd", "transfer:"));
   EXPECT_EQ(device.registerAt(0x10), 0xabcdU);
   EXPECT_EQ(device.registerAt(7), 9U);
   device.journalClear();
   EXPECT_THAT(device.journal(), IsEmpty());
}

TEST_F(SpiDeviceTest, TheJournalHasTheLatestAccessesAndNoMore) {
   SpiDevice device(spec());
   constexpr unsigned more = 3;
   for (unsigned i = 0; i < SpiDevice::journalCapacity + more; ++i) {
      exchanged(device, {static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)});
   }
   const std::vector<std::string> journal = device.journal();
   ASSERT_EQ(journal.size(), SpiDevice::journalCapacity);
   EXPECT_EQ(journal.front(), "transfer: 00 03");
   EXPECT_EQ(journal.back(), "transfer: 10 02");
}

TEST_F(SpiDeviceTest, AFailedAccessChangesNothingAndIsJournalled) {
   SpiDevice device(spec("faults = [{ kind = \"eio\", count = 1 },"
                         " { kind = \"timeout\", first = 2, count = 1 },"
                         " { kind = \"nak\", first = 3, count = 1 }]\n"));
   const Bytes out{5, 1, 2};
   for (const int error : {EIO, ETIMEDOUT, ENXIO}) {
      Bytes in(3, 0xee);
      EXPECT_EQ(device.transfer(out, in), error);
      EXPECT_THAT(in, ElementsAre(0xee, 0xee, 0xee));
   }
   EXPECT_EQ(device.registerAt(5), 0U) << "nothing was written";
   EXPECT_THAT(device.journal(), ElementsAre("transfer: error " + std::to_string(EIO),
                                             "transfer: error " + std::to_string(ETIMEDOUT),
                                             "transfer: error " + std::to_string(ENXIO)));
   exchanged(device, out);
   EXPECT_EQ(device.registerAt(5), 0x102U);
   EXPECT_THAT(device.faults()->faults(), IsEmpty());
}

TEST_F(SpiDeviceTest, WrongAndShortAnswersComeWithoutAnError) {
   SpiDevice device(spec("faults = [{ kind = \"wrong\", mask = 0x0f, count = 1 },"
                         " { kind = \"short\", length = 1, first = 2, count = 1 }]\n"));
   EXPECT_THAT(exchanged(device, {1, 2, 3}), ElementsAre(0x0f, 0x0f, 0x0f));
   EXPECT_EQ(device.registerAt(1), 0x203U) << "what is sent arrives all the same";
   EXPECT_THAT(exchanged(device, {1, 2, 3}), ElementsAre(0, 0xff, 0xff));
   EXPECT_THAT(exchanged(device, {1, 2, 3}), ElementsAre(0, 0, 0));
   EXPECT_THAT(device.journal(),
               ElementsAre("transfer: 01 02 03", "transfer: 01 02 03", "transfer: 01 02 03"));
}

TEST_F(SpiDeviceTest, EveryMessageIsAWriteToItsFaults) {
   SpiDevice device(spec("faults = [{ kind = \"eio\", direction = \"read\" },"
                         " { kind = \"nak\", direction = \"write\", first = 2, count = 1 }]\n"));
   exchanged(device, {0, 0});
   Bytes in(2);
   EXPECT_EQ(device.transfer(Bytes{0, 0}, in), ENXIO);
   exchanged(device, {0, 0});
}

TEST_F(SpiDeviceTest, ALostDeviceAnswersAsOneThatWasUnplugged) {
   SpiDevice device(spec("present = false\nvalues = { 3 = 4 }\n"));
   EXPECT_TRUE(device.lost());
   Bytes in(3);
   EXPECT_EQ(device.transfer(Bytes{3, 0, 0}, in), ESHUTDOWN);
   EXPECT_EQ(device.registerAt(3), 4U) << "whoever scripts it still sees its registers";
   device.lostIs(false);
   exchanged(device, {3, 0, 5});
   EXPECT_EQ(device.registerAt(3), 5U);
   EXPECT_THAT(device.journal(),
               ElementsAre("transfer: error " + std::to_string(ESHUTDOWN), "transfer: 03 00 05"));
}

TEST_F(SpiDeviceTest, HasRegistersOf16BitsAt256Addresses) {
   SpiDevice device(spec());
   device.registerIs(0xff, 0xffff);
   EXPECT_EQ(device.registerAt(0xff), 0xffffU);
   EXPECT_EQ(Failure([&] { device.registerAt(0x100); }),
             Failure::range("There is no register at 0x100"));
   EXPECT_EQ(Failure([&] { device.registerIs(0x100, 0); }),
             Failure::range("There is no register at 0x100 that holds 0x0"));
   EXPECT_EQ(Failure([&] { device.registerIs(1, 0x10000); }),
             Failure::range("There is no register at 0x1 that holds 0x10000"));
   EXPECT_EQ(device.registerAt(1), 0U);
   EXPECT_EQ(device.addressOf("SCRATCH"), std::nullopt) << "it has no list";
   EXPECT_THAT(device.journal(), IsEmpty()) << "these are no accesses of the command";
}

/// The node, asked by a command that is this very process.
class SpiNodeTest : public SpiDeviceTest {
protected:
   template <typename Argument>
   long ioctl(std::uint32_t request, Argument* argument) {
      return ioctlAt(request, reinterpret_cast<std::uintptr_t>(argument));
   }
   long ioctlAt(std::uint32_t request, std::uint64_t address) {
      return node.ioctl(
         {request, address, TargetMemory(::getpid()), -1, [this] { return isWaiting; }});
   }
   /// An address at which nothing is.
   static constexpr std::uint64_t nowhere = 16;

   static spi_ioc_transfer part(const void* out, void* in, std::uint32_t size) {
      spi_ioc_transfer transfer = {};
      transfer.tx_buf = reinterpret_cast<std::uintptr_t>(out);
      transfer.rx_buf = reinterpret_cast<std::uintptr_t>(in);
      transfer.len = size;
      return transfer;
   }

   bool isWaiting = true;
   SpiDevice device{spec()};
   SpiNode node{device, nullptr};
};

TEST_F(SpiNodeTest, KeepsModeAndSpeedAndGivesThemBack) {
   std::uint32_t mode = SPI_MODE_3 | SPI_NO_CS;
   EXPECT_EQ(ioctl(SPI_IOC_WR_MODE32, &mode), 0);
   std::uint8_t narrow = 0;
   EXPECT_EQ(ioctl(SPI_IOC_RD_MODE, &narrow), 0);
   EXPECT_EQ(narrow, SPI_MODE_3 | SPI_NO_CS);
   narrow = 1;
   EXPECT_EQ(ioctl(SPI_IOC_RD_LSB_FIRST, &narrow), 0);
   EXPECT_EQ(narrow, 0);
   narrow = 1;
   EXPECT_EQ(ioctl(SPI_IOC_WR_LSB_FIRST, &narrow), 0);
   narrow = 0;
   EXPECT_EQ(ioctl(SPI_IOC_RD_LSB_FIRST, &narrow), 0);
   EXPECT_EQ(narrow, 1);
   EXPECT_EQ(ioctl(SPI_IOC_RD_MODE32, &mode), 0);
   EXPECT_EQ(mode, std::uint32_t{SPI_MODE_3 | SPI_NO_CS | SPI_LSB_FIRST});
   narrow = 0;
   EXPECT_EQ(ioctl(SPI_IOC_WR_LSB_FIRST, &narrow), 0);
   EXPECT_EQ(ioctl(SPI_IOC_RD_MODE32, &mode), 0);
   EXPECT_EQ(mode, std::uint32_t{SPI_MODE_3 | SPI_NO_CS});
   narrow = SPI_MODE_1;
   EXPECT_EQ(ioctl(SPI_IOC_WR_MODE, &narrow), 0);
   EXPECT_EQ(ioctl(SPI_IOC_RD_MODE32, &mode), 0);
   EXPECT_EQ(mode, std::uint32_t{SPI_MODE_1});
   std::uint32_t speed = 1234;
   EXPECT_EQ(ioctl(SPI_IOC_WR_MAX_SPEED_HZ, &speed), 0);
   speed = 0;
   EXPECT_EQ(ioctl(SPI_IOC_WR_MAX_SPEED_HZ, &speed), -EINVAL);
   EXPECT_EQ(ioctl(SPI_IOC_RD_MAX_SPEED_HZ, &speed), 0);
   EXPECT_EQ(speed, 1234U);
   EXPECT_THAT(device.journal(), IsEmpty());
}

TEST_F(SpiNodeTest, HasWordsOf8BitsOnly) {
   std::uint8_t bits = 0;
   EXPECT_EQ(ioctl(SPI_IOC_RD_BITS_PER_WORD, &bits), 0);
   EXPECT_EQ(bits, 8);
   for (const std::uint8_t possible : {8, 0}) {
      bits = possible;
      EXPECT_EQ(ioctl(SPI_IOC_WR_BITS_PER_WORD, &bits), 0);
   }
   bits = 16;
   EXPECT_EQ(ioctl(SPI_IOC_WR_BITS_PER_WORD, &bits), -EINVAL);
   spi_ioc_transfer one = part(&bits, nullptr, 1);
   one.bits_per_word = 16;
   EXPECT_EQ(ioctl(SPI_IOC_MESSAGE(1), &one), -EINVAL);
   one.bits_per_word = 8;
   EXPECT_EQ(ioctl(SPI_IOC_MESSAGE(1), &one), 1);
   EXPECT_THAT(device.journal(), ElementsAre("transfer: 10"));
}

TEST_F(SpiNodeTest, RefusesWhatTheKernelsDriverDoesNotKnow) {
   std::uint32_t mode = SPI_TX_DUAL;
   EXPECT_EQ(ioctl(SPI_IOC_WR_MODE32, &mode), -EINVAL);
   mode = 77;
   EXPECT_EQ(ioctl(SPI_IOC_RD_MODE32, &mode), 0);
   EXPECT_EQ(mode, 0U) << "what was refused is not kept";
   EXPECT_EQ(ioctl(_IOR(SPI_IOC_MAGIC, 99, std::uint8_t), &mode), -ENOTTY);
   EXPECT_EQ(ioctl(_IOW(SPI_IOC_MAGIC, 0, char[33]), &mode), -EINVAL) << "no whole transfers";
   EXPECT_EQ(ioctl(_IOC(_IOC_WRITE, SPI_IOC_MAGIC, 0, 0), &mode), 0);
   EXPECT_THAT(device.journal(), IsEmpty());
}

TEST_F(SpiNodeTest, AMessageIsOneAccessUnlessChipSelectIsLetGo) {
   const Bytes out{1, 2, 3};
   Bytes in(3, 0xee);
   std::array<spi_ioc_transfer, 2> parts{part(out.data(), nullptr, 3), part(nullptr, in.data(), 3)};
   EXPECT_EQ(ioctl(SPI_IOC_MESSAGE(2), parts.data()), 6);
   EXPECT_THAT(in, ElementsAre(0, 0, 0));
   parts[0].cs_change = 1;
   EXPECT_EQ(ioctl(SPI_IOC_MESSAGE(2), parts.data()), 6);
   EXPECT_THAT(device.journal(), ElementsAre("transfer: 01 02 03 00 00 00", "transfer: 01 02 03",
                                             "transfer: 00 00 00"));
   EXPECT_EQ(device.registerAt(1), 0x203U);
}

TEST_F(SpiNodeTest, MemoryThatIsNotThereIsAnErrorAndReachesTheDeviceOnlyIfItWasSentFirst) {
   EXPECT_EQ(ioctlAt(SPI_IOC_RD_MODE, nowhere), -EFAULT);
   EXPECT_EQ(ioctlAt(SPI_IOC_WR_MODE, nowhere), -EFAULT);
   EXPECT_EQ(ioctlAt(SPI_IOC_MESSAGE(1), nowhere), -EFAULT);
   spi_ioc_transfer one = part(nullptr, nullptr, 3);
   one.tx_buf = nowhere;
   EXPECT_EQ(ioctl(SPI_IOC_MESSAGE(1), &one), -EFAULT);
   EXPECT_THAT(device.journal(), IsEmpty());
   // As the kernel's driver: it looks for room for the answer when it has one.
   const Bytes out{1, 2, 3};
   one = part(out.data(), nullptr, 3);
   one.rx_buf = nowhere;
   EXPECT_EQ(ioctl(SPI_IOC_MESSAGE(1), &one), -EFAULT);
   EXPECT_THAT(device.journal(), ElementsAre("transfer: 01 02 03"));
}

TEST_F(SpiNodeTest, AMessageThatIsTooLongIsRefusedWhole) {
   const Bytes out(4097);
   Bytes in(4097);
   spi_ioc_transfer one = part(out.data(), nullptr, 4097);
   EXPECT_EQ(ioctl(SPI_IOC_MESSAGE(1), &one), -EMSGSIZE);
   one = part(nullptr, in.data(), 4097);
   EXPECT_EQ(ioctl(SPI_IOC_MESSAGE(1), &one), -EMSGSIZE);
   one = part(nullptr, nullptr, 0xffffffff);
   EXPECT_EQ(ioctl(SPI_IOC_MESSAGE(1), &one), -EMSGSIZE);
   EXPECT_THAT(device.journal(), IsEmpty());
   one = part(out.data(), in.data(), 4096);
   EXPECT_EQ(ioctl(SPI_IOC_MESSAGE(1), &one), 4096);
   EXPECT_EQ(device.journal().size(), 1U);
}

TEST_F(SpiNodeTest, NothingIsBelievedOfACommandThatNoLongerWaits) {
   isWaiting = false;
   const Bytes out{1, 2, 3};
   spi_ioc_transfer one = part(out.data(), nullptr, 3);
   EXPECT_EQ(ioctl(SPI_IOC_MESSAGE(1), &one), -EINTR);
   std::uint8_t mode = SPI_MODE_3;
   EXPECT_EQ(ioctl(SPI_IOC_WR_MODE, &mode), -EINTR);
   EXPECT_THAT(device.journal(), IsEmpty());
   isWaiting = true;
   EXPECT_EQ(ioctl(SPI_IOC_RD_MODE, &mode), 0);
   EXPECT_EQ(mode, 0);
}

TEST_F(SpiNodeTest, AnErrorOfTheDeviceEndsTheMessage) {
   const Bytes out{1, 2, 3};
   Bytes in(3, 0xee);
   device.faults()->add({.kind = Hardware::FaultKind::ioError, .count = 1});
   std::array<spi_ioc_transfer, 2> parts{part(out.data(), in.data(), 3),
                                         part(out.data(), in.data(), 3)};
   parts[0].cs_change = 1;
   EXPECT_EQ(ioctl(SPI_IOC_MESSAGE(2), parts.data()), -EIO);
   EXPECT_THAT(in, ElementsAre(0xee, 0xee, 0xee));
   EXPECT_THAT(device.journal(), ElementsAre("transfer: error " + std::to_string(EIO)))
      << "the second part was never sent";
}

} // namespace
} // namespace TarnSim
