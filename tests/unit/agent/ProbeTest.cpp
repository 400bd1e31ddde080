// Whether a device can be read at all.

#include "agent/Probe.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <optional>
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

constexpr auto patience = std::chrono::seconds(60);

class ProbeTest : public testing::Test {
protected:
   ProbeTest() {
      file->addrBlockSizeIs(4);
      for (const char* name : {"A", "B", "C"}) {
         Hardware::HardwareRegister record;
         record.name = name;
         record.address = static_cast<std::uint32_t>(4 * names.size());
         record.width = 32;
         record.arraySize = 1;
         file->nameToRegMapIs(record.name, record);
         file->addrToNameMapIs(record.address, record.name);
         space.wordIs(record.address, record.address + 1);
         names.emplace_back(name);
      }
      access->onAccess = [this] {
         if (onAccess) {
            onAccess();
         }
      };
   }

   void make() {
      auto transport = TarnRegFile::transportMethodFactory("fpga");
      transport->fullInit(TarnRegFile::pciTransportDescriptorFactory(access),
                          TarnRegFile::TransportMethodRegFile(file));
      probe.emplace(
         loop, transport, names, std::chrono::milliseconds(1000),
         Probe::Handlers{
            .done =
               [this](const Failure* failure) {
                  ends.push_back(failure ? failure->regName + ": " + failure->reason : "well");
                  probe.reset();
               },
            .read =
               [this](const std::string& regName, std::uint32_t value, std::size_t number) {
                  reads.push_back(regName + "=" + std::to_string(value) + " " +
                                  std::to_string(number));
               },
            .reason = [](const std::string&) { return "why"; }});
   }
   bool ended() {
      return loop.runUntil([this] { return !ends.empty(); }, patience);
   }

   Platform::EventLoop loop;
   TestSupport::RegisterSpace space{4096};
   Platform::Ptr<TestSupport::JournalPciAccess> access =
      Platform::make<TestSupport::JournalPciAccess>("fpga", space.path());
   Platform::Ptr<Hardware::HardwareRegisterFile> file =
      Hardware::hardwareRegisterFileFactory("list");
   std::vector<std::string> names;
   std::function<void()> onAccess;
   std::vector<std::string> reads;
   std::vector<std::string> ends;
   std::optional<Probe> probe;
};

TEST_F(ProbeTest, ReadsEveryRegisterOnceInOrderAndOnlyFromTheLoop) {
   make();
   EXPECT_THAT(access->journal, IsEmpty());
   ASSERT_TRUE(ended());
   EXPECT_THAT(reads, ElementsAre("A=1 1", "B=5 2", "C=9 3"));
   EXPECT_THAT(ends, ElementsAre("well"));
   loop.poll();
   EXPECT_EQ(access->journal.size(), 3u);
}

TEST_F(ProbeTest, TheFirstFailureEndsIt) {
   onAccess = [this] {
      if (access->journal.size() == 2) {
         throw std::runtime_error("out of order");
      }
   };
   make();
   ASSERT_TRUE(ended());
   EXPECT_THAT(reads, ElementsAre("A=1 1"));
   EXPECT_THAT(ends, ElementsAre("B: why"));
   loop.poll();
   EXPECT_EQ(access->journal.size(), 2u) << "the rest is not read";
}

TEST_F(ProbeTest, ASlowDeviceLeavesOthersTheirTurns) {
   std::vector<std::string> turns;
   onAccess = [&] {
      // Longer than a turn may take; nothing waits for it.
      const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(11);
      while (std::chrono::steady_clock::now() < end) {
      }
      turns.emplace_back("read");
      loop.post([&] { turns.emplace_back("other"); });
   };
   make();
   ASSERT_TRUE(ended());
   EXPECT_THAT(turns, ElementsAre("read", "other", "read", "other", "read", "other"));
}

TEST_F(ProbeTest, DestroyedItEndsUnheard) {
   make();
   probe.reset();
   loop.poll();
   EXPECT_THAT(access->journal, IsEmpty());
   EXPECT_THAT(ends, IsEmpty());
}

} // namespace
} // namespace Agent
