#include "TarnRegFile/TransportMethod.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "platform/entity/TypeData.h"
#include "platform/entity/Value.h"
#include "platform/entity/WeakPtr.h"
#include "platform/entity/ZeroReferencesNotifiee.h"
#include "platform/hardware/SigbusException.h"
#include "platform/trace/CaptureScope.h"
#include "TarnRegFile/MockTransportMethodImpl.h"
#include "tests/support/ChangeLog.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/Failure.h"
#include "tests/support/FakeTransport.h"
#include "tests/support/RecordingAsyncHelper.h"
#include "tests/support/Reflected.h"
#include "tests/support/TempDir.h"
#include "tests/support/VirtualSlot.h"

namespace {

using Hardware::hardwareRegisterFileFactory;
using Platform::Value;
using TarnRegFile::BaseTransportDescriptor;
using TarnRegFile::baseTransportDescriptorFactory;
using TarnRegFile::BaseTransportMethodImpl;
using TarnRegFile::Bytes;
using TarnRegFile::HardwareRegister;
using TarnRegFile::HardwareRegisterFile;
using TarnRegFile::mockTransportDescriptorFactory;
using TarnRegFile::Ptr;
using TarnRegFile::TransportFlavour;
using TarnRegFile::TransportMethod;
using TarnRegFile::TransportMethodError;
using TarnRegFile::transportMethodFactory;
using TarnRegFile::TransportMethodRegFile;
using TarnRegFile::TransportProtocol;
using TarnRegFile::TransportType;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::ChangeLog;
using TestSupport::Failure;
using TestSupport::FakeTransport;
using TestSupport::Journal;
using TestSupport::RecordingAsyncHelper;
using TestSupport::TempDir;

constexpr const char* notInitialised = "This TransportMethod is not intialized";
constexpr std::uint32_t failed = 0xFFFFFFFF;

HardwareRegister reg(const std::string& name, std::uint32_t address, std::uint32_t arraySize = 1) {
   HardwareRegister record;
   record.name = name;
   record.address = address;
   record.width = 32;
   record.arraySize = arraySize;
   return record;
}

Ptr<HardwareRegisterFile> model() {
   auto made = hardwareRegisterFileFactory("model");
   for (const auto& record : {reg("A", 4), reg("B", 8, 3), reg("C", 0)}) {
      made->nameToRegMapIs(record.name, record);
      made->addrToNameMapIs(record.address, record.name);
   }
   return made;
}

/// A descriptor that no transport exists for.
Ptr<BaseTransportDescriptor> unsupported(TransportProtocol protocol) {
   return baseTransportDescriptorFactory(static_cast<TransportType>(1), protocol,
                                         TransportFlavour::pciDefault);
}

Bytes bytesOf(std::initializer_list<std::uint32_t> words) {
   Bytes bytes(words.size() * 4);
   std::memcpy(bytes.data(), words.begin(), bytes.size());
   return bytes;
}

class TransportMethodTest : public testing::Test {
protected:
   /// Installs a fake under an entity that has a descriptor of `protocol`, and a notifier.
   FakeTransport* fakeIs(TransportProtocol protocol = TransportProtocol::mockAccess) {
      EXPECT_THROW(_tm->init(unsupported(protocol), "x.csv"), std::system_error);
      _tm->errorNotifierIs("chip");
      return fakeWithoutDescriptorIs();
   }

   FakeTransport* fakeWithoutDescriptorIs() {
      auto* fake = new FakeTransport(model(), _journal);
      _tm->implPtrIs(fake);
      return fake;
   }

   Ptr<RecordingAsyncHelper> helperIs() {
      auto helper = Platform::make<RecordingAsyncHelper>();
      _tm->asyncHelperIs(helper);
      return helper;
   }

   bool error() const { return _tm->errorNotifier()->error(); }

   /// Every access and query, for what they have in common.
   std::vector<std::function<void()>> everyOperation() {
      const auto tm = _tm;
      return {[tm] { tm->regRead("A"); },
              [tm] { tm->regWrite("A", 1); },
              [tm] { tm->regReadArray("A", 1); },
              [tm] { tm->regWriteArray("A", bytesOf({1})); },
              [tm] { tm->regWriteArray("A", Bytes(6)); },
              [tm] { tm->getRegArraySize("A"); },
              [tm] { tm->regNameToAddr("A"); },
              [tm] { tm->regAddrToName(4); },
              [tm] { tm->regList(); },
              [tm] { tm->hasRegName("A"); },
              [tm] { tm->asyncHelperIs(nullptr); },
              [tm] { tm->dumpAll(); }};
   }

