// What every transport does alike, whatever its bus. Each case also says what the device has seen.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/trace/CaptureScope.h"
#include "tests/contract/I2cAdapter.h"
#include "tests/contract/MockAdapter.h"
#include "tests/contract/PciAdapter.h"
#include "tests/contract/SmbusAdapter.h"
#include "tests/contract/SpiAdapter.h"
#include "tests/contract/TransportAdapter.h"
#include "tests/support/Failure.h"
#include "tests/support/RecordingAsyncHelper.h"
#include "tests/support/TempDir.h"

namespace {

using Contract::Transport;
using Contract::TransportAdapter;
using TarnRegFile::Bytes;
using TarnRegFile::Ptr;
using TarnRegFile::TransportMethod;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;
using TestSupport::Failure;
using TestSupport::RecordingAsyncHelper;

const Transport transports[] = {
   {"Mock", [] { return std::make_unique<Contract::MockAdapter>(); }},
   {"Pci", [] { return std::make_unique<Contract::PciAdapter>(); }},
   {"Spi", [] { return std::make_unique<Contract::SpiAdapter>(); }},
   {"I2cBlocks",
    [] { return std::make_unique<Contract::I2cAdapter>(TarnRegFile::I2cFlavour::dataBlock); }},
   {"I2cWords",
    [] { return std::make_unique<Contract::I2cAdapter>(TarnRegFile::I2cFlavour::dataWord); }},
   {"SmbusFlavour1",
    [] {
       return std::make_unique<Contract::SmbusAdapter>(
          TarnRegFile::TransportFlavour::nimboSmbusFlavour1);
    }},
   {"SmbusFlavour2",
    [] {
       return std::make_unique<Contract::SmbusAdapter>(
          TarnRegFile::TransportFlavour::nimboSmbusFlavour2);
    }},
};

constexpr const char* list = "number,name,type,writeable,width\n"
                             "9,CTRL,control,true,32\n"
                             "1,ID,id,false,32\n"
                             "16,CNT[0:3],counter,true,32\n"
                             "5,MODE,cfg,true,32\n";
constexpr std::uint32_t id = 1;
constexpr std::uint32_t ctrl = 9;
constexpr std::uint32_t cnt = 16;

constexpr std::uint32_t failed = 0xFFFFFFFF;

Bytes bytesOf(std::initializer_list<std::uint32_t> words) {
   Bytes bytes(words.size() * 4);
   std::memcpy(bytes.data(), words.begin(), bytes.size());
   return bytes;
}

class TransportContract : public testing::TestWithParam<Transport> {
protected:
   void open() {
      tm = device->open(TarnRegFile::TransportMethodRegFile(dir.write("list.csv", list)));
      trace.clear();
   }

   bool error() const { return tm->errorNotifier()->error(); }
   void errorCleared() {
      tm->errorNotifier()->errorIs(false);
      trace.clear();
   }

   bool canRead() const { return device->traits.canRead; }
   bool hasBlock() const { return device->traits.hasBlock; }

   std::vector<std::string> seen() const { return device->journal(); }

