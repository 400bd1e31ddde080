#include "TarnRegFile/SpiTransportMethodImpl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "platform/entity/EventLoop.h"
#include "platform/entity/ZeroReferencesNotifiee.h"
#include "platform/hardware/SpiHwAccess.h"
#include "platform/trace/CaptureScope.h"
#include "TarnRegFile/SpiTransportDescriptor.h"
#include "TarnRegFile/TransportMethod.h"
#include "tests/support/ChangeLog.h"
#include "tests/support/Failure.h"
#include "tests/support/RecordingAsyncHelper.h"
#include "tests/support/Reflected.h"
#include "tests/support/TempDir.h"

namespace {

using Hardware::HwAccess;
using Hardware::SimulatedSpiDevice;
using Hardware::SpiHwAccess;
using Platform::make;
using TarnRegFile::BaseTransportDescriptor;
using TarnRegFile::HardwareRegister;
using TarnRegFile::HardwareRegisterFile;
using TarnRegFile::implFactoryMap;
using TarnRegFile::Ptr;
using TarnRegFile::SpiTransportDescriptor;
using TarnRegFile::SpiTransportMethodImpl;
using TarnRegFile::TransportFlavour;
using TarnRegFile::TransportKey;
using TarnRegFile::TransportProtocol;
using TarnRegFile::TransportType;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::Failure;
using Transfer = SimulatedSpiDevice::Transfer;

const TransportKey spiKey{TransportType::spiBus, TransportProtocol::spiAccess,
                          TransportFlavour::spiDefault};

/// LED at 0x12, LAST at 255, FAR at 256, EDGE at the highest address.
Ptr<HardwareRegisterFile> model(std::uint8_t addrBlockSize = 1) {
   auto made = Hardware::hardwareRegisterFileFactory("model");
   made->addrBlockSizeIs(addrBlockSize);
   const auto add = [&](const std::string& name, std::uint32_t address) {
      HardwareRegister record;
      record.name = name;
      record.address = address;
      record.width = 16;
      record.arraySize = 1;
      made->nameToRegMapIs(name, record);
      made->addrToNameMapIs(address, name);
   };
   add("LED", 0x12u * addrBlockSize);
   add("LAST", 255u * addrBlockSize);
   if (addrBlockSize == 1) {
      add("FAR", 256);
      add("EDGE", 0xffffffff);
   }
   return made;
}

class SpiTransport : public testing::Test {
protected:
   SpiTransport() {
      handle->readyIs(true);
      handle->eventLoopIs(&loop);
   }

   std::unique_ptr<SpiTransportMethodImpl> open() {
      return std::make_unique<SpiTransportMethodImpl>(handle, "", model());
   }

   /// The transport behind a TransportMethod.
   Ptr<TarnRegFile::TransportMethod> openDevice() {
      auto made = TarnRegFile::transportMethodFactory("cpld");
      made->fullInit(TarnRegFile::spiTransportDescriptorFactory(handle),
                     TarnRegFile::TransportMethodRegFile(model()));
      return made;
   }

