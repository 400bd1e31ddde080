// Whether a device can be read at all.

#include "agent/Probe.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "TarnRegFile/PciTransportDescriptor.h"
#include "TarnRegFile/TransportMethodRegFile.h"
#include "tests/support/FakeTransport.h"
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

/// Over a transport whose reads the test answers, or does not.
class AsyncProbeTest : public testing::Test {
protected:
   static constexpr std::chrono::milliseconds never = std::chrono::hours(1);

   void make(std::size_t count, std::chrono::milliseconds answerTimeout) {
      const auto file = Hardware::hardwareRegisterFileFactory("list");
      std::vector<std::string> names;
      for (std::size_t i = 0; i < count; ++i) {
         names.push_back("R" + std::to_string(i));
      }
      using namespace TarnRegFile;
      // No transport is made for it, but it is one of those that answer later.
      EXPECT_THROW(transport->init(baseTransportDescriptorFactory(static_cast<TransportType>(1),
                                                                  TransportProtocol::sornAsync,
                                                                  static_cast<TransportFlavour>(0)),
                                   ""),
                   std::system_error);
      auto* const fake = new TestSupport::FakeTransport(file, journal);
      fake->onAccess = [this] {
         if (onAccess) {
            onAccess();
         }
      };
      transport->implPtrIs(fake); // which keeps it
      probe.emplace(loop, transport, names, answerTimeout,
                    Probe::Handlers{.done =
                                       [this](const Failure* failure) {
                                          ends.push_back(failure ? failure->regName + ": " +
                                                                      failure->reason
                                                                 : "well");
                                          probe.reset();
                                       },
                                    .read = [this](const std::string& regName, std::uint32_t,
                                                   std::size_t) { reads.push_back(regName); },
                                    .reason = [](const std::string&) { return "why"; }});
   }

   void answer(std::size_t number) {
      transport->implPtr()->getAsyncHelper()->handleReadResult(
         "R" + std::to_string(number), TarnRegFile::RegAccessResult::Success, 1);
   }
   bool until(const std::function<bool()>& holds) { return loop.runUntil(holds, patience); }
   bool issued(std::size_t count) {
      return until([&] { return journal->size() >= count; });
   }
   bool ended() {
      return until([this] { return !ends.empty(); });
   }

   Platform::EventLoop loop;
   std::shared_ptr<TestSupport::Journal> journal = std::make_shared<TestSupport::Journal>();
   TarnRegFile::Ptr<TarnRegFile::TransportMethod> transport =
      TarnRegFile::transportMethodFactory("fpga");
   std::function<void()> onAccess;
   std::vector<std::string> reads;
   std::vector<std::string> ends;
   std::optional<Probe> probe;
};

TEST_F(AsyncProbeTest, NoMoreThan64ReadsAreInFlightAndEachAnswerMakesRoomForOne) {
   make(70, never);
   ASSERT_TRUE(issued(64));
   loop.poll();
   EXPECT_EQ(journal->size(), 64u);
   for (std::size_t number = 0; number < 70; ++number) {
      answer(number);
      EXPECT_TRUE(issued(std::min<std::size_t>(65 + number, 70)));
      loop.poll();
      EXPECT_LE(journal->size(), 65 + number);
      EXPECT_EQ(reads.size(), number + 1);
   }
   EXPECT_TRUE(ended());
   EXPECT_THAT(ends, ElementsAre("well"));
   EXPECT_EQ(journal->size(), 70u) << "each is read once";
}

TEST_F(AsyncProbeTest, WithoutAnAnswerInTimeItEndsAndNamesTheFirstThatIsMissing) {
   make(3, std::chrono::milliseconds(1));
   ASSERT_TRUE(ended());
   EXPECT_THAT(ends, ElementsAre("R0: no answer in 1 ms"));
   EXPECT_THAT(reads, IsEmpty());
   answer(0); // too late: nobody hears it
   loop.poll();
   EXPECT_THAT(reads, IsEmpty());
   EXPECT_EQ(ends.size(), 1u);
}

TEST_F(AsyncProbeTest, AnAnswerThatStaysOutAfterOthersEndsItLikewise) {
   onAccess = [this] {
      if (journal->size() <= 2) {
         answer(journal->size() - 1);
      }
   };
   make(5, std::chrono::milliseconds(1));
   ASSERT_TRUE(ended());
   EXPECT_THAT(reads, ElementsAre("R0", "R1"));
   EXPECT_THAT(ends, ElementsAre("R2: no answer in 1 ms"));
}

TEST_F(AsyncProbeTest, AFailedAnswerEndsItAndNothingMoreIsRead) {
   make(100, never);
   ASSERT_TRUE(issued(64));
   transport->implPtr()->getAsyncHelper()->handleReadResult("R0",
                                                            TarnRegFile::RegAccessResult::Error, 0);
   answer(1); // of what was in flight nothing is told
   ASSERT_TRUE(ended());
   EXPECT_THAT(ends, ElementsAre("R0: why"));
   EXPECT_THAT(reads, IsEmpty());
   EXPECT_EQ(journal->size(), 64u);
}

} // namespace
} // namespace Agent
