#include "TarnRegFile/I2cTransportMethodImpl.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "platform/trace/CaptureScope.h"
#include "TarnRegFile/I2cTransportDescriptor.h"
#include "TarnRegFile/ImplFactoryMap.h"
#include "TarnRegFile/TransportMethod.h"
#include "tests/support/Failure.h"
#include "tests/support/KernelI2c.h"
#include "tests/support/RecordingAsyncHelper.h"
#include "tests/support/TempDir.h"

namespace {

using TarnRegFile::I2cFlavour;
using TarnRegFile::I2cTransportMethodImpl;
using testing::ElementsAre;
using TestSupport::Failure;
using TestSupport::KernelI2c;

constexpr const char* list = "number,name,type,writeable,width\n"
                             "4660,WIDE,led,true,32\n"     // 0x1234
                             "4662,HALF,led,true,16\n"     // 0x1236
                             "4663,BIT,led,true,1\n"       // 0x1237
                             "4664,NONE,led,true,0\n"      // 0x1238
                             "305419896,FAR,led,true,32\n" // 0x12345678
                             "18,SMALL,led,true,16\n"      // 0x12
                             "255,LAST,led,true,16\n"
                             "256,BEYOND,led,true,16\n";

/// Lets tests see what is inside, and break it.
class OpenedUp : public I2cTransportMethodImpl {
public:
   using I2cTransportMethodImpl::I2cTransportMethodImpl;
   int fd() const { return i2cFd->fd(); }
   void forget() { i2cFd->release(); }
};

class I2cTransport : public testing::Test {
protected:
   std::unique_ptr<OpenedUp> make(I2cFlavour flavour, int address = 0x50) {
      return std::make_unique<OpenedUp>(kernel.path().c_str(), address, csv.c_str(), flavour,
                                        nullptr);
   }
   std::unique_ptr<OpenedUp> block() {
      auto transport = make(I2cFlavour::dataBlock);
      kernel.calls.clear();
      return transport;
   }
   std::unique_ptr<OpenedUp> word() {
      auto transport = make(I2cFlavour::dataWord);
      kernel.calls.clear();
      return transport;
   }