   TestSupport::TempDir dir;
   Platform::Trace::CaptureScope trace{"*=1"};
   std::unique_ptr<TransportAdapter> device = GetParam().make();
   Ptr<TransportMethod> tm;
};

INSTANTIATE_TEST_SUITE_P(All, TransportContract, testing::ValuesIn(transports),
                         [](const auto& transport) { return std::string(transport.param.name); });

using TransportContractDeathTest = TransportContract;
INSTANTIATE_TEST_SUITE_P(All, TransportContractDeathTest, testing::ValuesIn(transports),
                         [](const auto& transport) { return std::string(transport.param.name); });

// --- The register list

TEST_P(TransportContract, OpeningTouchesNothing) {
   open();
   device->settle();
   EXPECT_THAT(seen(), IsEmpty());
   EXPECT_FALSE(error());
   EXPECT_FALSE(tm->isAsync());
}

TEST_P(TransportContract, NamesAreResolvedWithoutTheDevice) {
   open();
   const std::uint32_t units = device->traits.addressUnits;
   EXPECT_EQ(tm->regNameToAddr("CTRL"), ctrl * units);
   EXPECT_EQ(tm->regNameToAddr("CNT[3]"), (cnt + 3) * units);
   EXPECT_EQ(tm->regAddrToName(id * units), "ID");
   EXPECT_EQ(tm->getRegArraySize("CNT[0]"), 4u);
   EXPECT_TRUE(tm->hasRegName("MODE"));
   EXPECT_FALSE(tm->hasRegName("NOPE"));
   EXPECT_EQ(tm->regList()->size(), 7u);
   EXPECT_EQ(Failure([&] { tm->regNameToAddr("NOPE"); }),
             Failure::generic(ENOENT, "RegisterFile does not have register 'NOPE'"));
   device->settle();
   EXPECT_THAT(seen(), IsEmpty());
   EXPECT_FALSE(error());
}

TEST_P(TransportContract, AModelServesAsWellAsAList) {
   const auto numbered = Hardware::hardwareRegisterFileFactory("numbered");
   TarnRegFile::HardwareRegister record;
   record.name = "CTRL";
   record.address = ctrl;
   record.width = 32;
   record.arraySize = 1;
   numbered->nameToRegMapIs(record.name, record);
   tm = device->open(TarnRegFile::TransportMethodRegFile(numbered));
   EXPECT_EQ(tm->regNameToAddr("CTRL"), ctrl * device->traits.addressUnits);
   tm->regWrite("CTRL", 0x1234);
   device->settle();
   EXPECT_EQ(device->value(ctrl), 0x1234u);
   EXPECT_FALSE(error());
}

// --- Accesses

TEST_P(TransportContract, AWriteReachesItsRegisterAndNoOther) {
   open();
   tm->regWrite("CTRL", 0x1234);
   device->settle();
   EXPECT_THAT(seen(), testing::Not(IsEmpty()));
   EXPECT_EQ(device->value(ctrl), 0x1234u);
   for (const std::uint32_t number : {0u, id, ctrl - 1, ctrl + 1, cnt}) {
      EXPECT_EQ(device->value(number), 0u) << number;
   }
   EXPECT_FALSE(error());
   if (device->traits.everyAccessIsSeen) {
      EXPECT_THAT(seen(), SizeIs(1));
      tm->regWrite("CTRL", 0x1234);
      device->settle();
      EXPECT_THAT(seen(), SizeIs(2)) << "the same value again is written again";
   }
}

TEST_P(TransportContract, AReadGivesWhatTheDeviceHas) {
   device->valueIs(id, 0xbeef);
   open();
   if (!canRead()) {
      EXPECT_EQ(tm->regRead("ID"), failed);
      EXPECT_TRUE(error());
      device->settle();
      EXPECT_THAT(seen(), IsEmpty());
      return;
   }
   EXPECT_EQ(tm->regRead("ID"), 0xbeefu);
   EXPECT_FALSE(error());
   EXPECT_EQ(device->value(id), 0xbeefu);
   EXPECT_EQ(device->value(ctrl), 0u);
   if (device->traits.everyAccessIsSeen) {
      const std::size_t accesses = seen().size();
      EXPECT_GE(accesses, 1u);
      tm->regRead("ID");
      EXPECT_EQ(seen().size(), 2 * accesses) << "every read asks the device";
   }
}

TEST_P(TransportContract, WhatWasWrittenIsReadBack) {
   open();
   if (!canRead()) {
      GTEST_SKIP() << "nothing can be read";
   }
   for (const std::uint32_t value : {0u, 1u, 0x1234u, 0xffffu, 0u}) {
      tm->regWrite("CTRL", value);
      EXPECT_EQ(tm->regRead("CTRL"), value);
      EXPECT_EQ(device->value(ctrl), value);
   }
   EXPECT_FALSE(error());
}

TEST_P(TransportContract, WritesArriveInTheirOrder) {
   open();
   for (std::uint32_t i = 0; i < 4; ++i) {
      tm->regWrite("CNT[" + std::to_string(i) + "]", 10 + i);
   }
   tm->regWrite("CNT[0]", 20);
   device->settle();
   for (std::uint32_t i = 1; i < 4; ++i) {
      EXPECT_EQ(device->value(cnt + i), 10 + i);
   }
   EXPECT_EQ(device->value(cnt), 20u);
}

// --- Blocks

TEST_P(TransportContract, ABlockIsWrittenAndReadWordByWord) {
   open();
   if (!hasBlock()) {
      GTEST_SKIP() << "it has no blocks";
   }
   tm->regWriteArray("CNT[0]", bytesOf({1, 2, 3, 4}));
   device->settle();
   for (std::uint32_t i = 0; i < 4; ++i) {
      EXPECT_EQ(device->value(cnt + i), 1 + i);
   }
   EXPECT_EQ(device->value(cnt + 4), 0u);
   EXPECT_EQ(tm->regReadArray("CNT[0]", 4), bytesOf({1, 2, 3, 4}));
   EXPECT_EQ(tm->regReadArray("CNT[2]", 1), bytesOf({3}));
   EXPECT_EQ(tm->regReadArray("CNT[0]", 0), Bytes());
   EXPECT_FALSE(error());
}

TEST_P(TransportContract, ABlockAtAnUnknownNameTouchesNothing) {
   open();
   if (!hasBlock()) {
      GTEST_SKIP() << "it has no blocks";
   }
   EXPECT_EQ(tm->regReadArray("NOPE", 2), bytesOf({0, 0}));
   EXPECT_TRUE(error());
   errorCleared();
   tm->regWriteArray("NOPE", bytesOf({1}));
   EXPECT_TRUE(error());
   EXPECT_THAT(seen(), IsEmpty());
}

TEST_P(TransportContractDeathTest, WithoutBlocksBeingAskedForOneIsFatal) {
   open();
   if (hasBlock()) {
      GTEST_SKIP() << "it has blocks";
   }
   EXPECT_DEATH(tm->regReadArray("CNT[0]", 1),
                "regReadBlock.*assertion failed: false && \"Unimplemented\"");
   EXPECT_DEATH(tm->regWriteArray("CNT[0]", bytesOf({1})),
                "regWriteBlock.*assertion failed: false && \"Unimplemented\"");
   EXPECT_THAT(seen(), IsEmpty());
}

// --- Failures

TEST_P(TransportContract, AnUnknownNameIsToldAndTouchesNothing) {
   open();
   tm->regWrite("NOPE", 1);
   EXPECT_TRUE(error());
   EXPECT_THAT(trace.texts(),
               ElementsAre(StartsWith("TransportMethod error on register 'NOPE': RegisterFile does "
                                      "not have register 'NOPE'"),
                           "TransportMethod exception caught, Notifying agent: device"));
   errorCleared();
   EXPECT_EQ(tm->regRead("NOPE"), failed);
   EXPECT_TRUE(error());
   ASSERT_THAT(trace.texts(), SizeIs(2));
   // A transport that cannot read says that first.
   EXPECT_THAT(trace.texts()[0], HasSubstr(canRead() ? "RegisterFile does not have register 'NOPE'"
                                                     : "read not implemented"));
   device->settle();
   EXPECT_THAT(seen(), IsEmpty());
}

TEST_P(TransportContract, TheErrorFlagStaysUntilItIsCleared) {
   open();
   tm->regWrite("NOPE", 1);
   ASSERT_TRUE(error());
   tm->regWrite("CTRL", 7);
   device->settle();
   EXPECT_EQ(device->value(ctrl), 7u) << "accesses are made all the same";
   EXPECT_TRUE(error());
   errorCleared();
   tm->regWrite("CTRL", 8);
   device->settle();
   EXPECT_EQ(device->value(ctrl), 8u);
   EXPECT_FALSE(error());
   EXPECT_THAT(trace.texts(), IsEmpty());
}

TEST_P(TransportContract, AFailureIsRaisedOnlyIfAskedTo) {
   open();
   EXPECT_EQ(Failure([&] { tm->regWrite("NOPE", 1); }), Failure::none());
   errorCleared();
   tm->raiseExceptionOnErrorIs(true);
   EXPECT_EQ(Failure([&] { tm->regWrite("NOPE", 1); }).kind, "errno exception");
   EXPECT_EQ(Failure([&] { tm->regRead("NOPE"); }).kind, "errno exception");
   EXPECT_TRUE(error()) << "and is recorded as well";
   EXPECT_EQ(Failure([&] { tm->regWrite("CTRL", 7); }), Failure::none());
   device->settle();
   EXPECT_EQ(device->value(ctrl), 7u);
   tm->raiseExceptionOnErrorIs(false);
   EXPECT_EQ(Failure([&] { tm->regWrite("NOPE", 1); }), Failure::none());
}

TEST_P(TransportContract, ADeviceThatHasGoneFailsAccessesAndOneThatComesBackWorks) {
   open();
   if (!device->traits.canFail) {
      GTEST_SKIP() << "it never fails";
   }
   device->goneIs(true);
   EXPECT_EQ(tm->regRead("ID"), failed);
   EXPECT_TRUE(error());
   EXPECT_THAT(trace.texts()[0], AnyOf(StartsWith("TransportMethod error on register 'ID': "),
                                       "Got SIGBUS when performing operation on register 'ID'"));
   errorCleared();
   tm->regWrite("CTRL", 7);
   EXPECT_TRUE(error());
   errorCleared();
   tm->raiseExceptionOnErrorIs(true);
   EXPECT_EQ(Failure([&] { tm->regRead("ID"); }).kind, "errno exception");
   errorCleared();
   device->goneIs(false);
   EXPECT_EQ(device->value(ctrl), 0u) << "the failed write was not kept for later";
   tm->regWrite("CTRL", 8);
   EXPECT_EQ(tm->regRead("CTRL"), 8u);
   EXPECT_FALSE(error());
}

// --- Results

TEST_P(TransportContract, TheHelperIsToldOfEveryResult) {
   device->valueIs(id, 77);
   open();
   const auto helper = Platform::make<RecordingAsyncHelper>();
   tm->asyncHelperIs(helper);
   tm->regWrite("CTRL", 7);
   EXPECT_THAT(helper->results, ElementsAre("write CTRL Success"));
   helper->results.clear();
   tm->regRead("ID");
   EXPECT_THAT(helper->results,
               ElementsAre(canRead() ? "read ID Success 77" : "read ID Error 4294967295"));
   helper->results.clear();
   tm->regWrite("NOPE", 1);
   tm->regWrite("CTRL", 8);
   EXPECT_THAT(helper->results, ElementsAre("write NOPE Error", "write CTRL Error"))
      << "the flag is sticky";
   helper->results.clear();
   errorCleared();
   tm->regWrite("CTRL", 9);
   EXPECT_THAT(helper->results, ElementsAre("write CTRL Success"));
   helper->results.clear();
   tm->asyncHelperIs(nullptr);
   tm->regWrite("CTRL", 10);
   EXPECT_THAT(helper->results, IsEmpty());
   device->settle();
   EXPECT_EQ(device->value(ctrl), 10u);
}

TEST_P(TransportContract, ADumpPrintsAllButConfigurationByAddress) {
   device->valueIs(id, 0x1f);
   device->valueIs(ctrl, 0xabc);
   open();
   testing::internal::CaptureStderr();
   if (!canRead()) {
      EXPECT_THROW(tm->dumpAll(), std::system_error);
      EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
      EXPECT_THAT(seen(), IsEmpty());
      return;
   }
   tm->dumpAll();
   const auto line = [](const std::string& name, const std::string& value) {
      return name + std::string(60 - name.size(), ' ') + " " + value + "\n";
   };
   EXPECT_EQ(testing::internal::GetCapturedStderr(),
             line("ID", "0x1f") + line("CTRL", "0xabc") + line("CNT[0]", "0x0") +
                line("CNT[1]", "0x0") + line("CNT[2]", "0x0") + line("CNT[3]", "0x0"));
   EXPECT_FALSE(error());
}

// --- By handle

/// What is to be seen of a number of accesses, by name or by handle: values, failures, trace, flag,
/// what the helper was told and what the device has seen.
class Transcript {
public:
   Transcript(const Transport& transport, bool byHandle) : _byHandle(byHandle) {
      const auto model = Hardware::hardwareRegisterFileFactory("model");
      const auto add = [&](const std::string& name, const std::string& ownName,
                           std::uint32_t number, std::uint32_t width, std::uint32_t accessWidth) {
         TarnRegFile::HardwareRegister record;
         record.name = ownName;
         record.address = number;
         record.width = width;
         record.accessWidth = accessWidth;
         record.arraySize = 1;
         record.writable = number != id;
         model->nameToRegMapIs(name, record);
         _names.push_back(name);
      };
      add("ID", "ID", id, 32, 32);
      add("CTRL", "CTRL", ctrl, 32, 32);
      add("A_REGISTER_WITH_A_LONG_NAME", "A_REGISTER_WITH_A_LONG_NAME", cnt, 32, 32);
      add("BYTE", "BYTE", 3, 8, 32);
      add("HALF", "HALF", 4, 16, 32);
      add("BROKEN", "BROKEN", 5, 32, 16);
      add("FAR", "FAR", 0x12345, 32, 32);
      add("ALIAS", "OTHER", 6, 32, 32);
      _device = transport.make();
      _device->valueIs(id, 0xbeef);
      _device->valueIs(3, 0x7b);
      _device->valueIs(6, 0x1111);
      _tm = _device->open(TarnRegFile::TransportMethodRegFile(model));
      for (const std::string& name : _names) {
         _handles[name] = _tm->regHandle(name);
      }
      _trace.clear();
   }

