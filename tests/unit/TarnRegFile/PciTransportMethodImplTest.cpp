#include "TarnRegFile/PciTransportMethodImpl.h"

#include <signal.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/entity/BusErrorGuard.h"
#include "platform/hardware/SigbusException.h"
#include "platform/trace/CaptureScope.h"
#include "TarnRegFile/ImplFactoryMap.h"
#include "TarnRegFile/PciTransportDescriptor.h"
#include "TarnRegFile/TransportMethod.h"
#include "tests/support/Failure.h"
#include "tests/support/FreshProcess.h"
#include "tests/support/JournalPciAccess.h"
#include "tests/support/RecordingAsyncHelper.h"
#include "tests/support/RegisterSpace.h"
#include "tests/support/TempDir.h"
#include "tests/support/VirtualSlot.h"

namespace {

using Hardware::HwAccess;
using Hardware::HwAccessImpl;
using Hardware::SigbusException;
using Platform::BusErrorGuard;
using Platform::Trace::CaptureScope;
using Platform::Trace::CaptureSink;
using TarnRegFile::Bytes;
using TarnRegFile::HardwareRegister;
using TarnRegFile::HardwareRegisterFile;
using TarnRegFile::HardwareRegisterType;
using TarnRegFile::PciTransportMethodImpl;
using TarnRegFile::Ptr;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using TestSupport::Failure;
using TestSupport::JournalPciAccess;
using TestSupport::RegisterSpace;

constexpr std::uint32_t page = 4096;

/// A handle that is no PCI handle.
class OtherAccess : public HwAccessImpl {
public:
   using HwAccessImpl::HwAccessImpl;
   std::uint64_t size() const noexcept override { return 4; }
   std::uint32_t read32(std::uint32_t) const override { return 0; }
   void write32(std::uint32_t, std::uint32_t) override {}
   std::uint32_t guardedRead32(std::uint32_t) const override { return 0; }
   void guardedWrite32(std::uint32_t, std::uint32_t) override {}
};

HardwareRegister reg(const std::string& name, std::uint32_t address, std::uint32_t width = 32,
                     std::uint32_t accessWidth = 32) {
   HardwareRegister record;
   record.name = name;
   record.address = address;
   record.width = width;
   record.accessWidth = accessWidth;
   record.arraySize = 1;
   return record;
}

Ptr<HardwareRegisterFile> model(std::initializer_list<HardwareRegister> records) {
   auto made = Hardware::hardwareRegisterFileFactory("model");
   made->addrBlockSizeIs(4);
   for (const HardwareRegister& record : records) {
      made->nameToRegMapIs(record.name, record);
      made->addrToNameMapIs(record.address, record.name);
   }
   return made;
}

Ptr<HardwareRegisterFile> model() {
   return model({reg("ID", 0), reg("HALF", 0x10, 16), reg("BLOCK", 0x100),
                 reg("WIDE", 0x20, 17, 16), reg("NEXT", 0x104, 33), reg("LAST", 2 * page - 4),
                 reg("SECOND_PAGE", page), reg("BEYOND", 2 * page), reg("TOP", 0xfffffffc),
                 reg("ODD", 0x102)});
}

class PciTransport : public testing::Test {
protected:
   std::unique_ptr<PciTransportMethodImpl> make() {
      return std::make_unique<PciTransportMethodImpl>(_access, "", model());
   }

   /// A transport that leaves SIGBUS to the program.
   std::unique_ptr<PciTransportMethodImpl> makePlain() {
      _access->busErrorFlagIs(true);
      return make();
   }

   std::vector<std::string>& journal() { return _access->journal; }

   /// Each kind of access, at a register.
   static std::vector<std::function<void()>> everyAccess(PciTransportMethodImpl& transport,
                                                         const char* name) {
      return {[&transport, name] { transport.regRead(name); },
              [&transport, name] { transport.regWrite(name, 0xffffffff); },
              [&transport, name] {
                 std::uint32_t word;
                 transport.regReadBlock(name, &word, 1);
              },
              [&transport, name] {
                 const std::uint32_t word = 0xffffffff;
                 transport.regWriteBlock(name, &word, 1);
              }};
   }

