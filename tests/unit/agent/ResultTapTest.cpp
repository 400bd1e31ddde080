// What takes a transport's results to the agent.

#include "agent/ResultTap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "TarnRegFile/PciTransportDescriptor.h"
#include "TarnRegFile/TransportMethodRegFile.h"
#include "tests/support/JournalPciAccess.h"
#include "tests/support/RegisterSpace.h"

namespace Agent {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ResultTapTest : public testing::Test {
protected:
   ResultTapTest() {
      file->addrBlockSizeIs(4);
      Hardware::HardwareRegister record;
      record.name = "REG";
      record.address = 4;
      record.width = 32;
      record.arraySize = 1;
      record.writable = true;
      file->nameToRegMapIs(record.name, record);
      file->addrToNameMapIs(record.address, record.name);
      space.wordIs(4, 5);
      transport->fullInit(TarnRegFile::pciTransportDescriptorFactory(access),
                          TarnRegFile::TransportMethodRegFile(file));
      access->onAccess = [this] {
         if (isFailing) {
            throw std::runtime_error("out of order");
         }
      };
      tap = tapNew(
         *transport,
         [this](const auto& regName, auto result, std::uint32_t value) {
            told.push_back(
               "read " + regName +
               (result == ResultTap::Result::Success ? " " + std::to_string(value) : " failed"));
            flags.push_back(transport->errorNotifier()->error());
            if (onRead) {
               onRead();
            }
         },
         [this](const auto& regName, auto result) {
            told.push_back("write " + regName +
                           (result == ResultTap::Result::Success ? "" : " failed"));
         });
   }

   TestSupport::RegisterSpace space{4096};
   Platform::Ptr<TestSupport::JournalPciAccess> access =
      Platform::make<TestSupport::JournalPciAccess>("fpga", space.path());
   Platform::Ptr<Hardware::HardwareRegisterFile> file =
      Hardware::hardwareRegisterFileFactory("list");
   TarnRegFile::Ptr<TarnRegFile::TransportMethod> transport =
      TarnRegFile::transportMethodFactory("fpga");
   TarnRegFile::Ptr<ResultTap> tap;
   bool isFailing = false;
   std::function<void()> onRead;
   std::vector<std::string> told;
   std::vector<bool> flags;
};

TEST_F(ResultTapTest, TellsOfReadsAndWrites) {
   transport->regRead("REG");
   transport->regWrite("REG", 6);
   transport->regRead("REG");
   EXPECT_THAT(told, ElementsAre("read REG 5", "write REG", "read REG 6"));
}

TEST_F(ResultTapTest, OneFailureMakesNoFailuresOfTheAccessesThatFollow) {
   isFailing = true;
   transport->regRead("REG");
   transport->regWrite("REG", 6);
   isFailing = false;
   transport->regRead("REG");
   EXPECT_THAT(told, ElementsAre("read REG failed", "write REG failed", "read REG 5"));
   EXPECT_THAT(flags, ElementsAre(false, false)) << "the flag is cleared before it is told";
   EXPECT_FALSE(transport->errorNotifier()->error());
}

TEST_F(ResultTapTest, AClosedOneIsSilentAndStillClearsTheFlag) {
   tap->close();
   isFailing = true;
   transport->regRead("REG");
   EXPECT_FALSE(transport->errorNotifier()->error());
   isFailing = false;
   transport->regWrite("REG", 6);
   EXPECT_THAT(told, IsEmpty());
   EXPECT_EQ(space.word(4), 6u);
}

TEST_F(ResultTapTest, MayBeClosedAndItsTransportLetGoByWhatItTells) {
   onRead = [this] {
      tap->close();
      tap.reset();
      transport.reset();
   };
   const auto held = transport;
   held->regRead("REG");
   EXPECT_THAT(told, ElementsAre("read REG 5"));
   held->regRead("REG");
   EXPECT_THAT(told, ElementsAre("read REG 5"));
}

} // namespace
} // namespace Agent