   void allOf() {
      _helperIs(true);
      _eachOnce();
      _write("CTRL", 0x1234);
      _write("CTRL", 0x1234);
      _read("CTRL");
      for (const std::uint32_t value : {0x12345u, 0x12345678u, 0xffffffffu}) {
         _write("CTRL", value);
         _clear();
         _read("CTRL");
         _clear();
      }
      _tm->raiseExceptionOnErrorIs(true);
      _eachOnce();
      if (_device->traits.canFail) {
         _device->goneIs(true);
         _eachOnce();
         _tm->raiseExceptionOnErrorIs(false);
         _eachOnce();
         _clear();
         _device->goneIs(false);
      }
      _tm->raiseExceptionOnErrorIs(false);
      _eachOnce();
      _helperIs(false);
      _eachOnce();
      _clear();
      _write("CTRL", 7);
      _device->settle();
      lines.push_back("CTRL is " + std::to_string(_device->value(ctrl)));
      auto journal = _device->journal();
      if (!_device->traits.everyAccessIsSeen) {
         std::sort(journal.begin(), journal.end()); // lines of a file, in no particular order
      }
      lines.insert(lines.end(), journal.begin(), journal.end());
      _tm->handleDeletion();
      _read("CTRL");
      _write("CTRL", 1);
      _device->settle();
      lines.push_back(std::to_string(_device->journal().size()) + " lines in the journal");
   }