   RegisterSpace _space{2 * page};
   Ptr<JournalPciAccess> _access = Platform::make<JournalPciAccess>("fpga", _space.path());
};

using PciTransportDeathTest = PciTransport;

// --- Construction

TEST_F(PciTransport, AddressesAreBytesFourARegister) {
   const TestSupport::TempDir dir;
   const std::string list =
      dir.write("a.csv", "number,name,type,writeable,width\n3,A,led,false,8\n");
   PciTransportMethodImpl transport(_access, list.c_str(), nullptr);
   EXPECT_EQ(transport.regFileHelper()->addrBlockSize(), 4);
   EXPECT_EQ(transport.regFileHelper()->name(), list);
   _space.wordIs(12, 0x1ff);
   EXPECT_EQ(transport.regRead("A"), 0xffu);
}

TEST_F(PciTransport, AModelOfAnotherBlockSizeIsConverted) {
   const auto numbered = model({reg("A", 3)});
   numbered->addrBlockSizeIs(1);
   PciTransportMethodImpl transport(_access, "", numbered);
   _space.wordIs(12, 5);
   EXPECT_EQ(transport.regRead("A"), 5u);
}

TEST_F(PciTransport, FailsAsItsBaseDoes) {
   EXPECT_EQ(Failure([&] { PciTransportMethodImpl(_access, "", nullptr); }),
             Failure::generic(EINVAL, "Must provide csvPath or regFileModel"));
   EXPECT_EQ(_access->refCount(), 1u);
}

TEST_F(PciTransport, TheBaseComesBeforeTheHandle) {
   EXPECT_EQ(Failure([] { PciTransportMethodImpl(Platform::make<OtherAccess>("x"), "", nullptr); }),
             Failure::generic(EINVAL, "Must provide csvPath or regFileModel"));
}

TEST_F(PciTransport, HoldsItsHandle) {
   auto transport = make();
   EXPECT_EQ(_access->refCount(), 2u);
   transport.reset();
   EXPECT_EQ(_access->refCount(), 1u);
   EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(PciTransport, OverridesTheFourAccessesInTheirSlots) {
   using TestSupport::virtualSlot;
   EXPECT_EQ(virtualSlot(&PciTransportMethodImpl::regRead), 2);
   EXPECT_EQ(virtualSlot(&PciTransportMethodImpl::regWrite), 3);
   EXPECT_EQ(virtualSlot(&PciTransportMethodImpl::regReadBlock), 4);
   EXPECT_EQ(virtualSlot(&PciTransportMethodImpl::regWriteBlock), 5);
   EXPECT_EQ(virtualSlot(&PciTransportMethodImpl::hardwareReady), -1);
}

TEST_F(PciTransportDeathTest, AHandleOfAnotherKindIsRefusedAndTheGuardLeftAlone) {
   EXPECT_IN_A_FRESH_PROCESS([] {
      EXPECT_EQ(Failure([] {
                   const auto other = Platform::make<OtherAccess>("x");
                   errno = EBUSY;
                   PciTransportMethodImpl(other, "", model());
                }),
                Failure::system(EBUSY, "PciHwAccessImpl cast error"));
      EXPECT_TRUE(BusErrorGuard::autoInstall());
      EXPECT_FALSE(BusErrorGuard::initialized());
   });
}

TEST_F(PciTransportDeathTest, WithTheFlagClearItInstallsTheGuardAndTakesOverItsSwitch) {
   EXPECT_IN_A_FRESH_PROCESS([this] {
      EXPECT_FALSE(BusErrorGuard::initialized());
      const auto transport = make();
      EXPECT_TRUE(transport->useSigbusGuard());
      EXPECT_TRUE(BusErrorGuard::initialized());
      EXPECT_FALSE(BusErrorGuard::autoInstall());
      struct sigaction first = {};
      ::sigaction(SIGBUS, nullptr, &first);
      EXPECT_NE(first.sa_handler, SIG_DFL);
      const auto second = make();
      struct sigaction now = {};
      ::sigaction(SIGBUS, nullptr, &now);
      EXPECT_EQ(now.sa_sigaction, first.sa_sigaction);
      EXPECT_TRUE(second->useSigbusGuard());
   });
}

TEST_F(PciTransportDeathTest, WithTheFlagSetItLeavesTheGuardAlone) {
   EXPECT_IN_A_FRESH_PROCESS([this] {
      const auto transport = makePlain();
      EXPECT_FALSE(transport->useSigbusGuard());
      EXPECT_EQ(transport->regRead("ID"), 0u);
      transport->regWrite("ID", 1);
      EXPECT_FALSE(BusErrorGuard::initialized());
      EXPECT_TRUE(BusErrorGuard::autoInstall());
      struct sigaction action = {};
      ::sigaction(SIGBUS, nullptr, &action);
      EXPECT_EQ(action.sa_handler, SIG_DFL);
   });
}

TEST_F(PciTransport, TheFlagIsReadWhenTheTransportIsMade) {
   const auto guarded = make();
   const auto plain = makePlain();
   EXPECT_TRUE(guarded->useSigbusGuard());
   EXPECT_FALSE(plain->useSigbusGuard());
   _access->busErrorFlagIs(false);
   guarded->regRead("ID");
   plain->regRead("ID");
   EXPECT_THAT(journal(), ElementsAre("guarded read 0x0", "read 0x0"));
}

// --- Without a handle

TEST_F(PciTransportDeathTest, WithoutAHandleThereIsNoGuard) {
   EXPECT_IN_A_FRESH_PROCESS([] {
      const PciTransportMethodImpl transport(nullptr, "", model());
      EXPECT_FALSE(transport.useSigbusGuard());
      EXPECT_FALSE(BusErrorGuard::initialized());
      EXPECT_TRUE(BusErrorGuard::autoInstall());
   });
}

TEST_F(PciTransport, WithoutAHandleAccessesFailAndQueriesWork) {
   PciTransportMethodImpl transport(nullptr, "", model());
   const CaptureScope trace;
   EXPECT_FALSE(transport.hardwareReady());
   for (const auto& access : everyAccess(transport, "ID")) {
      EXPECT_EQ(Failure(access),
                Failure::generic(ENODEV, "Register 'ID': there is no PCI access handle"));
   }
   for (const auto& access : everyAccess(transport, "NOPE")) {
      EXPECT_EQ(Failure(access),
                Failure::generic(ENOENT, "RegisterFile does not have register 'NOPE'"));
   }
   EXPECT_TRUE(transport.regFileHelper()->hasRegName("ID"));
   EXPECT_THAT(trace.texts(), IsEmpty());
}

// --- Reading and writing

TEST_F(PciTransport, ReadsTheWordAtTheRegistersOffset) {
   _space.wordIs(0, 0x89abcdef);
   _space.wordIs(2 * page - 4, 7);
   const auto transport = make();
   EXPECT_EQ(transport->regRead("ID"), 0x89abcdefu) << "in the device's byte order";
   EXPECT_EQ(transport->regRead("LAST"), 7u);
   EXPECT_THAT(journal(), ElementsAre("guarded read 0x0", "guarded read 0x1ffc"));
}

TEST_F(PciTransport, AReadIsMaskedToTheRegistersWidth) {
   _space.wordIs(0x10, 0x12345678);
   EXPECT_EQ(make()->regRead("HALF"), 0x5678u);
}

TEST_F(PciTransport, TheMaskIsTheDifferenceOfTheWidthsModuloThirtyTwo) {
   _space.wordIs(0, 0xfedcba98);
   const struct {
      std::uint32_t width;
      std::uint32_t accessWidth;
      std::uint32_t value;
   } cases[] = {
      {32, 32, 0xfedcba98}, {31, 32, 0x7edcba98}, {17, 32, 0x0000ba98}, {8, 32, 0x98},
      {1, 32, 0},           {4, 32, 0x8},         {0, 32, 0xfedcba98}, // 32 modulo 32 is 0
      {16, 16, 0xfedcba98}, {8, 16, 0x00dcba98},  {0, 16, 0x0000ba98},  {0, 0, 0xfedcba98},
      {33, 64, 0},          {32, 64, 0xfedcba98},
   };
   for (const auto& wanted : cases) {
      PciTransportMethodImpl transport(_access, "",
                                       model({reg("A", 0, wanted.width, wanted.accessWidth)}));
      EXPECT_EQ(transport.regRead("A"), wanted.value) << wanted.width << " " << wanted.accessWidth;
      std::uint32_t word = 0;
      transport.regReadBlock("A", &word, 1);
      EXPECT_EQ(word, wanted.value) << wanted.width << " " << wanted.accessWidth;
   }
}

TEST_F(PciTransport, AWriteIsNotMasked) {
   const auto transport = make();
   transport->regWrite("HALF", 0x12345678);
   EXPECT_EQ(_space.word(0x10), 0x12345678u);
   EXPECT_EQ(_space.word(0x14), 0u);
   EXPECT_THAT(journal(), ElementsAre("guarded write 0x10 0x12345678"));
}

TEST_F(PciTransport, EveryAccessReachesTheDevice) {
   const auto transport = make();
   transport->regWrite("ID", 5);
   transport->regWrite("ID", 5);
   EXPECT_EQ(transport->regRead("ID"), 5u);
   EXPECT_EQ(transport->regRead("ID"), 5u);
   EXPECT_EQ(journal().size(), 4u);
}

TEST_F(PciTransport, WithoutTheGuardAccessesArePlain) {
   const auto transport = makePlain();
   std::uint32_t words[2] = {1, 2};
   transport->regWrite("ID", 5);
   EXPECT_EQ(transport->regRead("ID"), 5u);
   transport->regWriteBlock("ID", words, 2);
   transport->regReadBlock("ID", words, 2);
   EXPECT_THAT(journal(), ElementsAre("write 0x0 0x5", "read 0x0", "write 0x0 0x1", "write 0x4 0x2",
                                      "read 0x0", "read 0x4"));
}

TEST_F(PciTransport, AnUnknownNameTouchesNothing) {
   const auto transport = make();
   _access->readyIs(false);
   const CaptureScope trace;
   for (const auto& access : everyAccess(*transport, "NOPE")) {
      EXPECT_EQ(Failure(access),
                Failure::generic(ENOENT, "RegisterFile does not have register 'NOPE'"));
   }
   EXPECT_THAT(journal(), IsEmpty());
   EXPECT_THAT(trace.texts(), IsEmpty()) << "the name comes before the readiness";
}

// --- Blocks

TEST_F(PciTransport, ABlockReadTakesConsecutiveWords) {
   _space.wordIs(0x100, 1);
   _space.wordIs(0x104, 2);
   _space.wordIs(0x108, 3);
   const auto transport = make();
   std::uint32_t words[4] = {7, 7, 7, 7};
   transport->regReadBlock("BLOCK", words, 3);
   EXPECT_THAT(words, ElementsAre(1, 2, 3, 7));
   EXPECT_THAT(journal(),
               ElementsAre("guarded read 0x100", "guarded read 0x104", "guarded read 0x108"));
}

TEST_F(PciTransport, EveryWordOfABlockIsMaskedToTheFirstRegistersWidth) {
   for (std::uint32_t offset = 0x10; offset < 0x1c; offset += 4) {
      _space.wordIs(offset, 0x12340000 + offset);
   }
   std::uint32_t words[3];
   make()->regReadBlock("HALF", words, 3);
   EXPECT_THAT(words, ElementsAre(0x10, 0x14, 0x18));
}

TEST_F(PciTransport, ABlockWriteIsNotMasked) {
   const std::uint32_t words[] = {0xffffffff, 0x12345678};
   make()->regWriteBlock("HALF", words, 2);
   EXPECT_EQ(_space.word(0x10), 0xffffffffu);
   EXPECT_EQ(_space.word(0x14), 0x12345678u);
   EXPECT_EQ(_space.word(0x18), 0u);
   EXPECT_THAT(journal(),
               ElementsAre("guarded write 0x10 0xffffffff", "guarded write 0x14 0x12345678"));
}

TEST_F(PciTransport, ABlockOfNothingTouchesNothing) {
   const auto transport = make();
   transport->regReadBlock("BLOCK", nullptr, 0);
   transport->regWriteBlock("BLOCK", nullptr, 0);
   transport->regReadBlock("BEYOND", nullptr, 0);
   transport->regWriteBlock("ODD", nullptr, 0);
   EXPECT_THAT(journal(), IsEmpty());
   _access->readyIs(false);
   EXPECT_THROW(transport->regReadBlock("BLOCK", nullptr, 0), SigbusException);
   EXPECT_THROW(transport->regWriteBlock("BLOCK", nullptr, 0), SigbusException);
}

TEST_F(PciTransport, OnlyTheFirstRegisterOfABlockIsLookedAt) {
   const auto transport = make();
   EXPECT_THROW(transport->regRead("NEXT"), std::runtime_error) << "too wide by itself";
   _access->onAccess = [this] { _access->readyIs(false); };
   std::uint32_t words[3] = {4, 5, 6};
   transport->regWriteBlock("BLOCK", words, 3);
   EXPECT_EQ(journal().size(), 3u) << "in spite of NEXT, and of the lost readiness";
   _access->readyIs(true);
   transport->regReadBlock("BLOCK", words, 3);
   EXPECT_THAT(words, ElementsAre(4, 5, 6));
}

// --- Readiness

TEST_F(PciTransport, IsAsReadyAsItsHandle) {
   const auto transport = make();
   EXPECT_TRUE(transport->hardwareReady());
   _access->readyIs(false);
   EXPECT_FALSE(transport->hardwareReady());
   _access->readyIs(true);
   EXPECT_TRUE(transport->hardwareReady());
   EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(PciTransport, NotReadyWithTheGuardEveryAccessThrowsBeforeTheDeviceIsTouched) {
   _space.wordIs(0x20, 7);
   const auto transport = make();
   _access->readyIs(false);
   const CaptureScope trace;
   // Neither the register's width nor its place is looked at by then.
   for (const char* name : {"ID", "WIDE", "BEYOND", "ODD"}) {
      for (const auto& access : everyAccess(*transport, name)) {
         try {
            access();
            ADD_FAILURE() << name;
         } catch (const SigbusException& exception) {
            EXPECT_STREQ(exception.what(), "Caught SIGBUS");
         }
      }
   }
   EXPECT_THAT(journal(), IsEmpty());
   std::vector<std::uint32_t> untouched(2 * page / 4, 0);
   untouched[8] = 7;
   EXPECT_EQ(_space.words(), untouched);
   EXPECT_EQ(trace.records().size(), 16u);
   EXPECT_THAT(trace.records(),
               Each(CaptureSink::Entry{"TarnRegFile/PciTransportMethodImpl", "_getReg", 1,
                                       "Hardware not ready, throwing SIGBUS"}));
   _access->readyIs(true);
   EXPECT_EQ(transport->regRead("ID"), 0u);
}

TEST_F(PciTransport, ReadinessIsCheckedBeforeEveryAccess) {
   const auto transport = make();
   EXPECT_EQ(transport->regRead("ID"), 0u);
   _access->readyIs(false);
   EXPECT_THROW(transport->regRead("ID"), SigbusException);
   EXPECT_EQ(journal().size(), 1u);
}

TEST_F(PciTransportDeathTest, NotReadyWithoutTheGuardEveryAccessIsFatal) {
   for (std::size_t i = 0; i < 4; ++i) {
      EXPECT_KILLED_BY(SIGBUS, [&] {
         const auto transport = makePlain();
         _access->readyIs(false);
         everyAccess(*transport, "ID")[i]();
      });
   }
}

TEST_F(PciTransportDeathTest, NotReadyWithoutTheGuardTheSignalIsRaisedAlsoWhereAnotherHasTheGuard) {
   EXPECT_KILLED_BY(SIGBUS, [this] {
      const auto guarded = make();
      const auto transport = makePlain();
      _access->readyIs(false);
      transport->regRead("ID");
   });
}

volatile sig_atomic_t signals = 0;
volatile pid_t signalledThread = 0;

void countSignal(int) {
   signals = signals + 1;
   signalledThread = ::gettid();
}

// What a program that sets the flag asks for: it deals with the signal itself.
TEST_F(PciTransportDeathTest, AProgramThatReturnsFromTheSignalGetsItsAccess) {
   EXPECT_IN_A_FRESH_PROCESS([this] {
      ::signal(SIGBUS, countSignal);
      std::thread([this] {
         _access->ownerThreadIs(std::this_thread::get_id());
         const auto transport = makePlain();
         _access->readyIs(false);
         _space.wordIs(0, 5);
         const CaptureScope trace;
         EXPECT_EQ(transport->regRead("ID"), 5u);
         EXPECT_EQ(signals, 1);
         EXPECT_EQ(signalledThread, ::gettid()) << "in the calling thread";
         EXPECT_EQ(Failure([&] { transport->regRead("WIDE"); }).text,
                   "Register WIDE size not supported!");
         EXPECT_EQ(signals, 2);
         EXPECT_THAT(trace.records(),
                     ElementsAre(CaptureSink::Entry{"TarnRegFile/PciTransportMethodImpl", "_getReg",
                                                    1, "Hardware not ready, raising SIGBUS"},
                                 CaptureSink::Entry{"TarnRegFile/PciTransportMethodImpl", "_getReg",
                                                    1, "Hardware not ready, raising SIGBUS"}));
      }).join();
      _access->ownerThreadIs(std::this_thread::get_id());
      EXPECT_THAT(journal(), ElementsAre("read 0x0"));
   });
}

// --- Registers that cannot be accessed

TEST_F(PciTransport, ARegisterWiderThanItsContainerIsRefused) {
   const auto transport = make();
   for (const auto& access : everyAccess(*transport, "WIDE")) {
      const Failure failure(access);
      EXPECT_EQ(failure.kind, typeid(std::runtime_error).name());
      EXPECT_EQ(failure.text, "Register WIDE size not supported!");
   }
   EXPECT_THAT(journal(), IsEmpty());
   EXPECT_THAT(_space.words(), Each(0));
}

TEST_F(PciTransport, ARegisterBeyondTheRegisterSpaceIsRefused) {
   const auto transport = make();
   for (const auto& access : everyAccess(*transport, "BEYOND")) {
      EXPECT_EQ(Failure(access),
                Failure::generic(ENXIO, "Register 'BEYOND' at offset 0x2000 lies beyond the 8192 "
                                        "bytes of PCI register space " +
                                           _space.path()));
   }
   for (const auto& access : everyAccess(*transport, "TOP")) {
      EXPECT_EQ(Failure(access),
                Failure::generic(ENXIO, "Register 'TOP' at offset 0xfffffffc lies beyond the 8192 "
                                        "bytes of PCI register space " +
                                           _space.path()));
   }
   EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(PciTransport, ARegisterThatIsNotAlignedIsRefused) {
   const auto transport = make();
   for (const auto& access : everyAccess(*transport, "ODD")) {
      EXPECT_EQ(Failure(access),
                Failure::generic(EINVAL, "Register 'ODD' at offset 0x102 of PCI register space " +
                                            _space.path() + " is not aligned to 4 bytes"));
   }
   EXPECT_THAT(journal(), IsEmpty());
   EXPECT_THAT(_space.words(), Each(0));
}

TEST_F(PciTransport, ABlockThatRunsBeyondTheRegisterSpaceIsRefusedAsAWhole) {
   const auto transport = make();
   std::uint32_t words[2] = {7, 7};
   const Failure refused =
      Failure::generic(ENXIO, "Register 'LAST' at offset 0x1ffc: 2 words run beyond the 8192 "
                              "bytes of PCI register space " +
                                 _space.path());
   EXPECT_EQ(Failure([&] { transport->regReadBlock("LAST", words, 2); }), refused);
   EXPECT_EQ(Failure([&] { transport->regWriteBlock("LAST", words, 2); }), refused);
   EXPECT_THAT(words, Each(7));
   EXPECT_THAT(_space.words(), Each(0));
   EXPECT_THAT(journal(), IsEmpty());
   // Sizes whose bytes do not fit in 32 bits, and would come out small.
   for (const std::uint32_t count : {0x40000000u, 0x40000001u, 0xffffffffu}) {
      EXPECT_EQ(Failure([&] { transport->regReadBlock("ID", words, count); }).code, ENXIO);
      EXPECT_EQ(Failure([&] { transport->regWriteBlock("TOP", words, count); }).code, ENXIO);
   }
   EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(PciTransport, ABlockMayReachTheVeryEnd) {
   const auto transport = make();
   std::vector<std::uint32_t> words(page / 4, 7);
   transport->regWriteBlock("SECOND_PAGE", words.data(), page / 4);
   EXPECT_EQ(_space.word(2 * page - 4), 7u);
   EXPECT_EQ(_space.word(page - 4), 0u);
}

TEST_F(PciTransport, AnUnmappedHandleThatIsSaidToBeReadyIsRefused) {
   const auto transport = make();
   _access->unmap();
   EXPECT_THROW(transport->regRead("ID"), SigbusException) << "unmapping made it not ready";
   _access->readyIs(true);
   EXPECT_EQ(Failure([&] { transport->regRead("ID"); }),
             Failure::generic(ENXIO, "Register 'ID' at offset 0x0 lies beyond the 0 bytes of PCI "
                                     "register space " +
                                        _space.path()));
}

// --- A device that vanishes

TEST_F(PciTransport, ABusErrorBecomesAnException) {
   const auto transport = make();
   _space.sizeIs(0);
   for (const auto& access : everyAccess(*transport, "ID")) {
      EXPECT_THROW(access(), SigbusException);
   }
   EXPECT_EQ(journal().size(), 4u);
   EXPECT_TRUE(transport->hardwareReady());
   _space.sizeIs(2 * page);
   EXPECT_EQ(transport->regRead("ID"), 0u) << "it has come back, and nothing was written";
}

TEST_F(PciTransport, ABusErrorHalfwayKeepsTheWordsBeforeIt) {
   const auto source = model({reg("EDGE", page - 8)});
   PciTransportMethodImpl transport(_access, "", source);
   _space.wordIs(page - 8, 1);
   _space.wordIs(page - 4, 2);
   _space.sizeIs(page);
   std::uint32_t words[4] = {7, 7, 7, 7};
   EXPECT_THROW(transport.regReadBlock("EDGE", words, 4), SigbusException);
   EXPECT_THAT(words, ElementsAre(1, 2, 7, 7));
   const std::uint32_t written[4] = {3, 4, 5, 6};
   EXPECT_THROW(transport.regWriteBlock("EDGE", written, 4), SigbusException);
   EXPECT_EQ(_space.word(page - 8), 3u);
   EXPECT_EQ(_space.word(page - 4), 4u);
   EXPECT_EQ(journal().size(), 6u) << "nothing is tried behind the error";
}

TEST_F(PciTransportDeathTest, WithoutTheGuardABusErrorIsFatal) {
   EXPECT_KILLED_BY(SIGBUS, [this] {
      const auto transport = makePlain();
      _space.sizeIs(0);
      transport->regRead("ID");
   });
   EXPECT_KILLED_BY(SIGBUS, [this] {
      const auto guarded = make();
      const auto transport = makePlain();
      _space.sizeIs(0);
      transport->regWrite("ID", 1);
   });
}

// --- Through TransportMethod

class PciTransportMethod : public PciTransport {
protected:
   PciTransportMethod() {
      _tm->fullInit(TarnRegFile::pciTransportDescriptorFactory(_access),
                    TarnRegFile::TransportMethodRegFile(model()));
   }

   bool error() const { return _tm->errorNotifier()->error(); }

   static Bytes bytesOf(std::initializer_list<std::uint32_t> words) {
      Bytes bytes(words.size() * 4);
      std::memcpy(bytes.data(), words.begin(), bytes.size());
      return bytes;
   }

   CaptureScope _trace{"*=1"};
   Ptr<TarnRegFile::TransportMethod> _tm = TarnRegFile::transportMethodFactory("fpga");
};

TEST_F(PciTransportMethod, ReadsAndWritesByName) {
   EXPECT_FALSE(_tm->isAsync());
   _tm->regWrite("HALF", 0x12345678);
   EXPECT_EQ(_tm->regRead("HALF"), 0x5678u);
   _tm->regWriteArray("BLOCK", bytesOf({1, 2, 3}));
   EXPECT_EQ(_tm->regReadArray("BLOCK", 3), bytesOf({1, 2, 3}));
   EXPECT_EQ(_space.word(0x108), 3u);
   EXPECT_FALSE(error());
   EXPECT_THAT(_trace.texts(), IsEmpty());
}

TEST_F(PciTransportMethod, AVanishedDeviceRaisesTheFlagAndReadsAsAllOnes) {
   const auto helper = Platform::make<TestSupport::RecordingAsyncHelper>();
   _tm->asyncHelperIs(helper);
   _space.sizeIs(0);
   EXPECT_EQ(_tm->regRead("ID"), 0xFFFFFFFFu);
   EXPECT_TRUE(error());
   _tm->errorNotifier()->errorIs(false);
   _tm->regWrite("ID", 1);
   EXPECT_TRUE(error());
   _tm->errorNotifier()->errorIs(false);
   EXPECT_EQ(_tm->regReadArray("BLOCK", 2), bytesOf({0, 0}));
   EXPECT_TRUE(error());
   _tm->errorNotifier()->errorIs(false);
   _tm->regWriteArray("BLOCK", bytesOf({1}));
   EXPECT_TRUE(error());
   EXPECT_THAT(helper->results, ElementsAre("read ID Error 4294967295", "write ID Error"));
   EXPECT_THAT(_trace.texts(),
               ElementsAre("Got SIGBUS when performing operation on register 'ID'",
                           "TransportMethod exception caught, Notifying agent: fpga",
                           "Got SIGBUS when performing operation on register 'ID'",
                           "TransportMethod exception caught, Notifying agent: fpga",
                           "Got SIGBUS when performing operation on register 'BLOCK'",
                           "TransportMethod exception caught, Notifying agent: fpga",
                           "Got SIGBUS when performing operation on register 'BLOCK'",
                           "TransportMethod exception caught, Notifying agent: fpga"));
}

TEST_F(PciTransportMethod, ADeviceThatIsNotReadyIsToldLikeABusError) {
   _access->readyIs(false);
   EXPECT_EQ(_tm->regRead("ID"), 0xFFFFFFFFu);
   EXPECT_TRUE(error());
   EXPECT_THAT(journal(), IsEmpty());
   EXPECT_THAT(_trace.texts(),
               ElementsAre("Hardware not ready, throwing SIGBUS",
                           "Got SIGBUS when performing operation on register 'ID'",
                           "TransportMethod exception caught, Notifying agent: fpga"));
}

TEST_F(PciTransportMethod, IfAskedToTheFailureIsRaisedWithTheErrnoOfTheTime) {
   _tm->raiseExceptionOnErrorIs(true);
   _space.sizeIs(0);
   EXPECT_EQ(Failure([&] {
                errno = EBADMSG;
                _tm->regRead("ID");
             }),
             Failure::errnoException(EBADMSG));
   _access->readyIs(false);
   EXPECT_EQ(Failure([&] {
                errno = EBADMSG;
                _tm->regWrite("ID", 1);
             }),
             Failure::errnoException(EBADMSG));
}

TEST_F(PciTransportMethod, ARegisterThatCannotBeAccessedIsToldWithItsReason) {
   EXPECT_EQ(_tm->regRead("BEYOND"), 0xFFFFFFFFu);
   EXPECT_TRUE(error());
   ASSERT_EQ(_trace.texts().size(), 2u);
   EXPECT_THAT(_trace.texts()[0],
               HasSubstr("TransportMethod error on register 'BEYOND': Register "
                         "'BEYOND' at offset 0x2000 lies beyond the 8192 bytes"));
   EXPECT_EQ(_tm->regRead("WIDE"), 0xFFFFFFFFu);
   EXPECT_EQ(_trace.texts()[2],
             "TransportMethod error on register 'WIDE': Register WIDE size not supported!");
   EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(PciTransportMethod, WhatABlockReadBeforeTheErrorIsKept) {
   _space.wordIs(page - 4, 5);
   _tm->handleDeletion();
   _tm->fullInit(TarnRegFile::pciTransportDescriptorFactory(_access),
                 TarnRegFile::TransportMethodRegFile(model({reg("EDGE", page - 4)})));
   _space.sizeIs(page);
   EXPECT_EQ(_tm->regReadArray("EDGE", 3), bytesOf({5, 0, 0}));
   EXPECT_TRUE(error());
}

TEST_F(PciTransportMethod, ADumpEndsAtTheBusError) {
   _space.sizeIs(page);
   testing::internal::CaptureStderr();
   EXPECT_THROW(_tm->dumpAll(), std::runtime_error);
   const std::string dumped = testing::internal::GetCapturedStderr();
   EXPECT_THAT(dumped, HasSubstr("ID"));
   EXPECT_FALSE(error());
}

// --- The factory

class PciFactory : public PciTransport {
protected:
   using Descriptor = Ptr<TarnRegFile::BaseTransportDescriptor>;

   static std::unique_ptr<TarnRegFile::BaseTransportMethodImpl>
   fromFactory(const Descriptor& descriptor, const std::string& csvPath = "",
               const Ptr<HardwareRegisterFile>& source = model()) {
      const auto& factory = TarnRegFile::implFactoryMap.at(
         {TarnRegFile::TransportType::pciBus, TarnRegFile::TransportProtocol::pciMmio,
          TarnRegFile::TransportFlavour::pciDefault});
      return std::unique_ptr<TarnRegFile::BaseTransportMethodImpl>(
         factory(descriptor, csvPath, source));
   }
};

TEST_F(PciFactory, MakesAPciTransportOverTheDescriptorsHandle) {
   const auto descriptor = TarnRegFile::pciTransportDescriptorFactory(_access);
   const auto transport = fromFactory(descriptor);
   EXPECT_NE(dynamic_cast<PciTransportMethodImpl*>(transport.get()), nullptr);
   transport->regRead("ID");
   EXPECT_THAT(journal(), ElementsAre("guarded read 0x0"));
   EXPECT_EQ(descriptor->refCount(), 1u) << "it keeps the handle, not the descriptor";
}

TEST_F(PciFactory, TakesAPathOrAModel) {
   const TestSupport::TempDir dir;
   const std::string list =
      dir.write("a.csv", "number,name,type,writeable,width\n3,A,led,false,8\n");
   const auto descriptor = TarnRegFile::pciTransportDescriptorFactory(_access);
   EXPECT_EQ(fromFactory(descriptor, list, nullptr)->regFileHelper()->name(), list);
   EXPECT_TRUE(fromFactory(descriptor)->regFileHelper()->hasRegName("ID"));
}

TEST_F(PciFactory, ADescriptorOfAnotherKindIsRefused) {
   EXPECT_EQ(Failure([] {
                fromFactory(TarnRegFile::baseTransportDescriptorFactory(
                   TarnRegFile::TransportType::pciBus, TarnRegFile::TransportProtocol::pciMmio,
                   TarnRegFile::TransportFlavour::pciDefault));
             }),
             Failure::generic(EINVAL, "TransportDescriptor must be a "
                                      "TarnRegFile::PciTransportDescriptor, not "
                                      "TarnRegFile::BaseTransportDescriptor"));
   EXPECT_EQ(Failure([] { fromFactory(nullptr); }),
             Failure::generic(EINVAL, "TransportDescriptor must be a "
                                      "TarnRegFile::PciTransportDescriptor, not null"));
}

TEST_F(PciFactory, AHandleOfAnotherKindIsRefused) {
   for (const Ptr<HwAccess>& access : std::initializer_list<Ptr<HwAccess>>{
           Platform::make<HwAccess>("x"), Platform::make<OtherAccess>("x")}) {
      const auto descriptor = TarnRegFile::pciTransportDescriptorFactory(access);
      EXPECT_EQ(Failure([&] {
                   errno = EBUSY;
                   fromFactory(descriptor);
                }),
                Failure::system(EBUSY, "PciHwAccessImpl cast error"));
   }
}

TEST_F(PciFactory, ADescriptorWithoutAHandleMakesATransportWithoutOne) {
   const auto transport = fromFactory(TarnRegFile::pciTransportDescriptorFactory(nullptr));
   EXPECT_EQ(Failure([&] { transport->regRead("ID"); }),
             Failure::generic(ENODEV, "Register 'ID': there is no PCI access handle"));
}

} // namespace