   TestSupport::TempDir dir;
   std::string csv = dir.write("list.csv", list);
   KernelI2c kernel;
};

KernelI2c::Call addressWrite(int high, std::uint8_t low) {
   KernelI2c::Call call;
   call.request = I2C_SMBUS;
   call.readWrite = I2C_SMBUS_WRITE;
   call.command = high;
   call.size = I2C_SMBUS_I2C_BLOCK_DATA;
   call.block = {1, low};
   call.locked = true;
   return call;
}

KernelI2c::Call blockRead(int high) {
   KernelI2c::Call call;
   call.request = I2C_SMBUS;
   call.readWrite = I2C_SMBUS_READ;
   call.command = high;
   call.size = I2C_SMBUS_I2C_BLOCK_DATA;
   call.block = {4};
   call.locked = true;
   return call;
}

KernelI2c::Call wordAccess(int readWrite, int command, std::uint16_t value) {
   KernelI2c::Call call;
   call.request = I2C_SMBUS;
   call.readWrite = readWrite;
   call.command = command;
   call.size = I2C_SMBUS_WORD_DATA;
   call.word = value;
   return call;
}

std::string printed(const KernelI2c::Call& call) {
   return fmt::format("request {:#x} address {} rw {} command {:#x} size {} block [{:#x}] word "
                      "{:#x} locked {}",
                      call.request, call.address, call.readWrite, call.command, call.size,
                      fmt::join(call.block, " "), call.word, call.locked);
}

std::vector<std::string> lines(const std::vector<KernelI2c::Call>& calls) {
   std::vector<std::string> texts;
   for (const KernelI2c::Call& call : calls) {
      texts.push_back(printed(call));
   }
   return texts;
}

// Construction

TEST_F(I2cTransport, AnUnknownFlavourIsRefusedBeforeTheListIsReadAndTheDeviceOpened) {
   for (const int flavour : {0, 3, 255}) {
      EXPECT_EQ(Failure([&] {
                   I2cTransportMethodImpl("/nowhere", 0x50, "/no/list",
                                          static_cast<I2cFlavour>(flavour), nullptr);
                }),
                Failure::outOfRange("_Map_base::at"))
         << flavour;
      EXPECT_EQ(Failure([&] { make(static_cast<I2cFlavour>(flavour)); }),
                Failure::outOfRange("_Map_base::at"));
   }
   EXPECT_TRUE(kernel.calls.empty());
   EXPECT_TRUE(kernel.openFds().empty());
}

TEST_F(I2cTransport, TheListIsLoadedBeforeTheDeviceIsOpened) {
   EXPECT_EQ(Failure([&] {
                I2cTransportMethodImpl("/nowhere", 0x50, "/no/list", I2cFlavour::dataBlock,
                                       nullptr);
             }),
             Failure::system(ENOENT, "Error opening CSV file /no/list"));
   EXPECT_EQ(Failure([&] {
                I2cTransportMethodImpl(kernel.path().c_str(), 0x50, "", I2cFlavour::dataWord,
                                       nullptr);
             }),
             Failure::generic(EINVAL, "Must provide csvPath or regFileModel"));
   EXPECT_TRUE(kernel.calls.empty());
}

TEST_F(I2cTransport, ADeviceThatDoesNotOpenIsNamed) {
   EXPECT_EQ(Failure([&] {
                I2cTransportMethodImpl("/no/i2c", 0x50, csv.c_str(), I2cFlavour::dataBlock,
                                       nullptr);
             }),
             Failure::system(ENOENT, "Error opening I2C device '/no/i2c'"));
   EXPECT_EQ(Failure([&] {
                I2cTransportMethodImpl(dir.path().c_str(), 0x50, csv.c_str(), I2cFlavour::dataWord,
                                       nullptr);
             }),
             Failure::system(EISDIR, "Error opening I2C device '" + dir.path() + "'"));
   EXPECT_TRUE(kernel.calls.empty());
}

TEST_F(I2cTransport, AFileThatIsNoI2cDeviceIsRefusedWithTheAddressInHexAndLeftAsItWas) {
   const std::string plain = dir.write("plain", "content");
   EXPECT_EQ(Failure([&] {
                I2cTransportMethodImpl(plain.c_str(), 0x5a, csv.c_str(), I2cFlavour::dataBlock,
                                       nullptr);
             }),
             Failure::system(ENOTTY, "Error setting peripheral address to 0x5a"));
   EXPECT_EQ(dir.read("plain"), "content");
}

TEST_F(I2cTransport, ThePeripheralAddressIsSetOnceAndTheDeviceStaysOpen) {
   const auto transport = make(I2cFlavour::dataBlock, 0x51);
   KernelI2c::Call setAddress;
   setAddress.request = I2C_SLAVE;
   setAddress.address = 0x51;
   EXPECT_EQ(lines(kernel.calls), lines({setAddress}));
   EXPECT_THAT(kernel.openFds(), ElementsAre(transport->fd()));
   EXPECT_EQ(::fcntl(transport->fd(), F_GETFL) & O_ACCMODE, O_RDWR);
   EXPECT_FALSE(kernel.isLocked());

   transport->regRead("WIDE");
   transport->regRead("WIDE");
   EXPECT_EQ(kernel.calls.size(), 5u) << "the address is not set again";
}

TEST_F(I2cTransport, AnAddressThatTheKernelRefusesClosesTheDevice) {
   kernel.onlyTransfersFail = false;
   kernel.errors = {EBUSY};
   EXPECT_EQ(Failure([&] { make(I2cFlavour::dataBlock, 0x50); }),
             Failure::system(EBUSY, "Error setting peripheral address to 0x50"));
   EXPECT_EQ(kernel.calls.size(), 1u) << "it is not tried again";
   EXPECT_TRUE(kernel.openFds().empty());

   // What the kernel says to an address out of range; the number goes there as it is.
   kernel.errors = {EINVAL};
   EXPECT_EQ(Failure([&] { make(I2cFlavour::dataBlock, 0x3ff); }),
             Failure::system(EINVAL, "Error setting peripheral address to 0x3ff"));
   EXPECT_EQ(kernel.calls.back().address, 0x3ff);
   kernel.errors = {EINVAL};
   EXPECT_EQ(Failure([&] { make(I2cFlavour::dataBlock, -2); }),
             Failure::system(EINVAL, "Error setting peripheral address to -0x2"));
   EXPECT_TRUE(kernel.openFds().empty());
}

TEST_F(I2cTransport, SettingTheAddressIsRepeatedWhileInterruptedOrBusy) {
   kernel.onlyTransfersFail = false;
   kernel.errors = {EINTR, EAGAIN, EINTR, EAGAIN};
   make(I2cFlavour::dataWord);
   EXPECT_EQ(kernel.calls.size(), 5u);
   EXPECT_TRUE(kernel.errors.empty());
}

TEST_F(I2cTransport, OpeningIsTraced) {
   Platform::Trace::CaptureScope trace("TarnRegFile/I2cTransportMethodImpl=1");
   const auto transport = make(I2cFlavour::dataBlock);
   EXPECT_THAT(trace.texts(), ElementsAre(fmt::format("Opened i2c with fd {}", transport->fd())));
   EXPECT_EQ(trace.records().front().source, "TarnRegFile/I2cTransportMethodImpl");
   EXPECT_EQ(trace.records().front().function, "I2cTransportMethodImpl");
   EXPECT_EQ(trace.records().front().level, 1);

   trace.clear();
   kernel.onlyTransfersFail = false;
   kernel.errors = {EBUSY};
   EXPECT_THROW(make(I2cFlavour::dataBlock), std::system_error);
   EXPECT_TRUE(trace.texts().empty()) << "a device whose address was refused is not open";
}

TEST_F(I2cTransport, GoingAwayClosesTheDevice) {
   auto transport = make(I2cFlavour::dataBlock);
   ASSERT_EQ(kernel.openFds().size(), 1u);
   transport.reset();
   EXPECT_TRUE(kernel.openFds().empty());
}

TEST_F(I2cTransport, RegisterNumbersAreBusAddresses) {
   EXPECT_EQ(block()->regFileHelper()->findRegisterByName("WIDE").address, 0x1234u);
   EXPECT_EQ(word()->regFileHelper()->findRegisterByName("SMALL").address, 0x12u);
}

// The block flavour

TEST_F(I2cTransport, ABlockReadIsAnAddressWriteAndADataReadUnderOneLock) {
   const auto transport = block();
   kernel.bytes = {1, 2, 3, 4};
   EXPECT_EQ(transport->regRead("WIDE"), 0x01020304u);
   EXPECT_EQ(lines(kernel.calls), lines({addressWrite(0x12, 0x34), blockRead(0x12)}));
   EXPECT_FALSE(kernel.isLocked());
}

TEST_F(I2cTransport, ABlockReadIsLockedThroughoutAndNotOnlyDuringTheTransfers) {
   const auto transport = block();
   // Whoever waits for the lock from the first transfer on must not get in before the second.
   pid_t waiter = -1;
   int pipe[2];
   ASSERT_EQ(::pipe(pipe), 0);
   kernel.onCall = [&](const KernelI2c::Call& call) {
      if (call.readWrite == I2C_SMBUS_WRITE) {
         waiter = ::fork();
         if (waiter == 0) {
            const int fd = ::open(kernel.path().c_str(), O_RDWR);
            const bool got = ::flock(fd, LOCK_EX) == 0 && ::write(pipe[1], "l", 1) == 1;
            ::_exit(got ? 0 : 1);
         }
      } else {
         int flags = ::fcntl(pipe[0], F_GETFL);
         ::fcntl(pipe[0], F_SETFL, flags | O_NONBLOCK);
         char byte = 0;
         EXPECT_LT(::read(pipe[0], &byte, 1), 0) << "the lock was free between the transfers";
      }
   };
   transport->regRead("WIDE");
   ASSERT_GT(waiter, 0);
   int status = 0;
   ::waitpid(waiter, &status, 0);
   EXPECT_EQ(status, 0) << "and is free afterwards";
   ::close(pipe[0]);
   ::close(pipe[1]);
}

TEST_F(I2cTransport, OneExclusiveLockSpansABlockAccess) {
   const auto transport = block();
   kernel.order.clear();
   transport->regRead("WIDE");
   EXPECT_THAT(kernel.order, ElementsAre("lock exclusive", "write", "read", "unlock"));
   kernel.order.clear();
   transport->regWrite("WIDE", 1);
   EXPECT_THAT(kernel.order, ElementsAre("lock exclusive", "write", "unlock"));
   kernel.order.clear();
   kernel.errors = {EIO};
   EXPECT_THROW(transport->regRead("WIDE"), std::system_error);
   EXPECT_THAT(kernel.order, ElementsAre("lock exclusive", "write", "unlock"));
}

TEST_F(I2cTransport, AWordTakesNoLock) {
   const auto transport = word();
   kernel.order.clear();
   transport->regRead("SMALL");
   transport->regWrite("SMALL", 1);
   EXPECT_THAT(kernel.order, ElementsAre("read", "write"));
}

TEST_F(I2cTransport, AChildProgramDoesNotInheritTheDevice) {
   EXPECT_NE(::fcntl(block()->fd(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(I2cTransport, ANarrowRegisterIsMaskedBeforeItsBytesArePutInOrder) {
   const auto transport = block();
   kernel.bytes = {0x12, 0x34, 0x56, 0x78};
   EXPECT_EQ(transport->regRead("HALF"), 0x12340000u);
   EXPECT_EQ(transport->regRead("BIT"), 0x00000000u);
   EXPECT_EQ(transport->regRead("NONE"), 0x12345678u) << "a width of 0 masks nothing";
   kernel.bytes = {0xff, 0xff, 0xff, 0xff};
   EXPECT_EQ(transport->regRead("BIT"), 0x01000000u);
   EXPECT_EQ(transport->regRead("HALF"), 0xffff0000u);
   EXPECT_EQ(transport->regRead("WIDE"), 0xffffffffu);
}

TEST_F(I2cTransport, OnlySixteenBitsOfAnAddressGoOntoTheBus) {
   const auto transport = block();
   transport->regRead("FAR");
   EXPECT_EQ(lines(kernel.calls), lines({addressWrite(0x56, 0x78), blockRead(0x56)}));
}

TEST_F(I2cTransport, ABlockWriteIsOneTransferOfAddressAndValueUnderTheLock) {
   const auto transport = block();
   transport->regWrite("WIDE", 0xaabbccdd);
   KernelI2c::Call call = addressWrite(0x12, 0x34);
   call.block = {5, 0x34, 0xaa, 0xbb, 0xcc, 0xdd};
   EXPECT_EQ(lines(kernel.calls), lines({call}));
   EXPECT_FALSE(kernel.isLocked());
}

TEST_F(I2cTransport, ABlockWriteIsNotMasked) {
   const auto transport = block();
   transport->regWrite("BIT", 0xaabbccdd);
   EXPECT_THAT(kernel.calls.at(0).block, ElementsAre(5, 0x37, 0xaa, 0xbb, 0xcc, 0xdd));
}

TEST_F(I2cTransport, AFailedAddressWriteEndsTheReadAndGivesTheLockBack) {
   const auto transport = block();
   kernel.errors = {ENXIO};
   EXPECT_EQ(Failure([&] { transport->regRead("WIDE"); }),
             Failure::system(
                ENXIO, fmt::format("Error writing address 0x1234 on FD {}", transport->fd())));
   EXPECT_EQ(kernel.calls.size(), 1u) << "nothing is read";
   EXPECT_FALSE(kernel.isLocked());
}

TEST_F(I2cTransport, AFailedDataReadIsReportedAndGivesTheLockBack) {
   const auto transport = block();
   kernel.errors = {0, ETIMEDOUT};
   EXPECT_EQ(Failure([&] { transport->regRead("WIDE"); }),
             Failure::system(ETIMEDOUT, fmt::format("Error reading from address 0x1234 on FD {}",
                                                    transport->fd())));
   EXPECT_EQ(kernel.calls.size(), 2u);
   EXPECT_FALSE(kernel.isLocked());
}

TEST_F(I2cTransport, AReadThatEndsEarlyIsNoValueWithZerosAtItsEnd) {
   const auto transport = block();
   for (std::size_t length = 0; length < 4; ++length) {
      kernel.bytes.assign(length, 0x11);
      EXPECT_EQ(Failure([&] { transport->regRead("WIDE"); }),
                Failure::system(
                   EIO, fmt::format("Error reading from address 0x1234 on FD {}", transport->fd())))
         << length << " bytes";
      EXPECT_FALSE(kernel.isLocked());
   }
   kernel.bytes.assign(4, 0x11);
   EXPECT_EQ(transport->regRead("WIDE"), 0x11111111u);
}

TEST_F(I2cTransport, AFailedBlockWriteIsReportedAndGivesTheLockBack) {
   const auto transport = block();
   kernel.errors = {EIO};
   EXPECT_EQ(
      Failure([&] { transport->regWrite("WIDE", 0xaabbccdd); }),
      Failure::system(EIO, fmt::format("Error writing value 0xaabbccdd to address 0x1234 on FD {}",
                                       transport->fd())));
   EXPECT_FALSE(kernel.isLocked());
}

TEST_F(I2cTransport, TransfersAreRepeatedWhileInterruptedOrBusy) {
   const auto transport = block();
   kernel.errors = {EINTR, EAGAIN, 0, EAGAIN, EINTR};
   kernel.bytes = {1, 2, 3, 4};
   EXPECT_EQ(transport->regRead("WIDE"), 0x01020304u);
   EXPECT_EQ(lines(kernel.calls),
             lines({addressWrite(0x12, 0x34), addressWrite(0x12, 0x34), addressWrite(0x12, 0x34),
                    blockRead(0x12), blockRead(0x12), blockRead(0x12)}));
   kernel.errors = {EINTR};
   transport->regWrite("WIDE", 1);
   EXPECT_EQ(kernel.calls.size(), 8u);
   EXPECT_TRUE(kernel.errors.empty());
}

TEST_F(I2cTransport, ABusThatAnotherProcessHoldsIsWaitedFor) {
   const auto transport = block();
   kernel.bytes = {1, 2, 3, 4};
   int pipe[2];
   ASSERT_EQ(::pipe(pipe), 0);
   const pid_t holder = ::fork();
   if (holder == 0) {
      const int fd = ::open(kernel.path().c_str(), O_RDWR);
      const bool held = ::flock(fd, LOCK_EX) == 0 && ::write(pipe[1], "l", 1) == 1;
      ::usleep(200'000);
      ::_exit(held ? 0 : 1);
   }
   char byte = 0;
   ASSERT_EQ(::read(pipe[0], &byte, 1), 1);
   kernel.onCall = [&](const KernelI2c::Call&) {
      if (holder > 0 && kernel.calls.size() == 1) {
         siginfo_t info{};
         EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(holder), &info, WEXITED | WNOWAIT), 0);
         EXPECT_EQ(info.si_pid, holder) << "the transfer began while the other held the lock";
      }
   };
   EXPECT_EQ(transport->regRead("WIDE"), 0x01020304u);
   int status = 0;
   ::waitpid(holder, &status, 0);
   EXPECT_EQ(status, 0);
   ::close(pipe[0]);
   ::close(pipe[1]);
}

TEST_F(I2cTransport, ADeviceThatComesBackWorksOnTheSameDescriptor) {
   const auto transport = block();
   kernel.bytes = {1, 2, 3, 4};
   EXPECT_EQ(transport->regRead("WIDE"), 0x01020304u);
   const int fd = transport->fd();
   kernel.errors = {ENXIO, ENXIO};
   EXPECT_THROW(transport->regRead("WIDE"), std::system_error);
   EXPECT_THROW(transport->regWrite("WIDE", 1), std::system_error);
   EXPECT_EQ(transport->regRead("WIDE"), 0x01020304u);
   EXPECT_EQ(transport->fd(), fd);
   EXPECT_THAT(kernel.openFds(), ElementsAre(fd));
}

// The word flavour

TEST_F(I2cTransport, AWordReadIsOneTransferWithoutALock) {
   const auto transport = word();
   kernel.word = 0x8001;
   EXPECT_EQ(transport->regRead("SMALL"), 0x8001u);
   EXPECT_EQ(lines(kernel.calls), lines({wordAccess(I2C_SMBUS_READ, 0x12, 0)}));
}

TEST_F(I2cTransport, AWordIsNeitherMaskedNorTurnedRound) {
   kernel.word = 0x1234;
   dir.write("narrow.csv", "number,name,type,writeable,width\n7,NARROW,led,true,4\n");
   OpenedUp narrow(kernel.path().c_str(), 0x50, dir.path("narrow.csv").c_str(),
                   I2cFlavour::dataWord, nullptr);
   EXPECT_EQ(narrow.regRead("NARROW"), 0x1234u);
}

TEST_F(I2cTransport, AWordWriteTakesTheLowSixteenBits) {
   const auto transport = word();
   transport->regWrite("SMALL", 0x12345);
   EXPECT_EQ(lines(kernel.calls), lines({wordAccess(I2C_SMBUS_WRITE, 0x12, 0x2345)}));
}

TEST_F(I2cTransport, AWordNeedsAnAddressOfEightBits) {
   const auto transport = word();
   EXPECT_EQ(Failure([&] { transport->regRead("BEYOND"); }),
             Failure::generic(EDOM, "Invalid register address value 0x100"));
   EXPECT_EQ(Failure([&] { transport->regWrite("BEYOND", 1); }),
             Failure::generic(EDOM, "Invalid register address value 0x100"));
   EXPECT_TRUE(kernel.calls.empty());
   transport->regRead("LAST");
   EXPECT_EQ(kernel.calls.at(0).command, 255);
}

TEST_F(I2cTransport, AFailedWordSaysWhetherItWasReadOrWritten) {
   const auto transport = word();
   kernel.errors = {EIO, EREMOTEIO};
   EXPECT_EQ(Failure([&] { transport->regRead("SMALL"); }),
             Failure::system(EIO, "I2C word read from address 0x12 failed"));
   EXPECT_EQ(Failure([&] { transport->regWrite("SMALL", 1); }),
             Failure::system(EREMOTEIO, "I2C word write from address 0x12 failed"));
   EXPECT_EQ(kernel.calls.size(), 2u);
}

TEST_F(I2cTransport, WordsAreRepeatedWhileInterruptedOrBusy) {
   const auto transport = word();
   kernel.errors = {EINTR, EAGAIN};
   kernel.word = 7;
   EXPECT_EQ(transport->regRead("SMALL"), 7u);
   EXPECT_EQ(kernel.calls.size(), 3u);
}

TEST_F(I2cTransport, AWordAccessTakesAnySize) {
   const auto transport = word();
   i2c_smbus_data data{};
   TarnRegFile::i2cflavspec::dataWordAccess(transport->fd(), 3, I2C_SMBUS_READ, I2C_SMBUS_BYTE_DATA,
                                            data);
   EXPECT_EQ(kernel.calls.at(0).size, unsigned(I2C_SMBUS_BYTE_DATA));
   // Whatever is not a write is called a read.
   kernel.errors = {EIO};
   EXPECT_EQ(Failure([&] {
                TarnRegFile::i2cflavspec::dataWordAccess(transport->fd(), 3, 7, I2C_SMBUS_WORD_DATA,
                                                         data);
             }),
             Failure::system(EIO, "I2C word read from address 0x3 failed"));
}

// What does not depend on the flavour

class EachI2cFlavour : public I2cTransport, public testing::WithParamInterface<I2cFlavour> {};
INSTANTIATE_TEST_SUITE_P(, EachI2cFlavour,
                         testing::Values(I2cFlavour::dataBlock, I2cFlavour::dataWord),
                         [](const auto& flavour) {
                            return flavour.param == I2cFlavour::dataBlock ? "Block" : "Word";
                         });

TEST_P(EachI2cFlavour, AnUnknownNameFailsBeforeTheDeviceIsUsed) {
   const auto transport = make(GetParam());
   kernel.calls.clear();
   EXPECT_EQ(Failure([&] { transport->regRead("NOWHERE"); }),
             Failure::generic(ENOENT, "RegisterFile does not have register 'NOWHERE'"));
   EXPECT_EQ(Failure([&] { transport->regWrite("NOWHERE", 1); }),
             Failure::generic(ENOENT, "RegisterFile does not have register 'NOWHERE'"));
   EXPECT_TRUE(kernel.calls.empty());
   EXPECT_FALSE(kernel.isLocked());
}

TEST_P(EachI2cFlavour, ALostDescriptorStopsTheProcess) {
   const auto transport = make(GetParam());
   const int fd = transport->fd();
   transport->forget();
   EXPECT_DEATH(transport->regRead("SMALL"), "regRead: assertion failed: i2cFd >= 0");
   EXPECT_DEATH(transport->regWrite("SMALL", 1), "regWrite: assertion failed: i2cFd >= 0");
   EXPECT_EQ(Failure([&] { transport->regRead("NOWHERE"); }).code, ENOENT) << "names come first";
   ::close(fd);
}

TEST_P(EachI2cFlavour, ThereIsNoBlockAccessAndNoAsyncHelper) {
   const auto transport = make(GetParam());
   std::uint32_t buffer[2] = {};
   EXPECT_DEATH(transport->regReadBlock("SMALL", buffer, 2), "assertion failed");
   EXPECT_DEATH(transport->regWriteBlock("SMALL", buffer, 2), "assertion failed");
   EXPECT_FALSE(transport->getAsyncHelper());
   const auto helper = Platform::make<TestSupport::RecordingAsyncHelper>();
   transport->asyncHelperIs(helper);
   EXPECT_EQ(transport->getAsyncHelper(), helper);
}

// Looked at before main(), as a program's own static objects may.
const bool tableThereBeforeMain = TarnRegFile::i2cflavspec::table.size() == 2;

TEST(I2cFlavours, AreThereWhenTheLibraryIsLoaded) {
   EXPECT_TRUE(tableThereBeforeMain);
}

TEST_P(EachI2cFlavour, TheTablesRowIsWhatTheFlavourSays) {
   const auto& spec = TarnRegFile::i2cflavspec::table.at(GetParam());
   EXPECT_EQ(spec.addrBlockSize, 1);
   using Read = std::uint32_t (*)(int, const TarnRegFile::HardwareRegister&);
   using Write = void (*)(int, const TarnRegFile::HardwareRegister&, std::uint32_t);
   const bool block = GetParam() == I2cFlavour::dataBlock;
   ASSERT_TRUE(spec.read.target<Read>());
   ASSERT_TRUE(spec.write.target<Write>());
   EXPECT_EQ(*spec.read.target<Read>(), block ? TarnRegFile::i2cflavspec::readDataBlock
                                              : TarnRegFile::i2cflavspec::readDataWord);
   EXPECT_EQ(*spec.write.target<Write>(), block ? TarnRegFile::i2cflavspec::writeDataBlock
                                                : TarnRegFile::i2cflavspec::writeDataWord);
   EXPECT_EQ(TarnRegFile::i2cflavspec::table.size(), 2u);
}

TEST_P(EachI2cFlavour, ADescriptorSelectsIt) {
   const auto descriptor =
      TarnRegFile::i2cTransportDescriptorFactory(kernel.path(), 0x42, GetParam());
   const auto method = TarnRegFile::transportMethodFactory("dut");
   method->init(descriptor, csv);
   EXPECT_FALSE(method->isAsync());
   EXPECT_EQ(kernel.calls.at(0).address, 0x42);
   kernel.bytes = {1, 2, 3, 4};
   kernel.word = 0x8765;
   const bool block = GetParam() == I2cFlavour::dataBlock;
   EXPECT_EQ(method->regRead(block ? "WIDE" : "SMALL"), block ? 0x01020304u : 0x8765u);
   EXPECT_EQ(kernel.calls.size(), block ? 3u : 2u);

   // A failure is told, and costs the value, not the process.
   kernel.errors = {ENXIO};
   EXPECT_EQ(method->regRead("SMALL"), 0xffffffffu);
   EXPECT_TRUE(method->errorNotifier()->error());
   method->handleDeletion();
}

TEST(I2cTransportDescriptor, NamesTheDeviceAndSelectsTheFlavour) {
   const auto block =
      TarnRegFile::i2cTransportDescriptorFactory("/dev/i2c-3", 0x50, I2cFlavour::dataBlock);
   EXPECT_EQ(block->transportType(), TarnRegFile::TransportType::i2cBus);
   EXPECT_EQ(block->transportProtocol(), TarnRegFile::TransportProtocol::i2cDev);
   EXPECT_EQ(block->transportFlavour(), TarnRegFile::TransportFlavour::i2cDevFlavour1);
   EXPECT_EQ(block->devicePath(), "/dev/i2c-3");
   EXPECT_EQ(block->deviceAddress(), 0x50);
   EXPECT_EQ(
      TarnRegFile::i2cTransportDescriptorFactory("d", 1, I2cFlavour::dataWord)->transportFlavour(),
      TarnRegFile::TransportFlavour::i2cDevFlavour2);
   EXPECT_EQ(Failure([] {
                TarnRegFile::i2cTransportDescriptorFactory("d", 1, static_cast<I2cFlavour>(3));
             }),
             Failure::range("I2C flavour 3 is not known"));

   block->devicePathIs("/dev/i2c-4");
   block->deviceAddressIs(-1);
   EXPECT_EQ(block->devicePath(), "/dev/i2c-4");
   EXPECT_EQ(block->deviceAddress(), -1);
}

TEST_F(I2cTransport, ADescriptorOfAnotherKindIsRefused) {
   for (const auto flavour : {TarnRegFile::TransportFlavour::i2cDevFlavour1,
                              TarnRegFile::TransportFlavour::i2cDevFlavour2}) {
      const auto plain = TarnRegFile::baseTransportDescriptorFactory(
         TarnRegFile::TransportType::i2cBus, TarnRegFile::TransportProtocol::i2cDev, flavour);
      const auto& factory = TarnRegFile::implFactoryMap.at(
         {TarnRegFile::TransportType::i2cBus, TarnRegFile::TransportProtocol::i2cDev, flavour});
      EXPECT_EQ(Failure([&] { factory(plain, csv, nullptr); }),
                Failure::generic(EINVAL, "TransportDescriptor must be a "
                                         "TarnRegFile::I2cTransportDescriptor, not "
                                         "TarnRegFile::BaseTransportDescriptor"));
      EXPECT_EQ(Failure([&] { factory(nullptr, csv, nullptr); }),
                Failure::generic(EINVAL, "TransportDescriptor must be a "
                                         "TarnRegFile::I2cTransportDescriptor, not null"));
   }
   EXPECT_TRUE(kernel.calls.empty());
}

} // namespace