   std::vector<std::string> lines;

private:
   void _eachOnce() {
      for (const std::string& name : _names) {
         _read(name);
         _write(name, 0x55);
      }
   }

   void _read(const std::string& name) {
      std::uint32_t value = 0;
      const Failure failure(
         [&] { value = _byHandle ? _tm->regReadByHandle(_handles[name]) : _tm->regRead(name); });
      _note("read " + name + " " + std::to_string(value), failure);
   }

   void _write(const std::string& name, std::uint32_t value) {
      const Failure failure([&] {
         if (_byHandle) {
            _tm->regWriteByHandle(_handles[name], value);
         } else {
            _tm->regWrite(name, value);
         }
      });
      _note("write " + name + " " + std::to_string(value), failure);
   }

   void _note(const std::string& what, const Failure& failure) {
      _device->settle();
      std::ostringstream line;
      line << what << ": " << failure << (_tm->errorNotifier()->error() ? ", flag" : "");
      lines.push_back(line.str());
      // Where the device is differs from one adapter to the next, and transactions have random
      // numbers of one length or another.
      static const std::regex path("/[^ ]*/[^ ]*");
      static const std::regex size("[0-9]+ bytes");
      for (const std::string& text : _trace.texts()) {
         lines.push_back("   trace: " +
                         std::regex_replace(std::regex_replace(text, path, "PATH"), size, "bytes"));
      }
      _trace.clear();
      for (const std::string& result : _helper->results) {
         lines.push_back("   helper: " + result);
      }
      _helper->results.clear();
   }