   Platform::EventLoop loop;
   const Ptr<SimulatedSpiDevice> device = make<SimulatedSpiDevice>();
   const Ptr<SpiHwAccess> handle = Hardware::spiHwAccessFactory("cpld", device);
};

// -- writing -------------------------------------------------------------------------------------

TEST_F(SpiTransport, AWriteSendsAddressHighAndLowByteAsOneMessage) {
   const auto spi = open();
   spi->regWrite("LED", 0xabcd);
   loop.run();
   EXPECT_THAT(device->journal(), ElementsAre(Transfer{{0x12, 0xab, 0xcd}, 0}));
   EXPECT_EQ(device->registerValue(0x12), 0xabcd);
   EXPECT_EQ(spi->spiEngineStatus()->completed(), 1u);
}

TEST_F(SpiTransport, AWriteReturnsBeforeTheEngineRuns) {
   const auto spi = open();
   spi->regWrite("LED", 1);
   spi->regWrite("LED", 2);
   EXPECT_THAT(device->journal(), IsEmpty());
   EXPECT_EQ(spi->spiEngineConfig()->queueLength(), 2u);
   EXPECT_EQ(spi->spiEngineStatus()->completed(), 0u);
   loop.run();
   EXPECT_EQ(device->journal().size(), 2u);
   EXPECT_EQ(spi->spiEngineConfig()->queueLength(), 0u);
}

TEST_F(SpiTransport, WritesKeepTheirOrder) {
   const auto spi = open();
   for (std::uint32_t i = 0; i < 100; ++i) {
      spi->regWrite(i % 2 ? "LED" : "LAST", i);
   }
   loop.run();
   ASSERT_EQ(device->journal().size(), 100u);
   for (std::size_t i = 0; i < 100; ++i) {
      EXPECT_THAT(device->journal()[i].bytes, ElementsAre(i % 2 ? 0x12 : 0xff, 0, i));
   }
}

TEST_F(SpiTransport, TakesTheHighestAddressAndTheHighestValueAndZero) {
   const auto spi = open();
   spi->regWrite("LAST", 0xffff);
   spi->regWrite("LED", 0);
   loop.run();
   EXPECT_THAT(device->journal(),
               ElementsAre(Transfer{{0xff, 0xff, 0xff}, 0}, Transfer{{0x12, 0, 0}, 0}));
}

TEST_F(SpiTransport, RefusesALongValueAndQueuesNothing) {
   const auto spi = open();
   TestSupport::ChangeLog queue(*spi->spiEngineConfig());
   EXPECT_EQ(Failure([&] { spi->regWrite("LED", 0x10000); }),
             Failure::generic(EINVAL, "SPI value 65536 longer than 16 bits"));
   EXPECT_EQ(Failure([&] { spi->regWrite("LED", 0xffffffff); }),
             Failure::generic(EINVAL, "SPI value 4294967295 longer than 16 bits"));
   EXPECT_EQ(spi->spiEngineConfig()->queueLength(), 0u);
   EXPECT_THAT(queue.changes, IsEmpty());
   EXPECT_EQ(loop.run(), 0u);
   EXPECT_THAT(device->journal(), IsEmpty());
}

TEST_F(SpiTransport, RefusesALongAddressAndQueuesNothing) {
   const auto spi = open();
   EXPECT_EQ(Failure([&] { spi->regWrite("FAR", 1); }),
             Failure::generic(EINVAL, "SPI address 256 longer than 8 bits"));
   EXPECT_EQ(Failure([&] { spi->regWrite("EDGE", 1); }),
             Failure::generic(EINVAL, "SPI address 4294967295 longer than 8 bits"));
   EXPECT_EQ(spi->spiEngineConfig()->queueLength(), 0u);
   EXPECT_EQ(loop.run(), 0u);
}

TEST_F(SpiTransport, ComplainsOfTheAddressBeforeTheValue) {
   EXPECT_EQ(Failure([&] { open()->regWrite("FAR", 0x10000); }),
             Failure::generic(EINVAL, "SPI address 256 longer than 8 bits"));
}

TEST_F(SpiTransport, ARejectedWriteUsesUpAnIdAndAnUnknownNameDoesNot) {
   const auto spi = open();
   std::vector<std::uint32_t> ids;
   const auto watching = Platform::subscribe(
      *spi->spiEngineStatus(), Hardware::SpiEngineStatus::completedAttr,
      [&](const auto&) { ids.push_back(spi->spiEngineStatus()->lastRequestId()); });
   spi->regWrite("LED", 1);
   EXPECT_THROW(spi->regWrite("FAR", 1), std::system_error);
   spi->regWrite("LED", 2);
   EXPECT_THROW(spi->regWrite("LED", 0x10000), std::system_error);
   EXPECT_THROW(spi->regWrite("FAR", 0x10000), std::system_error);
   EXPECT_EQ(Failure([&] { spi->regWrite("NOPE", 1); }),
             Failure::generic(ENOENT, "RegisterFile does not have register 'NOPE'"));
   spi->regWrite("LED", 3);
   loop.run();
   EXPECT_THAT(ids, ElementsAre(0, 2, 5));
}

TEST_F(SpiTransport, EachTransportCountsForItself) {
   const auto first = open();
   const auto second = open();
   first->regWrite("LED", 1);
   first->regWrite("LED", 1);
   second->regWrite("LED", 1);
   loop.run();
   EXPECT_EQ(first->spiEngineStatus()->lastRequestId(), 1u);
   EXPECT_EQ(second->spiEngineStatus()->lastRequestId(), 0u);
   EXPECT_EQ(second->spiEngineStatus()->completed(), 1u);
}

TEST_F(SpiTransport, AFullQueueIsAnErrorAndNothingIsLost) {
   const auto spi = open();
   for (std::size_t i = 0; i < Hardware::SpiEngineConfig::maxQueued; ++i) {
      spi->regWrite("LED", 1);
   }
   EXPECT_EQ(Failure([&] { spi->regWrite("LED", 2); }),
             Failure::generic(ENOBUFS, "SPI engine 'cpld' already has 65536 requests queued"));
   EXPECT_EQ(handle->drain(), 0u);
   EXPECT_EQ(spi->spiEngineStatus()->completed(), 65536u);
   EXPECT_EQ(device->registerValue(0x12), 1);
   spi->regWrite("LED", 3);
   EXPECT_EQ(spi->spiEngineConfig()->queueLength(), 1u);
   handle->drain();
}

TEST_F(SpiTransport, AFailingDeviceFailsNoWriteButItsStatus) {
   const auto spi = open();
   device->failTransferIs(1, ETIMEDOUT);
   const Platform::Trace::CaptureScope trace;
   spi->regWrite("LED", 1);
   spi->regWrite("LED", 2);
   loop.run();
   EXPECT_EQ(spi->spiEngineStatus()->failed(), 1u);
   EXPECT_EQ(spi->spiEngineStatus()->lastError(), ETIMEDOUT);
   EXPECT_EQ(spi->spiEngineStatus()->lastErrorText(),
             "SPI request 0: simulated SPI device: Connection timed out");
   EXPECT_EQ(spi->spiEngineStatus()->completed(), 1u);
   EXPECT_EQ(device->registerValue(0x12), 2);
}

TEST_F(SpiTransport, AFailingObserverOfTheQueueReachesTheWriterWithTheWriteQueued) {
   const auto spi = open();
   TestSupport::ChangeLog failing(*spi->spiEngineConfig(),
                                  [] { throw std::runtime_error("observer"); });
   EXPECT_THROW(spi->regWrite("LED", 1), std::runtime_error);
   EXPECT_EQ(spi->spiEngineConfig()->queueLength(), 1u);
}

// -- reading and blocks --------------------------------------------------------------------------

TEST_F(SpiTransport, EveryReadFailsWhetherOrNotThereIsTheRegister) {
   const auto spi = open();
   const auto failure = Failure::generic(EIO, "SPI read not implemented");
   EXPECT_EQ(Failure([&] { spi->regRead("LED"); }), failure);
   EXPECT_EQ(Failure([&] { spi->regRead("NOPE"); }), failure);
   EXPECT_EQ(Failure([&] { spi->regRead("FAR"); }), failure);
   EXPECT_EQ(loop.run(), 0u);
   spi->regWrite("LED", 1);
   loop.run();
   EXPECT_EQ(spi->spiEngineStatus()->lastRequestId(), 0u) << "a read takes no id";
}

TEST_F(SpiTransport, DumpingEndsWithTheFirstRead) {
   EXPECT_EQ(Failure([&] { open()->dumpAll(); }),
             Failure::generic(EIO, "SPI read not implemented"));
}

TEST_F(SpiTransport, HasNoAsynchronousResults) {
   const auto spi = open();
   EXPECT_EQ(spi->getAsyncHelper(), nullptr);
   const auto helper = make<TestSupport::RecordingAsyncHelper>();
   spi->asyncHelperIs(helper);
   EXPECT_EQ(spi->getAsyncHelper(), helper);
   spi->regWrite("LED", 1);
   loop.run();
   EXPECT_THAT(helper->results, IsEmpty());
}

TEST_F(SpiTransport, BlockAccessStopsTheProcess) {
   testing::FLAGS_gtest_death_test_style = "threadsafe";
   const auto spi = open();
   std::uint32_t word = 0;
   EXPECT_DEATH(spi->regReadBlock("LED", &word, 1), "regReadBlock.*Unimplemented");
   EXPECT_DEATH(spi->regWriteBlock("LED", &word, 1), "regWriteBlock.*Unimplemented");
}

// -- life ----------------------------------------------------------------------------------------

TEST_F(SpiTransport, NamesItsPartsAfterTheHandle) {
   const auto spi = open();
   EXPECT_EQ(spi->spiEngine()->name(), "cpld");
   EXPECT_EQ(spi->spiEngineConfig()->name(), "cpld");
   EXPECT_EQ(spi->spiEngineStatus()->name(), "cpld");
   EXPECT_EQ(spi->spiEngineSm()->engine(), spi->spiEngine());
   EXPECT_EQ(spi->spiEngineSm()->config(), spi->spiEngineConfig());
   EXPECT_EQ(spi->spiEngineSm()->status(), spi->spiEngineStatus());
   EXPECT_THAT(handle->engines(), ElementsAre(spi->spiEngineSm()));
}

TEST_F(SpiTransport, LoadsAListOfRegisterNumbersAndRescalesAModel) {
   const TestSupport::TempDir dir;
   const std::string path =
      dir.write("a.csv", "number,name,type,writeable,width\n7,A,led,true,16\n");
   SpiTransportMethodImpl fromPath(handle, path.c_str(), nullptr);
   EXPECT_EQ(fromPath.regFileHelper()->name(), path);
   EXPECT_EQ(fromPath.regFileHelper()->addrBlockSize(), 1);
   fromPath.regWrite("A", 1);
   SpiTransportMethodImpl fromModel(handle, "", model(4));
   fromModel.regWrite("LED", 2);
   loop.run();
   EXPECT_THAT(device->journal(), ElementsAre(Transfer{{7, 0, 1}, 0}, Transfer{{0x12, 0, 2}, 0}));
}

/// Notes when a node's last reference goes.
class LastReference : public Platform::ZeroReferencesNotifiee {
public:
   LastReference(std::vector<std::string>& log, std::string line, const Platform::Node& node)
      : _log(log), _line(std::move(line)) {
      notifierIs(&node);
   }
   void onZeroReferences(Platform::Node&) noexcept override { _log.push_back(_line); }

private:
   std::vector<std::string>& _log;
   const std::string _line;
};

TEST_F(SpiTransport, ReleasesItsPartsInTheReverseOfTheirOrder) {
   auto spi = open();
   std::vector<std::string> released;
   const auto engine = make<LastReference>(released, "engine", *spi->spiEngine());
   const auto config = make<LastReference>(released, "config", *spi->spiEngineConfig());
   const auto status = make<LastReference>(released, "status", *spi->spiEngineStatus());
   const auto sm = make<LastReference>(released, "sm", *spi->spiEngineSm());
   spi.reset();
   EXPECT_THAT(released, ElementsAre("sm", "status", "config", "engine"));
   EXPECT_EQ(handle->refCount(), 1u);
}

TEST_F(SpiTransport, AFailedConstructionLeavesNothingBehind) {
   const auto given = model();
   EXPECT_EQ(Failure([&] { SpiTransportMethodImpl(handle, "", nullptr); }),
             Failure::generic(EINVAL, "Must provide csvPath or regFileModel"));
   EXPECT_EQ(Failure([&] { SpiTransportMethodImpl(nullptr, "", given); }),
             Failure::generic(EINVAL, "SPI engine must have a HwAccess"));
   const Ptr<HwAccess> other = make<HwAccess>("fan");
   EXPECT_EQ(Failure([&] { SpiTransportMethodImpl(other, "", given); }),
             Failure::generic(EINVAL, "HwAccess 'fan' is not that of an SPI device"));
   EXPECT_EQ(Failure([&] { SpiTransportMethodImpl(other, "", nullptr); }),
             Failure::generic(EINVAL, "Must provide csvPath or regFileModel"))
      << "the list comes first";
   EXPECT_EQ(handle->refCount(), 1u);
   EXPECT_EQ(other->refCount(), 1u);
   EXPECT_EQ(given->refCount(), 1u);
   EXPECT_THAT(handle->engines(), IsEmpty());
}

TEST_F(SpiTransport, WritesStillQueuedAtItsEndAreReportedAndNotSent) {
   auto spi = open();
   const auto status = spi->spiEngineStatus();
   spi->regWrite("LED", 1);
   const Platform::Trace::CaptureScope trace;
   spi.reset();
   EXPECT_EQ(loop.run(), 0u);
   EXPECT_THAT(device->journal(), IsEmpty());
   EXPECT_EQ(status->failed(), 1u);
   EXPECT_EQ(status->lastError(), ECANCELED);
   EXPECT_EQ(status->refCount(), 1u);
}

TEST_F(SpiTransport, MayBeDestroyedByAnObserverOfItsStatusOrItsQueue) {
   for (const bool ofQueue : {false, true}) {
      device->journalClear();
      auto spi = open();
      spi->regWrite("LED", 1);
      spi->regWrite("LED", 2);
      const Ptr<Platform::Node> source = ofQueue ? Ptr<Platform::Node>(spi->spiEngineConfig())
                                                 : Ptr<Platform::Node>(spi->spiEngineStatus());
      const auto watching = Platform::subscribe(*source, [&](const auto&) { spi.reset(); });
      const Platform::Trace::CaptureScope trace;
      loop.run();
      EXPECT_EQ(device->journal().size(), 1u);
      EXPECT_EQ(spi, nullptr);
   }
}

TEST_F(SpiTransport, MayBeDestroyedByAnObserverOfItsQueueInsideAWrite) {
   auto spi = open();
   const Ptr<Hardware::SpiEngineConfig> config = spi->spiEngineConfig();
   const auto watching = Platform::subscribe(*config, [&](const auto&) { spi.reset(); });
   const Platform::Trace::CaptureScope trace;
   spi->regWrite("LED", 1);
   EXPECT_EQ(spi, nullptr);
   EXPECT_EQ(loop.run(), 0u);
   EXPECT_THAT(device->journal(), IsEmpty());
}

// -- descriptor and factory ----------------------------------------------------------------------

TEST_F(SpiTransport, ItsDescriptorSelectsThreeFourSixAndNamesTheDevice) {
   const auto descriptor = TarnRegFile::spiTransportDescriptorFactory(handle);
   EXPECT_EQ(static_cast<int>(descriptor->transportType()), 3);
   EXPECT_EQ(static_cast<int>(descriptor->transportProtocol()), 4);
   EXPECT_EQ(static_cast<int>(descriptor->transportFlavour()), 6);
   EXPECT_EQ(descriptor->hwAccess(), handle);
   TestSupport::ChangeLog log(*descriptor);
   descriptor->hwAccessIs(handle);
   descriptor->hwAccessIs(nullptr);
   EXPECT_THAT(log.changes, ElementsAre("hwAccess"));
   EXPECT_EQ(make<SpiTransportDescriptor>()->hwAccess(), nullptr);
   EXPECT_THAT(TestSupport::reflectedAttributes(SpiTransportDescriptor::staticType()),
               ElementsAre("hwAccess (rw)"));
   EXPECT_EQ(SpiTransportDescriptor::staticType().base(), &BaseTransportDescriptor::staticType());
}

TEST_F(SpiTransport, ItsRowMakesItFromAPathOrAModel) {
   const TestSupport::TempDir dir;
   const std::string path =
      dir.write("a.csv", "number,name,type,writeable,width\n7,A,led,true,16\n");
   const auto descriptor = TarnRegFile::spiTransportDescriptorFactory(handle);
   const std::unique_ptr<TarnRegFile::BaseTransportMethodImpl> fromPath(
      implFactoryMap.at(spiKey)(descriptor, path, nullptr));
   EXPECT_NE(dynamic_cast<SpiTransportMethodImpl*>(fromPath.get()), nullptr);
   const auto given = model();
   const std::unique_ptr<TarnRegFile::BaseTransportMethodImpl> fromModel(
      implFactoryMap.at(spiKey)(descriptor, "", given));
   EXPECT_NE(dynamic_cast<SpiTransportMethodImpl*>(fromModel.get()), nullptr);
   EXPECT_EQ(fromModel->regFileHelper()->regFilePtr(), given);
   EXPECT_EQ(descriptor->refCount(), 1u);
}

TEST_F(SpiTransport, ItsRowRefusesADescriptorOfAnotherKindAndNone) {
   const std::string text =
      "TransportDescriptor must be a TarnRegFile::SpiTransportDescriptor, not ";
   const auto failure = Failure::generic(EINVAL, text + "TarnRegFile::BaseTransportDescriptor");
   const auto base = TarnRegFile::baseTransportDescriptorFactory(
      TransportType::spiBus, TransportProtocol::spiAccess, TransportFlavour::spiDefault);
   EXPECT_EQ(Failure([&] { implFactoryMap.at(spiKey)(base, "", model()); }), failure);
   EXPECT_EQ(Failure([&] { implFactoryMap.at(spiKey)(nullptr, "", model()); }),
             Failure::generic(EINVAL, text + "null"));
   EXPECT_EQ(Failure([&] {
                TarnRegFile::transportMethodFactory("cpld")->fullInit(
                   base, TarnRegFile::TransportMethodRegFile(model()));
             }),
             failure);
   EXPECT_EQ(
      Failure([&] { implFactoryMap.at(spiKey)(make<SpiTransportDescriptor>(), "", model()); }),
      Failure::generic(EINVAL, "SPI engine must have a HwAccess"));
}

// -- through a TransportMethod -------------------------------------------------------------------

TEST_F(SpiTransport, ThroughTheMethodAWriteIsASuccessOnceItIsQueued) {
   const auto cpld = openDevice();
   EXPECT_FALSE(cpld->isAsync());
   const auto helper = make<TestSupport::RecordingAsyncHelper>();
   cpld->asyncHelperIs(helper);
   device->lostIs(true);
   cpld->regWrite("LED", 0xabcd);
   EXPECT_THAT(helper->results, ElementsAre("write LED Success"));
   const Platform::Trace::CaptureScope trace;
   EXPECT_EQ(handle->drain(), 1u);
   EXPECT_FALSE(cpld->errorNotifier()->error()) << "the status tells, not the flag";
   ASSERT_EQ(handle->engines().size(), 1u);
   EXPECT_EQ(handle->engines()[0]->status()->lastError(), ENXIO);
   EXPECT_THAT(helper->results, ElementsAre("write LED Success"));
}

TEST_F(SpiTransport, ThroughTheMethodARejectedWriteSetsTheFlag) {
   const auto cpld = openDevice();
   const auto helper = make<TestSupport::RecordingAsyncHelper>();
   cpld->asyncHelperIs(helper);
   const Platform::Trace::CaptureScope trace("TarnRegFile/TransportMethod=0");
   cpld->regWrite("LED", 0x10000);
   EXPECT_TRUE(cpld->errorNotifier()->error());
   EXPECT_THAT(helper->results, ElementsAre("write LED Error"));
   EXPECT_THAT(
      trace.texts(),
      ElementsAre("TransportMethod error on register 'LED': SPI value 65536 longer than 16 bits: "
                  "Invalid argument",
                  "TransportMethod exception caught, Notifying agent: cpld"));
   EXPECT_EQ(loop.run(), 0u);
}

TEST_F(SpiTransport, ThroughTheMethodAReadGivesAllOnesAndSetsTheFlag) {
   const auto cpld = openDevice();
   const Platform::Trace::CaptureScope trace("TarnRegFile/TransportMethod=0");
   EXPECT_EQ(cpld->regRead("LED"), 0xffffffffu);
   EXPECT_TRUE(cpld->errorNotifier()->error());
   EXPECT_EQ(trace.texts().front(), "TransportMethod error on register 'LED': SPI read not "
                                    "implemented: Input/output error");
}

TEST_F(SpiTransport, ThroughTheMethodFailuresAreRaisedWhenAskedFor) {
   const auto cpld = openDevice();
   cpld->raiseExceptionOnErrorIs(true);
   const Platform::Trace::CaptureScope trace;
   EXPECT_THROW(cpld->regRead("LED"), Platform::ErrnoException);
   EXPECT_THROW(cpld->regWrite("FAR", 1), Platform::ErrnoException);
   EXPECT_THROW(cpld->regWrite("NOPE", 1), Platform::ErrnoException);
   EXPECT_NO_THROW(cpld->regWrite("LED", 1));
   loop.run();
   EXPECT_EQ(device->registerValue(0x12), 1);
}

TEST_F(SpiTransport, ThroughTheMethodDeletionDiscardsWhatIsQueued) {
   const auto cpld = openDevice();
   cpld->regWrite("LED", 1);
   const Platform::Trace::CaptureScope trace;
   cpld->handleDeletion();
   EXPECT_EQ(loop.run(), 0u);
   EXPECT_THAT(device->journal(), IsEmpty());
   EXPECT_THAT(handle->engines(), IsEmpty());
}

} // namespace