   const TestSupport::EnvironmentVariable _noValues{"REG_VALUES_FILE", std::nullopt};
   Platform::Trace::CaptureScope _trace{"*=9"};
   TempDir _dir;
   std::string _csv = _dir.write(
      "a.csv", "number,name,type,writeable,width\n1,A,led,true,8\n2,B[0:2],led,true,8\n");
   std::shared_ptr<Journal> _journal = std::make_shared<Journal>();
   Ptr<TransportMethod> _tm = transportMethodFactory("chip");
};

// --- Construction

TEST_F(TransportMethodTest, ANewOneHasOnlyItsName) {
   for (const auto& tm :
        {transportMethodFactory("one"), TransportMethod::TransportMethodIs("one")}) {
      EXPECT_EQ(tm->name(), "one");
      EXPECT_FALSE(tm->raiseExceptionOnError());
      EXPECT_EQ(tm->errorNotifier(), nullptr);
      EXPECT_EQ(tm->csvPath(), "");
      EXPECT_EQ(tm->regFilePtr(), nullptr);
      EXPECT_EQ(tm->descriptorPtr(), nullptr);
   }
   EXPECT_NE(transportMethodFactory("one"), transportMethodFactory("one"));
   EXPECT_EQ(transportMethodFactory("one")->refCount(), 1u);
}

TEST_F(TransportMethodTest, ReadAndWriteTakeTheFirstVirtualSlotsAfterTheNodes) {
   using TestSupport::virtualSlot;
   static_assert(std::has_virtual_destructor_v<TransportMethod>);
   EXPECT_EQ(virtualSlot(&TransportMethod::publisher), 3);
   EXPECT_EQ(virtualSlot(&TransportMethod::typeData), 4);
   EXPECT_EQ(virtualSlot(&TransportMethod::regRead), 5);
   EXPECT_EQ(virtualSlot(&TransportMethod::regWrite), 6);
   EXPECT_EQ(virtualSlot(&TransportMethod::init), -1);
   EXPECT_EQ(virtualSlot(&TransportMethod::fullInit), -1);
   EXPECT_EQ(virtualSlot(&TransportMethod::regReadArray), -1);
   EXPECT_EQ(virtualSlot(&TransportMethod::handleDeletion), -1);
}

TEST_F(TransportMethodTest, ASubclassMayOverrideAccess) {
   class Doubling : public TransportMethod {
   public:
      using TransportMethod::TransportMethod;
      std::uint32_t regRead(const TarnRegFile::String& regName) override {
         return 2 * TransportMethod::regRead(regName);
      }
   };
   Ptr<TransportMethod> tm = Platform::make<Doubling>("chip");
   tm->init(mockTransportDescriptorFactory(), _csv);
   tm->regWrite("A", 21);
   EXPECT_EQ(tm->regRead("A"), 42u);
   EXPECT_EQ(Platform::Reflect::invoke(*tm, "regRead", {Value::of("A")}).toString(), "42");
}

// --- Reflection

TEST_F(TransportMethodTest, ReflectsItsAttributesInOrderOfDeclaration) {
   const Platform::TypeData& type = TransportMethod::staticType();
   EXPECT_EQ(type.name(), "TarnRegFile::TransportMethod");
   EXPECT_EQ(type.base(), &Platform::Node::staticType());
   EXPECT_EQ(&_tm->typeData(), &type);
   EXPECT_THAT(TestSupport::reflectedAttributes(type),
               ElementsAre("name", "raiseExceptionOnError (rw)", "errorNotifier", "csvPath",
                           "regFilePtr", "descriptorPtr"));
}

TEST_F(TransportMethodTest, ReflectsItsOperationsInOrderOfDeclaration) {
   EXPECT_THAT(TestSupport::reflectedOperations(TransportMethod::staticType()),
               ElementsAre("init(descriptor, csvPath)", "fullInit(descriptor, regFile)",
                           "regRead(regName)", "regWrite(regName, value)", "asyncHelperIs(helper)",
                           "regReadArray(regArrayName, count)",
                           "regWriteArray(regArrayName, buffer)", "getRegArraySize(regArrayName)",
                           "regNameToAddr(regName)", "regAddrToName(regAddr)", "regList()",
                           "hasRegName(regName)", "isAsync()", "dumpAll()",
                           "handleExceptionGeneric()", "handleDeletion()"));
}

TEST_F(TransportMethodTest, WorksThroughReflection) {
   using Platform::Reflect::get;
   using Platform::Reflect::invoke;
   const Ptr<BaseTransportDescriptor> descriptor = mockTransportDescriptorFactory();
   invoke(*_tm, "init", {Value::of(descriptor), Value::of(_csv)});
   EXPECT_EQ(get(*_tm, "csvPath").as<TarnRegFile::String>(), _csv);
   EXPECT_EQ(get(*_tm, "descriptorPtr").as<Ptr<BaseTransportDescriptor>>(), descriptor);
   invoke(*_tm, "regWrite", {Value::of("A"), Value::of(std::uint32_t{7})});
   EXPECT_EQ(invoke(*_tm, "regRead", {Value::of("A")}).as<std::uint32_t>(), 7u);
   EXPECT_EQ(
      invoke(*_tm, "regReadArray", {Value::of("A"), Value::of(std::uint32_t{2})}).as<Bytes>(),
      bytesOf({7, 0}));
   invoke(*_tm, "regWriteArray", {Value::of("A"), Value::of(bytesOf({8, 9}))});
   EXPECT_EQ(_tm->regRead("B[0]"), 9u);
   EXPECT_EQ(invoke(*_tm, "getRegArraySize", {Value::of("B[1]")}).as<std::uint32_t>(), 3u);
   EXPECT_FALSE(invoke(*_tm, "isAsync", {}).as<bool>());
   const Ptr<TarnRegFile::AsyncHelperBase> helper = Platform::make<RecordingAsyncHelper>();
   invoke(*_tm, "asyncHelperIs", {Value::of(helper)});
   _tm->regRead("A");
   EXPECT_THAT(static_cast<RecordingAsyncHelper&>(*helper).results,
               ElementsAre("read A Success 8"));
   Platform::Reflect::set(*_tm, "raiseExceptionOnError", Value::of(true));
   EXPECT_TRUE(_tm->raiseExceptionOnError());
   invoke(*_tm, "handleDeletion", {});
   EXPECT_EQ(Failure([&] { _tm->regRead("A"); }), Failure::generic(ENODEV, notInitialised));
}

TEST_F(TransportMethodTest, FullInitTakesARegisterFileThroughReflection) {
   const auto given = model();
   Platform::Reflect::invoke(
      *_tm, "fullInit",
      {Value::of(mockTransportDescriptorFactory()), Value::of(TransportMethodRegFile(given))});
   EXPECT_EQ(_tm->regFilePtr(), given);
}

TEST_F(TransportMethodTest, PublishesItsAttributesWhenTheyChange) {
   ChangeLog log(*_tm);
   _tm->raiseExceptionOnErrorIs(false);
   _tm->raiseExceptionOnErrorIs(true);
   _tm->raiseExceptionOnErrorIs(true);
   EXPECT_THAT(log.changes, ElementsAre("raiseExceptionOnError"));
   log.changes.clear();
   _tm->init(mockTransportDescriptorFactory(), _csv);
   EXPECT_THAT(log.changes, ElementsAre("descriptorPtr", "csvPath", "errorNotifier"));
   log.changes.clear();
   _tm->regWrite("A", 1);
   _tm->regRead("A");
   _tm->handleDeletion();
   EXPECT_THAT(log.changes, IsEmpty());
}

// --- Initialisation

TEST_F(TransportMethodTest, InitWithAPathLoadsTheList) {
   const auto descriptor = mockTransportDescriptorFactory();
   _tm->init(descriptor, _csv);
   EXPECT_EQ(_tm->csvPath(), _csv);
   EXPECT_EQ(_tm->regFilePtr(), nullptr);
   EXPECT_EQ(_tm->descriptorPtr(), descriptor);
   EXPECT_EQ(_tm->regNameToAddr("A"), 4u);
   ASSERT_NE(_tm->errorNotifier(), nullptr);
   EXPECT_EQ(_tm->errorNotifier()->chipName(), "chip");
   EXPECT_FALSE(error());
}

TEST_F(TransportMethodTest, FullInitWithAModelAdoptsIt) {
   const auto given = model();
   _tm->fullInit(mockTransportDescriptorFactory(), TransportMethodRegFile(given));
   EXPECT_EQ(_tm->csvPath(), "");
   EXPECT_EQ(_tm->regFilePtr(), given);
   EXPECT_EQ(_tm->regNameToAddr("A"), 16u) << "converted to the mock's blocks of four";
}

TEST_F(TransportMethodTest, AnEmptyPathIsRefusedAfterTheDescriptorWasTaken) {
   const auto descriptor = mockTransportDescriptorFactory();
   EXPECT_EQ(Failure([&] { _tm->init(descriptor, ""); }),
             Failure::generic(EINVAL, "CSV path must not be empty"));
   EXPECT_EQ(_tm->descriptorPtr(), descriptor);
   EXPECT_EQ(_tm->errorNotifier(), nullptr);
   EXPECT_FALSE(_tm->isAsync());
   EXPECT_EQ(Failure([&] { _tm->regRead("A"); }), Failure::generic(ENODEV, notInitialised));
   EXPECT_EQ(Failure([&] { _tm->fullInit(descriptor, TransportMethodRegFile()); }),
             Failure::generic(EINVAL, "CSV path must not be empty"));
}

TEST_F(TransportMethodTest, ANullModelIsRefused) {
   EXPECT_EQ(Failure([&] {
                _tm->fullInit(mockTransportDescriptorFactory(),
                              TransportMethodRegFile(Ptr<HardwareRegisterFile>()));
             }),
             Failure::generic(EINVAL, "Either CSV or non-null regFile must be specified"));
   EXPECT_NE(_tm->descriptorPtr(), nullptr);
   EXPECT_EQ(_tm->errorNotifier(), nullptr);
}

TEST_F(TransportMethodTest, AnUnknownTripleIsNotSupported) {
   const Failure refused =
      Failure::generic(ENXIO, "The specified TransportDescriptor is not supported");
   for (const auto& descriptor :
        {unsupported(TransportProtocol::pciMmio),
         baseTransportDescriptorFactory(TransportType::mockBus, TransportProtocol::mockAccess,
                                        TransportFlavour::pciDefault),
         baseTransportDescriptorFactory(TransportType::mockBus, TransportProtocol::pciMmio,
                                        TransportFlavour::mockDefault),
         baseTransportDescriptorFactory(TransportType::pciBus, TransportProtocol::pciMmio,
                                        TransportFlavour::sornDefault)}) {
      EXPECT_EQ(Failure([&] { _tm->init(descriptor, _csv); }), refused);
      EXPECT_EQ(_tm->descriptorPtr(), descriptor) << "taken before any check";
   }
   EXPECT_EQ(_tm->csvPath(), "") << "nothing else was";
}

TEST_F(TransportMethodTest, TheTripleIsLookedUpBeforeTheListIsLookedAt) {
   EXPECT_EQ(Failure([&] { _tm->init(unsupported(TransportProtocol::pciMmio), ""); }).code, ENXIO);
}

TEST_F(TransportMethodTest, ANullDescriptorIsAClearError) {
   EXPECT_EQ(Failure([&] { _tm->init(nullptr, _csv); }),
             Failure::generic(EINVAL, "TransportDescriptor must not be null"));
   EXPECT_EQ(_tm->descriptorPtr(), nullptr);
}

TEST_F(TransportMethodTest, WhatTheTransportsConstructorThrowsPassesOn) {
   const std::string bad = _dir.write("bad.csv", "bad\n");
   EXPECT_EQ(Failure([&] { _tm->init(mockTransportDescriptorFactory(), bad); }),
             Failure::generic(EINVAL, "Wrong CSV header"));
   EXPECT_EQ(_tm->csvPath(), bad) << "stored before the transport was made";
   EXPECT_EQ(_tm->errorNotifier(), nullptr);
   EXPECT_EQ(Failure([&] { _tm->regRead("A"); }), Failure::generic(ENODEV, notInitialised));
   EXPECT_EQ(Failure([&] { _tm->init(mockTransportDescriptorFactory(), "/none"); }),
             Failure::system(ENOENT, "Error opening CSV file /none"));
   EXPECT_THAT(_trace.texts(), IsEmpty()) << "initialisation is not guarded";
}

TEST_F(TransportMethodTest, AFactoryThatReturnsNullRaisesTheErrno) {
   class Exposed : public TransportMethod {
   public:
      using TransportMethod::_implFromFactory;
      using TransportMethod::TransportMethod;
   };
   const auto tm = Platform::make<Exposed>("chip");
   tm->implPtrIs(new FakeTransport(model(), _journal));
   tm->handleDeletion();
   EXPECT_EQ(Failure([&] {
                tm->_implFromFactory(
                   [](const auto&, const auto&, const auto&) -> BaseTransportMethodImpl* {
                      errno = EMFILE;
                      return nullptr;
                   },
                   "", nullptr);
             }),
             Failure::system(EMFILE, "TransportMethod implementation init failed"));
   EXPECT_EQ(Failure([&] { tm->regRead("A"); }), Failure::generic(ENODEV, notInitialised));
}

TEST_F(TransportMethodTest, ASecondInitDoesNotDestroyTheFirstTransport) {
   FakeTransport* first = fakeIs();
   _tm->init(mockTransportDescriptorFactory(), _csv);
   EXPECT_THAT(*_journal, IsEmpty()) << "neither destroyed nor used";
   _tm->handleDeletion();
   EXPECT_THAT(*_journal, IsEmpty());
   delete first;
   EXPECT_THAT(*_journal, ElementsAre("destroyed"));
}

TEST_F(TransportMethodTest, ASecondInitReplacesTheSourceAndKeepsTheNotifier) {
   const auto given = model();
   auto* first = new TarnRegFile::MockTransportMethodImpl("", given);
   _tm->implPtrIs(first);
   _tm->init(mockTransportDescriptorFactory(), _csv);
   delete first;
   const auto notifier = _tm->errorNotifier();
   notifier->errorIs(true);

   // The transport of the first initialisation, to be freed by hand.
   _tm->handleDeletion();
   _tm->fullInit(mockTransportDescriptorFactory(), TransportMethodRegFile(given));
   EXPECT_EQ(_tm->csvPath(), "");
   EXPECT_EQ(_tm->regFilePtr(), given);
   EXPECT_EQ(_tm->errorNotifier(), notifier);
   EXPECT_TRUE(error()) << "the flag is its owner's to clear";
}

TEST_F(TransportMethodTest, ImplPtrIsNeitherDestroysNorMakesANotifier) {
   FakeTransport* first = fakeWithoutDescriptorIs();
   FakeTransport* second = fakeWithoutDescriptorIs();
   EXPECT_THAT(*_journal, IsEmpty());
   EXPECT_EQ(_tm->errorNotifier(), nullptr);
   EXPECT_EQ(_tm->descriptorPtr(), nullptr);
   _tm->implPtrIs(nullptr);
   EXPECT_THAT(*_journal, IsEmpty());
   EXPECT_EQ(Failure([&] { _tm->regRead("A"); }), Failure::generic(ENODEV, notInitialised));
   delete first;
   delete second;
}

// --- The notifier

TEST_F(TransportMethodTest, TheNotifierIsKeptWhileItsNameFits) {
   const auto first = _tm->errorNotifierIs("one");
   EXPECT_EQ(_tm->errorNotifier(), first);
   EXPECT_FALSE(first->error());
   first->errorIs(true);
   EXPECT_EQ(_tm->errorNotifierIs("one"), first);
   EXPECT_TRUE(first->error());
   const auto second = _tm->errorNotifierIs("two");
   EXPECT_NE(second, first);
   EXPECT_EQ(second->chipName(), "two");
   EXPECT_FALSE(second->error());
   EXPECT_EQ(_tm->errorNotifier(), second);
   EXPECT_EQ(first->refCount(), 1u) << "the old one is released";
   EXPECT_EQ(second->refCount(), 2u);
}

TEST_F(TransportMethodTest, TheNotifierCanBeDetached) {
   const auto first = _tm->errorNotifierIs("one");
   ChangeLog log(*_tm);
   EXPECT_EQ(_tm->errorNotifierDel(), first);
   EXPECT_EQ(_tm->errorNotifier(), nullptr);
   EXPECT_EQ(_tm->errorNotifierDel(), nullptr);
   EXPECT_THAT(log.changes, ElementsAre("errorNotifier"));
   EXPECT_NE(_tm->errorNotifierIs("one"), first);
}

TEST_F(TransportMethodTest, ANotifierThatWasThereIsKeptByInit) {
   const auto mine = _tm->errorNotifierIs("chip");
   const auto other = transportMethodFactory("chip2");
   const auto theirs = other->errorNotifierIs("else");
   _tm->init(mockTransportDescriptorFactory(), _csv);
   other->init(mockTransportDescriptorFactory(), _csv);
   EXPECT_EQ(_tm->errorNotifier(), mine);
   EXPECT_NE(other->errorNotifier(), theirs) << "its name is another";
   EXPECT_EQ(other->errorNotifier()->chipName(), "chip2");
}

// --- isAsync

TEST_F(TransportMethodTest, IsAsyncBeforeInitRaisesTheErrno) {
   errno = ENOTCONN;
   EXPECT_EQ(Failure([&] { _tm->isAsync(); }),
             Failure::system(ENOTCONN, "TransportMethod not initialized"));
}

TEST_F(TransportMethodTest, OnlyProtocolOneIsAsynchronousWhateverTheRest) {
   for (int type = 0; type < 6; ++type) {
      for (int protocol = 0; protocol < 8; ++protocol) {
         for (int flavour = 0; flavour < 9; ++flavour) {
            const auto tm = transportMethodFactory("t");
            try {
               tm->init(baseTransportDescriptorFactory(static_cast<TransportType>(type),
                                                       static_cast<TransportProtocol>(protocol),
                                                       static_cast<TransportFlavour>(flavour)),
                        "");
            } catch (const std::system_error&) {
               // Refused, but the descriptor is taken.
            }
            EXPECT_EQ(tm->isAsync(), protocol == 1);
         }
      }
   }
}

TEST_F(TransportMethodTest, IsAsyncFollowsTheDescriptor) {
   _tm->init(mockTransportDescriptorFactory(), _csv);
   EXPECT_FALSE(_tm->isAsync());
   _tm->descriptorPtr()->transportProtocolIs(TransportProtocol::sornAsync);
   EXPECT_TRUE(_tm->isAsync());
}

// --- Without a transport

TEST_F(TransportMethodTest, WithoutATransportEverythingFails) {
   for (const auto& operation : everyOperation()) {
      EXPECT_EQ(Failure(operation), Failure::generic(ENODEV, notInitialised));
   }
   EXPECT_THAT(_trace.texts(), IsEmpty());
}

TEST_F(TransportMethodTest, AfterHandleDeletionEverythingFails) {
   fakeIs();
   const auto descriptor = _tm->descriptorPtr();
   const auto notifier = _tm->errorNotifier();
   _tm->handleDeletion();
   EXPECT_THAT(*_journal, ElementsAre("destroyed"));
   _tm->handleDeletion();
   for (const auto& operation : everyOperation()) {
      EXPECT_EQ(Failure(operation), Failure::generic(ENODEV, notInitialised));
   }
   EXPECT_THAT(*_journal, ElementsAre("destroyed")) << "once";
   EXPECT_EQ(_tm->descriptorPtr(), descriptor);
   EXPECT_EQ(_tm->errorNotifier(), notifier);
   EXPECT_FALSE(error());
   EXPECT_FALSE(_tm->isAsync());
}

TEST_F(TransportMethodTest, HandleDeletionWithoutATransportIsHarmless) {
   _tm->handleDeletion();
   EXPECT_EQ(_tm->name(), "chip");
}

TEST_F(TransportMethodTest, AfterHandleDeletionItCanBeInitialisedAgain) {
   _tm->init(mockTransportDescriptorFactory(), _csv);
   _tm->handleDeletion();
   _tm->init(mockTransportDescriptorFactory(), _csv);
   EXPECT_EQ(_tm->regRead("A"), 0u);
}

TEST_F(TransportMethodTest, ATransportThatCallsBackWhileItIsDestroyedFindsNone) {
   FakeTransport* fake = fakeIs();
   Failure failure = Failure::none();
   fake->onDestruction = [&] {
      _tm->handleDeletion();
      failure = Failure([&] { _tm->regRead("A"); });
   };
   _tm->handleDeletion();
   EXPECT_EQ(failure, Failure::generic(ENODEV, notInitialised));
   EXPECT_THAT(*_journal, ElementsAre("destroyed"));
}

TEST_F(TransportMethodTest, ItsDestructionDestroysTheTransportAndReleasesTheRest) {
   fakeIs();
   const auto descriptor = _tm->descriptorPtr();
   const auto notifier = _tm->errorNotifier();
   _tm.reset();
   EXPECT_THAT(*_journal, ElementsAre("destroyed"));
   EXPECT_EQ(descriptor->refCount(), 1u);
   EXPECT_EQ(notifier->refCount(), 1u);
}

/// Logs when a node's last reference goes.
class LastReference : public Platform::ZeroReferencesNotifiee {
public:
   LastReference(std::string name, std::vector<std::string>& log)
      : _name(std::move(name)), _log(log) {}
   void onZeroReferences(Platform::Node&) noexcept override { _log.push_back(_name); }

private:
   std::string _name;
   std::vector<std::string>& _log;
};

TEST_F(TransportMethodTest, ItsDestructionGoesFromTheTransportToTheModel) {
   std::vector<std::string> log;
   const auto watch = [&](std::string name, const Platform::Node& node) {
      auto notifiee = Platform::make<LastReference>(std::move(name), log);
      notifiee->notifierIs(&node);
      return notifiee;
   };
   // Four units a block, so that the mock shares it rather than copies it.
   auto given = model();
   given->addrBlockSizeIs(4);
   _tm->fullInit(mockTransportDescriptorFactory(), TransportMethodRegFile(given));
   const auto a = watch("notifier", *_tm->errorNotifier());
   const auto b = watch("descriptor", *_tm->descriptorPtr());
   const auto c = watch("model", *given);
   auto helper = helperIs();
   const auto d = watch("transport's helper", *helper);
   given.reset();
   helper.reset();
   _tm.reset();
   EXPECT_THAT(log, ElementsAre("transport's helper", "notifier", "descriptor", "model"));
}

TEST_F(TransportMethodTest, WhileItIsDestroyedItPublishesNothing) {
   FakeTransport* fake = fakeIs();
   ChangeLog log(*_tm);
   TransportMethod* dying = _tm.get();
   fake->onDestruction = [dying] {
      dying->raiseExceptionOnErrorIs(true);
      dying->errorNotifierDel();
   };
   _tm.reset();
   EXPECT_THAT(*_journal, ElementsAre("destroyed"));
   EXPECT_THAT(log.changes, IsEmpty());
}

// --- Reading and writing

TEST_F(TransportMethodTest, ReadsAndWritesThroughTheTransport) {
   FakeTransport* fake = fakeIs();
   fake->value = 0x1234;
   EXPECT_EQ(_tm->regRead("A"), 0x1234u);
   _tm->regWrite("B", 7);
   EXPECT_THAT(*_journal, ElementsAre("read A", "write B 7"));
   EXPECT_FALSE(error());
   EXPECT_THAT(_trace.texts(), IsEmpty());
}

TEST_F(TransportMethodTest, AFailedReadReturnsAllOnesAndSetsTheFlag) {
   FakeTransport* fake = fakeIs();
   fake->onAccess = [] { throw std::runtime_error("bus stuck"); };
   EXPECT_EQ(_tm->regRead("A"), failed);
   EXPECT_TRUE(error());
   EXPECT_THAT(_trace.texts(),
               ElementsAre("TransportMethod error on register 'A': bus stuck",
                           "TransportMethod exception caught, Notifying agent: chip"));
}

TEST_F(TransportMethodTest, AFailedWriteSetsTheFlag) {
   FakeTransport* fake = fakeIs();
   fake->onAccess = [] { throw Hardware::SigbusException(); };
   _tm->regWrite("A", 1);
   EXPECT_TRUE(error());
   EXPECT_EQ(_trace.texts()[0], "Got SIGBUS when performing operation on register 'A'");
}

TEST_F(TransportMethodTest, AnUnknownNameIsAFailureLikeAnyOther) {
   _tm->init(mockTransportDescriptorFactory(), _csv);
   EXPECT_EQ(_tm->regRead("NOPE"), failed);
   EXPECT_TRUE(error());
   EXPECT_EQ(_trace.texts()[0], "TransportMethod error on register 'NOPE': RegisterFile does not "
                                "have register 'NOPE': No such file or directory");
}

TEST_F(TransportMethodTest, AFailureIsRaisedOnlyWhenAskedFor) {
   FakeTransport* fake = fakeIs();
   const auto helper = helperIs();
   fake->onAccess = [] {
      errno = ETIMEDOUT;
      throw std::runtime_error("bus stuck");
   };
   _tm->raiseExceptionOnErrorIs(true);
   const Failure raised = Failure::errnoException(ETIMEDOUT);
   EXPECT_EQ(Failure([&] { _tm->regRead("A"); }), raised);
   EXPECT_EQ(Failure([&] { _tm->regWrite("A", 1); }), raised);
   EXPECT_EQ(Failure([&] { _tm->regReadArray("A", 1); }), raised);
   EXPECT_EQ(Failure([&] { _tm->regWriteArray("A", bytesOf({1})); }), raised);
   EXPECT_TRUE(error());
   EXPECT_THAT(helper->results, IsEmpty()) << "the exception is the result";
}

TEST_F(TransportMethodTest, AnExceptionOfAnotherKindPassesThrough) {
   FakeTransport* fake = fakeIs();
   const auto helper = helperIs();
   fake->onAccess = [] { throw std::logic_error("bug"); };
   EXPECT_THROW(_tm->regRead("A"), std::logic_error);
   EXPECT_THROW(_tm->regWrite("A", 1), std::logic_error);
   EXPECT_THROW(_tm->regReadArray("A", 1), std::logic_error);
   EXPECT_THROW(_tm->regWriteArray("A", bytesOf({1})), std::logic_error);
   EXPECT_FALSE(error());
   EXPECT_THAT(helper->results, IsEmpty());
   EXPECT_THAT(_trace.texts(), IsEmpty());
}

// --- The async helper

TEST_F(TransportMethodTest, TheHelperIsToldOfEveryResult) {
   FakeTransport* fake = fakeIs();
   const auto helper = helperIs();
   fake->value = 42;
   EXPECT_EQ(_tm->regRead("A"), 42u);
   _tm->regWrite("B", 7);
   EXPECT_THAT(helper->results, ElementsAre("read A Success 42", "write B Success"));
}

TEST_F(TransportMethodTest, TheHelperIsToldOfAFailedReadWithAllOnes) {
   FakeTransport* fake = fakeIs();
   const auto helper = helperIs();
   fake->onAccess = [] { throw std::runtime_error("x"); };
   _tm->regRead("A");
   _tm->regWrite("A", 7);
   EXPECT_THAT(helper->results, ElementsAre("read A Error 4294967295", "write A Error"));
}

TEST_F(TransportMethodTest, AfterAFailureEveryResultIsAnErrorUntilTheFlagIsCleared) {
   FakeTransport* fake = fakeIs();
   const auto helper = helperIs();
   fake->value = 5;
   fake->onAccess = [] { throw std::runtime_error("x"); };
   _tm->regRead("A");
   fake->onAccess = {};
   EXPECT_EQ(_tm->regRead("A"), 5u);
   _tm->regWrite("A", 1);
   EXPECT_TRUE(error()) << "never cleared here";
   _tm->errorNotifier()->errorIs(false);
   _tm->regRead("A");
   _tm->regWrite("A", 1);
   EXPECT_THAT(helper->results,
               ElementsAre("read A Error 4294967295", "read A Error 5", "write A Error",
                           "read A Success 5", "write A Success"));
}

TEST_F(TransportMethodTest, ARemovedHelperIsToldNothing) {
   fakeIs();
   const auto helper = helperIs();
   _tm->asyncHelperIs(nullptr);
   _tm->regRead("A");
   _tm->regWrite("A", 1);
   EXPECT_THAT(helper->results, IsEmpty());
   EXPECT_EQ(helper->refCount(), 1u);
}

TEST_F(TransportMethodTest, ANewHelperReplacesTheOld) {
   fakeIs();
   const auto first = helperIs();
   const auto second = helperIs();
   _tm->regRead("A");
   EXPECT_THAT(first->results, IsEmpty());
   EXPECT_THAT(second->results, ElementsAre("read A Success 0"));
}

TEST_F(TransportMethodTest, AHelperMayRemoveItself) {
   fakeIs();
   auto helper = helperIs();
   RecordingAsyncHelper* raw = helper.get();
   raw->onResult = [&] { _tm->asyncHelperIs(nullptr); };
   helper.reset(); // the transport's is the last reference
   const int alive = RecordingAsyncHelper::alive;
   EXPECT_EQ(_tm->regRead("A"), 0u);
   EXPECT_EQ(RecordingAsyncHelper::alive, alive - 1);
   _tm->regWrite("A", 1);
   EXPECT_THAT(*_journal, ElementsAre("read A", "write A 1"));
}

TEST_F(TransportMethodTest, AHelperMayDestroyTheTransport) {
   FakeTransport* fake = fakeIs();
   fake->value = 3;
   const auto helper = helperIs();
   helper->onResult = [&] { _tm->handleDeletion(); };
   EXPECT_EQ(_tm->regRead("A"), 3u);
   EXPECT_THAT(*_journal, ElementsAre("read A", "destroyed"));
   fakeWithoutDescriptorIs();
   _tm->asyncHelperIs(helper);
   _tm->regWrite("A", 1);
   EXPECT_THAT(helper->results, ElementsAre("read A Success 3", "write A Success"));
}

TEST_F(TransportMethodTest, AHelperMayDropTheLastReferenceToTheEntity) {
   for (const bool write : {false, true}) {
      _journal->clear();
      _tm = transportMethodFactory("chip");
      FakeTransport* fake = fakeIs();
      fake->value = 3;
      const auto helper = helperIs();
      helper->onResult = [&] { _tm.reset(); };
      const Platform::WeakPtr<TransportMethod> watched(_tm);
      TransportMethod* raw = _tm.get();
      if (write) {
         raw->regWrite("A", 1);
      } else {
         EXPECT_EQ(raw->regRead("A"), 3u);
      }
      EXPECT_EQ(watched.lock(), nullptr);
      EXPECT_EQ(_journal->back(), "destroyed");
   }
}

TEST_F(TransportMethodTest, AHelperMayAccessAgain) {
   fakeIs();
   const auto helper = helperIs();
   helper->onResult = [&] {
      if (helper->results.size() < 3) {
         _tm->regWrite("B", static_cast<std::uint32_t>(helper->results.size()));
      }
   };
   _tm->regRead("A");
   EXPECT_THAT(*_journal, ElementsAre("read A", "write B 1", "write B 2"));
}

TEST_F(TransportMethodTest, WhatAHelperThrowsReachesTheCallerUnrecorded) {
   fakeIs();
   const auto helper = helperIs();
   helper->onResult = [] { throw std::runtime_error("helper's own"); };
   EXPECT_THROW(_tm->regRead("A"), std::runtime_error);
   EXPECT_THROW(_tm->regWrite("A", 1), std::runtime_error);
   EXPECT_FALSE(error());
   EXPECT_THAT(_trace.texts(), IsEmpty());
}

TEST_F(TransportMethodTest, AnObserverOfTheFlagMayDestroyTheTransport) {
   FakeTransport* fake = fakeIs();
   const auto helper = helperIs();
   fake->onAccess = [] { throw std::runtime_error("x"); };
   ChangeLog log(*_tm->errorNotifier(), [&] { _tm->handleDeletion(); });
   EXPECT_EQ(_tm->regRead("A"), failed);
   EXPECT_THAT(*_journal, ElementsAre("read A", "destroyed"));
   EXPECT_THAT(helper->results, IsEmpty()) << "the transport that held it has gone";

   _tm->errorNotifier()->errorIs(false);
   fake = fakeWithoutDescriptorIs();
   fake->onAccess = [] { throw std::runtime_error("x"); };
   _tm->regWrite("A", 1);
   EXPECT_EQ(_journal->back(), "destroyed");
}

TEST_F(TransportMethodTest, AnObserverOfTheFlagMayDropTheLastReferenceToTheEntity) {
   FakeTransport* fake = fakeIs();
   fake->onAccess = [] { throw std::runtime_error("x"); };
   ChangeLog log(*_tm->errorNotifier(), [&] { _tm.reset(); });
   TransportMethod* raw = _tm.get();
   EXPECT_EQ(raw->regRead("A"), failed);
   EXPECT_THAT(*_journal, ElementsAre("read A", "destroyed"));
}

TEST_F(TransportMethodTest, AnObserverMayReplaceTheTransport) {
   FakeTransport* fake = fakeIs();
   fake->onAccess = [] { throw std::runtime_error("x"); };
   ChangeLog log(*_tm->errorNotifier(), [&] {
      _tm->handleDeletion();
      fakeWithoutDescriptorIs();
   });
   EXPECT_EQ(_tm->regRead("A"), failed);
   EXPECT_EQ(_tm->regRead("A"), 0u);
   EXPECT_THAT(*_journal, ElementsAre("read A", "destroyed", "read A"));
}

TEST_F(TransportMethodTest, WhatAnObserverThrowsReachesTheCaller) {
   FakeTransport* fake = fakeIs();
   fake->onAccess = [] { throw std::runtime_error("x"); };
   ChangeLog log(*_tm->errorNotifier(), [] { throw std::domain_error("observer's own"); });
   EXPECT_THROW(_tm->regRead("A"), std::domain_error);
   EXPECT_TRUE(error());
}

// --- Asynchronous transports

TEST_F(TransportMethodTest, AnAsynchronousReadReturnsWhatTheTransportDoesAndTellsNobody) {
   fakeIs(TransportProtocol::sornAsync);
   const auto helper = helperIs();
   EXPECT_EQ(_tm->regRead("A"), 0u);
   _tm->regWrite("A", 1);
   EXPECT_THAT(*_journal, ElementsAre("read A", "write A 1"));
   EXPECT_THAT(helper->results, IsEmpty());
}

TEST_F(TransportMethodTest, AFailedSubmissionIsToldAtOnce) {
   FakeTransport* fake = fakeIs(TransportProtocol::sornAsync);
   const auto helper = helperIs();
   fake->onAccess = [] { throw std::runtime_error("unknown"); };
   EXPECT_EQ(_tm->regRead("A"), failed);
   _tm->regWrite("A", 1);
   EXPECT_THAT(helper->results, ElementsAre("read A Error 4294967295", "write A Error"));
   // As long as the flag is set also what was submitted is.
   fake->onAccess = {};
   EXPECT_EQ(_tm->regRead("A"), 0u);
   EXPECT_EQ(helper->results.back(), "read A Error 0");
}

TEST_F(TransportMethodTest, ArraysOfAnAsynchronousTransportAreRefused) {
   fakeIs(TransportProtocol::sornAsync);
   const Failure refused = Failure::system(EBUSY, "No async API for reg array block access.");
   const auto failureOf = [](const std::function<void()>& body) {
      return Failure([&] {
         errno = EBUSY;
         body();
      });
   };
   EXPECT_EQ(failureOf([&] { _tm->regReadArray("A", 1); }), refused);
   EXPECT_EQ(failureOf([&] { _tm->regReadArray("A", 0xffffffff); }), refused)
      << "before any buffer is allocated";
   EXPECT_EQ(failureOf([&] { _tm->regWriteArray("A", bytesOf({1})); }), refused);
   EXPECT_EQ(failureOf([&] { _tm->regWriteArray("A", Bytes(6)); }), refused)
      << "before the size is looked at";
   EXPECT_THAT(*_journal, IsEmpty());
   EXPECT_FALSE(error());
}

// --- Without a descriptor

TEST_F(TransportMethodTest, WithoutADescriptorAnAccessIsMadeAndThenFails) {
   fakeWithoutDescriptorIs();
   const auto helper = helperIs();
   const Failure notInit = Failure::system(EBUSY, "TransportMethod not initialized");
   const auto failureOf = [](const std::function<void()>& body) {
      return Failure([&] {
         errno = EBUSY;
         body();
      });
   };
   EXPECT_EQ(failureOf([&] { _tm->regRead("A"); }), notInit);
   EXPECT_EQ(failureOf([&] { _tm->regWrite("A", 5); }), notInit);
   EXPECT_THAT(*_journal, ElementsAre("read A", "write A 5"));
   EXPECT_THAT(helper->results, IsEmpty());
   _journal->clear();
   EXPECT_EQ(failureOf([&] { _tm->regReadArray("A", 1); }), notInit);
   EXPECT_EQ(failureOf([&] { _tm->regWriteArray("A", bytesOf({1})); }), notInit);
   EXPECT_EQ(failureOf([&] { _tm->regWriteArray("A", Bytes(6)); }), notInit);
   EXPECT_THAT(*_journal, IsEmpty());
}

TEST_F(TransportMethodTest, WithoutADescriptorAFailedAccessFailsLikewise) {
   FakeTransport* fake = fakeWithoutDescriptorIs();
   _tm->errorNotifierIs("chip");
   fake->onAccess = [] { throw std::runtime_error("x"); };
   EXPECT_EQ(Failure([&] { _tm->regRead("A"); }).kind, "system error");
   EXPECT_TRUE(error());
}

// --- Arrays

TEST_F(TransportMethodTest, ReadsAnArrayInHostByteOrder) {
   FakeTransport* fake = fakeIs();
   const auto helper = helperIs();
   fake->value = 0x01020304;
   EXPECT_EQ(_tm->regReadArray("A", 3), bytesOf({0x01020304, 0x01020305, 0x01020306}));
   EXPECT_THAT(*_journal, ElementsAre("read A x3"));
   EXPECT_THAT(helper->results, IsEmpty()) << "no helper is called";
}

TEST_F(TransportMethodTest, ReadsAnArrayOfNothing) {
   fakeIs();
   EXPECT_EQ(_tm->regReadArray("A", 0), Bytes());
   EXPECT_THAT(*_journal, ElementsAre("read A x0"));
}

TEST_F(TransportMethodTest, AFailedArrayReadReturnsZerosWhereNothingWasStored) {
   FakeTransport* fake = fakeIs();
   const auto helper = helperIs();
   fake->onAccess = [] { throw std::runtime_error("x"); };
   EXPECT_EQ(_tm->regReadArray("A", 2), bytesOf({0, 0}));
   EXPECT_TRUE(error());
   EXPECT_EQ(_trace.texts()[0], "TransportMethod error on register 'A': x");
   EXPECT_THAT(helper->results, IsEmpty());
}

TEST_F(TransportMethodTest, AnArrayReadThatFailsHalfwayKeepsWhatWasRead) {
   class Halfway : public FakeTransport {
   public:
      using FakeTransport::FakeTransport;
      void regReadBlock(const char*, std::uint32_t* buffer, std::uint32_t) override {
         buffer[0] = 77;
         throw std::runtime_error("x");
      }
   };
   fakeIs();
   _tm->handleDeletion();
   _tm->implPtrIs(new Halfway(model(), _journal));
   EXPECT_EQ(_tm->regReadArray("A", 3), bytesOf({77, 0, 0}));
}

// A size that wrapped around would be too small for what the transport stores.
TEST_F(TransportMethodTest, AnArrayWhoseSizeDoesNotFitInThirtyTwoBitsIsRefused) {
   fakeIs();
   for (const std::uint32_t count : {0x40000000u, 0x40000001u, 0xffffffffu}) {
      EXPECT_EQ(Failure([&] { _tm->regReadArray("A", count); }).code, EOVERFLOW);
   }
   EXPECT_THAT(*_journal, IsEmpty());
   EXPECT_FALSE(error());
}

TEST_F(TransportMethodTest, WritesAnArray) {
   fakeIs();
   const auto helper = helperIs();
   _tm->regWriteArray("B", bytesOf({1, 0xffffffff, 3}));
   EXPECT_THAT(*_journal, ElementsAre("write B x3: 1 4294967295 3"));
   EXPECT_THAT(helper->results, IsEmpty());
}

TEST_F(TransportMethodTest, WritesAnArrayOfNothing) {
   fakeIs();
   _tm->regWriteArray("B", Bytes());
   EXPECT_THAT(*_journal, ElementsAre("write B x0:"));
}

TEST_F(TransportMethodTest, ABufferThatIsNoWholeNumberOfWordsIsRefused) {
   fakeIs();
   for (const std::size_t size : {1u, 2u, 3u, 5u, 6u, 7u, 4095u}) {
      EXPECT_EQ(Failure([&] {
                   errno = EBUSY;
                   _tm->regWriteArray("B", Bytes(size));
                }),
                Failure::system(EBUSY, "Buffer does not contain a whole number of uint32_ts"));
   }
   EXPECT_THAT(*_journal, IsEmpty());
   EXPECT_FALSE(error());
   EXPECT_THAT(_trace.texts(), IsEmpty());
}

TEST_F(TransportMethodTest, AFailedArrayWriteSetsTheFlag) {
   FakeTransport* fake = fakeIs();
   fake->onAccess = [] { throw Hardware::SigbusException(); };
   _tm->regWriteArray("B", bytesOf({1}));
   EXPECT_TRUE(error());
}

TEST_F(TransportMethodTest, ArraysGoThroughTheMock) {
   _tm->init(mockTransportDescriptorFactory(), _csv);
   _tm->regWriteArray("B[0]", bytesOf({1, 2, 3}));
   EXPECT_EQ(_tm->regRead("B[1]"), 2u);
   EXPECT_EQ(_tm->regReadArray("A", 4), bytesOf({0, 1, 2, 3}));
   EXPECT_EQ(_tm->regReadArray("NOPE", 2), bytesOf({0, 0}));
   EXPECT_TRUE(error());
}

using TransportMethodDeathTest = TransportMethodTest;

TEST_F(TransportMethodDeathTest, ATransportWithoutBlockAccessIsNotAskedForArrays) {
   class Plain : public BaseTransportMethodImpl {
   public:
      using BaseTransportMethodImpl::BaseTransportMethodImpl;
      std::uint32_t regRead(const char*) override { return 0; }
      void regWrite(const char*, std::uint32_t) override {}
   };
   fakeIs();
   _tm->handleDeletion();
   _tm->implPtrIs(new Plain("", 1, model()));
   EXPECT_DEATH(_tm->regReadArray("A", 1), testing::HasSubstr("false && \"Unimplemented\""));
   EXPECT_DEATH(_tm->regWriteArray("A", Bytes()), testing::HasSubstr("false && \"Unimplemented\""));
}

// --- Queries

TEST_F(TransportMethodTest, AnswersFromTheRegisterList) {
   fakeIs();
   EXPECT_EQ(_tm->getRegArraySize("A"), 1u);
   EXPECT_EQ(_tm->getRegArraySize("B"), 3u);
   EXPECT_EQ(_tm->regNameToAddr("B"), 8u);
   EXPECT_EQ(_tm->regAddrToName(8), "B");
   EXPECT_TRUE(_tm->hasRegName("A"));
   EXPECT_FALSE(_tm->hasRegName("NOPE"));
   const auto list = _tm->regList();
   EXPECT_EQ(list->size(), 3u);
   EXPECT_EQ(list->reg(8).name, "B");
   EXPECT_THAT(*_journal, IsEmpty()) << "no bus access";
}

TEST_F(TransportMethodTest, FailedLookUpsPassOnUnguarded) {
   fakeIs();
   const Failure noName = Failure::generic(ENOENT, "RegisterFile does not have register 'NOPE'");
   EXPECT_EQ(Failure([&] { _tm->getRegArraySize("NOPE"); }), noName);
   EXPECT_EQ(Failure([&] { _tm->regNameToAddr("NOPE"); }), noName);
   EXPECT_EQ(Failure([&] { _tm->regAddrToName(4096); }),
             Failure::generic(ENOENT, "RegisterFile does not have address: 4096"));
   EXPECT_FALSE(error());
   EXPECT_THAT(_trace.texts(), IsEmpty());
}

TEST_F(TransportMethodTest, QueriesNeedNoDescriptor) {
   fakeWithoutDescriptorIs();
   EXPECT_EQ(_tm->regNameToAddr("A"), 4u);
   EXPECT_TRUE(_tm->hasRegName("A"));
}

TEST_F(TransportMethodTest, DumpsThroughTheTransportAndUnguarded) {
   FakeTransport* fake = fakeIs();
   fake->value = 0x1f;
   testing::internal::CaptureStderr();
   _tm->dumpAll();
   const std::string blanks(59, ' ');
   EXPECT_EQ(testing::internal::GetCapturedStderr(),
             "C" + blanks + " 0x1f\nA" + blanks + " 0x1f\nB" + blanks + " 0x1f\n");
   fake->onAccess = [] { throw std::runtime_error("x"); };
   testing::internal::CaptureStderr();
   EXPECT_THROW(_tm->dumpAll(), std::runtime_error);
   EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
   EXPECT_FALSE(error());
   EXPECT_THAT(_trace.texts(), IsEmpty());
}

// --- handleExceptionGeneric on its own

TEST_F(TransportMethodTest, AFailureOutsideOfAnAccessIsRecordedToo) {
   _tm->init(mockTransportDescriptorFactory(), _csv);
   ChangeLog log(*_tm->errorNotifier());
   _tm->handleExceptionGeneric();
   EXPECT_TRUE(error());
   _tm->raiseExceptionOnErrorIs(true);
   EXPECT_EQ(Failure([&] {
                errno = ENODEV;
                _tm->handleExceptionGeneric();
             }),
             Failure::errnoException(ENODEV));
   EXPECT_THAT(log.changes, ElementsAre("error"));
   EXPECT_THAT(_trace.texts(),
               ElementsAre("TransportMethod exception caught, Notifying agent: chip",
                           "TransportMethod exception caught, Notifying agent: chip"));
   EXPECT_EQ(_trace.records()[0], (Platform::Trace::CaptureSink::Entry{
                                     "TarnRegFile/TransportMethod", "handleExceptionGeneric", 0,
                                     "TransportMethod exception caught, Notifying agent: chip"}));
}

// --- By handle

TEST_F(TransportMethodTest, AHandleAccessesItsRegister) {
   _tm->init(mockTransportDescriptorFactory(), _csv);
   const auto a = _tm->regHandle("A");
   EXPECT_EQ(a.name(), "A");
   EXPECT_EQ(a.record(), _tm->regFileHelper()->findRegisterByName("A"));
   _tm->regWriteByHandle(a, 21);
   EXPECT_EQ(_tm->regRead("A"), 21u);
   _tm->regWrite("A", 22);
   EXPECT_EQ(_tm->regReadByHandle(a), 22u);
   const auto copy = a;
   EXPECT_EQ(_tm->regReadByHandle(copy), 22u);
}

TEST_F(TransportMethodTest, WithoutATransportThereAreNoHandles) {
   const Failure refused = Failure::generic(ENODEV, notInitialised);
   EXPECT_EQ(Failure([&] { _tm->regHandle("A"); }), refused);
   _tm->init(mockTransportDescriptorFactory(), _csv);
   const auto handle = _tm->regHandle("A");
   _tm->handleDeletion();
   EXPECT_EQ(Failure([&] { _tm->regHandle("A"); }), refused);
   EXPECT_EQ(Failure([&] { _tm->regReadByHandle(handle); }), refused);
   EXPECT_EQ(Failure([&] { _tm->regWriteByHandle(handle, 1); }), refused);
}

TEST_F(TransportMethodTest, AHandleIsGoodForTheTransportItWasMadeWith) {
   const Failure foreign =
      Failure::generic(EINVAL, "Handle of register 'A' is not of this TransportMethod's transport");
   _tm->init(mockTransportDescriptorFactory(), _csv);
   const auto handle = _tm->regHandle("A");
   const auto other = transportMethodFactory("chip");
   other->init(mockTransportDescriptorFactory(), _csv);
   EXPECT_EQ(Failure([&] { other->regReadByHandle(handle); }), foreign);
   EXPECT_EQ(Failure([&] { other->regWriteByHandle(handle, 1); }), foreign);
   EXPECT_EQ(Failure([&] { _tm->regReadByHandle({}); }),
             Failure::generic(EINVAL, "Handle is of no register"));
   EXPECT_EQ(Failure([&] { _tm->regWriteByHandle({}, 1); }),
             Failure::generic(EINVAL, "Handle is of no register"));
   _tm->handleDeletion();
   _tm->init(mockTransportDescriptorFactory(), _csv);
   EXPECT_EQ(Failure([&] { _tm->regReadByHandle(handle); }), foreign);
   EXPECT_EQ(_tm->regRead("A"), 0u);
   EXPECT_EQ(Failure([&] { _tm->regReadByHandle(_tm->regHandle("A")); }), Failure::none());
   EXPECT_FALSE(_tm->errorNotifier()->error());
}

TEST_F(TransportMethodTest, AHandleOutlivesItsTransportMethodWithoutHarm) {
   TarnRegFile::RegisterHandle handle;
   {
      const auto gone = transportMethodFactory("gone");
      gone->init(mockTransportDescriptorFactory(), _csv);
      handle = gone->regHandle("A");
   }
   _tm->init(mockTransportDescriptorFactory(), _csv);
   EXPECT_EQ(Failure([&] { _tm->regReadByHandle(handle); }).code, EINVAL);
   EXPECT_EQ(handle.name(), "A");
}

TEST_F(TransportMethodTest, AListThatIsChangedElsewhereLeavesAHandleGood) {
   const auto list = model();
   const auto journal = std::make_shared<Journal>();
   _tm->fullInit(mockTransportDescriptorFactory(), TransportMethodRegFile(list));
   _tm->handleDeletion();
   _tm->implPtrIs(new FakeTransport(list, journal));
   const auto handle = _tm->regHandle("A");
   for (std::uint32_t i = 0; i < 1000; ++i) {
      const auto record = reg("NEW" + std::to_string(i), 100 + i);
      list->nameToRegMapIs(record.name, record);
      _tm->regReadByHandle(handle);
   }
   EXPECT_THAT(*journal, testing::SizeIs(1000));
   EXPECT_THAT(*journal, testing::Each("read A"));
   // Another list, and the same register.
   _tm->regFileHelper()->init("", 1, model());
   EXPECT_EQ(Failure([&] { _tm->regReadByHandle(handle); }), Failure::none());
   EXPECT_THAT(*journal, testing::SizeIs(1001));
   EXPECT_FALSE(_tm->errorNotifier()->error());
}

TEST_F(TransportMethodTest, ARegisterThatIsChangedOrGoneMakesItsHandleStale) {
   const Failure stale = Failure::generic(
      ESTALE, "Register 'A' has changed in the register list since its handle was made");
   const auto list = model();
   const auto journal = std::make_shared<Journal>();
   _tm->fullInit(mockTransportDescriptorFactory(), TransportMethodRegFile(list));
   _tm->handleDeletion();
   _tm->implPtrIs(new FakeTransport(list, journal));
   const auto a = _tm->regHandle("A");
   const auto b = _tm->regHandle("B");
   list->nameToRegMapIs("A", reg("A", 5));
   EXPECT_EQ(Failure([&] { _tm->regReadByHandle(a); }), stale);
   EXPECT_EQ(Failure([&] { _tm->regWriteByHandle(a, 1); }), stale);
   EXPECT_EQ(Failure([&] { _tm->regReadByHandle(b); }), Failure::none());
   EXPECT_EQ(Failure([&] { _tm->regReadByHandle(a); }), stale) << "also after another was good";
   EXPECT_THAT(*journal, ElementsAre("read B"));
   // As it was: good again.
   list->nameToRegMapIs("A", reg("A", 4));
   EXPECT_EQ(Failure([&] { _tm->regReadByHandle(a); }), Failure::none());
   const auto without = hardwareRegisterFileFactory("without");
   without->nameToRegMapIs("B", reg("B", 8, 3));
   _tm->regFileHelper()->init("", 1, without);
   EXPECT_EQ(Failure([&] { _tm->regReadByHandle(a); }), stale);
   EXPECT_FALSE(_tm->errorNotifier()->error());
   EXPECT_THAT(*journal, ElementsAre("read B", "read A"));
}

TEST_F(TransportMethodTest, ByHandleASubclassIsAskedByName) {
   class Doubling : public TransportMethod {
   public:
      using TransportMethod::TransportMethod;
      std::uint32_t regRead(const TarnRegFile::String& regName) override {
         return 2 * TransportMethod::regRead(regName);
      }
      void regWrite(const TarnRegFile::String& regName, std::uint32_t value) override {
         TransportMethod::regWrite(regName, value + 1);
      }
   };
   Ptr<TransportMethod> tm = Platform::make<Doubling>("chip");
   tm->init(mockTransportDescriptorFactory(), _csv);
   const auto handle = tm->regHandle("A");
   tm->regWriteByHandle(handle, 20);
   EXPECT_EQ(tm->regReadByHandle(handle), 42u);
}

TEST_F(TransportMethodTest, ByHandleATransportOfSomebodyElsesIsAskedByName) {
   class Shouting : public TarnRegFile::MockTransportMethodImpl {
   public:
      using MockTransportMethodImpl::MockTransportMethodImpl;
      std::uint32_t regRead(const char*) override { return 1234; }
   };
   _tm->init(mockTransportDescriptorFactory(), _csv);
   _tm->handleDeletion();
   _tm->implPtrIs(new Shouting(_csv.c_str(), nullptr));
   EXPECT_EQ(_tm->regReadByHandle(_tm->regHandle("A")), 1234u) << "derived from one of ours";
   _tm->handleDeletion();
   const auto journal = std::make_shared<Journal>();
   _tm->implPtrIs(new FakeTransport(model(), journal));
   _tm->regWriteByHandle(_tm->regHandle("A"), 7);
   EXPECT_THAT(*journal, ElementsAre("write A 7"));
}

TEST_F(TransportMethodTest, AnObserverMayLetTheTransportGoDuringAnAccessByHandle) {
   _tm->init(mockTransportDescriptorFactory(), _csv);
   const auto helper = Platform::make<RecordingAsyncHelper>();
   _tm->asyncHelperIs(helper);
   const auto handle = _tm->regHandle("A");
   helper->onResult = [&] { _tm->handleDeletion(); };
   EXPECT_EQ(_tm->regReadByHandle(handle), 0u);
   EXPECT_THAT(helper->results, ElementsAre("read A Success 0"));
   EXPECT_EQ(Failure([&] { _tm->regReadByHandle(handle); }),
             Failure::generic(ENODEV, notInitialised));
}

} // namespace