   void _clear() { _tm->errorNotifier()->errorIs(false); }

   void _helperIs(bool installed) { _tm->asyncHelperIs(installed ? _helper : nullptr); }

   const bool _byHandle;
   Platform::Trace::CaptureScope _trace{"TarnRegFile/*=9,*=1"};
   std::unique_ptr<TransportAdapter> _device;
   Ptr<TransportMethod> _tm;
   Ptr<RecordingAsyncHelper> _helper = Platform::make<RecordingAsyncHelper>();
   std::vector<std::string> _names;
   std::map<std::string, TarnRegFile::RegisterHandle> _handles;
};

TEST_P(TransportContract, ByHandleAllIsAsByName) {
   device.reset(); // it may have the environment to itself
   std::vector<std::string> byName;
   {
      Transcript transcript(GetParam(), false);
      transcript.allOf();
      byName = std::move(transcript.lines);
   }
   Transcript transcript(GetParam(), true);
   transcript.allOf();
   EXPECT_GT(byName.size(), 80u);
   EXPECT_EQ(transcript.lines, byName);
}

TEST_P(TransportContract, AHandleIsMadeWithoutTheDevice) {
   open();
   const TarnRegFile::RegisterHandle handle = tm->regHandle("CNT[3]");
   EXPECT_EQ(handle.name(), "CNT[3]");
   EXPECT_EQ(handle.record().address, (cnt + 3) * device->traits.addressUnits);
   EXPECT_EQ(Failure([&] { tm->regHandle("NOPE"); }),
             Failure::generic(ENOENT, "RegisterFile does not have register 'NOPE'"));
   device->settle();
   EXPECT_THAT(seen(), IsEmpty());
   EXPECT_FALSE(error());
}

TEST_P(TransportContract, AHandleThatCannotBeUsedTouchesNothing) {
   open();
   const auto helper = Platform::make<RecordingAsyncHelper>();
   tm->asyncHelperIs(helper);
   const auto other = TarnRegFile::transportMethodFactory("other");
   other->init(TarnRegFile::mockTransportDescriptorFactory(), dir.write("list.csv", list));
   const TarnRegFile::RegisterHandle foreign = other->regHandle("CTRL");
   const TarnRegFile::RegisterHandle none;
   const TarnRegFile::RegisterHandle stale = tm->regHandle("CTRL");
   auto record = stale.record();
   ++record.address;
   tm->regFileHelper()->regFilePtr()->nameToRegMapIs("CTRL", record);
   for (const auto* handle : {&foreign, &none, &stale}) {
      EXPECT_EQ(Failure([&] { tm->regReadByHandle(*handle); }).kind, "generic error");
      EXPECT_EQ(Failure([&] { tm->regWriteByHandle(*handle, 1); }).kind, "generic error");
   }
   device->settle();
   EXPECT_THAT(seen(), IsEmpty());
   EXPECT_THAT(helper->results, IsEmpty());
   EXPECT_THAT(trace.texts(), IsEmpty());
   EXPECT_FALSE(error()) << "the device is not to blame";
   EXPECT_EQ(other->regRead("CTRL"), 0u);
}

// --- The end

TEST_P(TransportContract, AfterDeletionEveryAccessIsRefused) {
   open();
   tm->handleDeletion();
   const Failure refused = Failure::generic(ENODEV, "This TransportMethod is not intialized");
   EXPECT_EQ(Failure([&] { tm->regRead("ID"); }), refused);
   EXPECT_EQ(Failure([&] { tm->regWrite("CTRL", 7); }), refused);
   EXPECT_EQ(Failure([&] { tm->regReadArray("CNT[0]", 1); }), refused);
   EXPECT_EQ(Failure([&] { tm->regWriteArray("CNT[0]", bytesOf({1})); }), refused);
   EXPECT_EQ(Failure([&] { tm->dumpAll(); }), refused);
   tm->handleDeletion();
   device->settle();
   EXPECT_THAT(seen(), IsEmpty());
}

} // namespace
