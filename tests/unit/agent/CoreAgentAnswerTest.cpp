// A core behind the access manager, whose device stops to answer while the shadow is filled.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/hardware/SornManager.h"
#include "platform/trace/CaptureScope.h"
#include "TarnRegFile/I2cSornTransportDescriptor.h"
#include "tests/support/GatedSornBackend.h"
#include "tests/unit/agent/CoreAgentFixture.h"

namespace Agent {
namespace {

using namespace TarnRegFile::Sable;
using Platform::Tables::TableMount;
using Platform::Trace::CaptureScope;
using testing::Contains;
using testing::HasSubstr;

constexpr const char* unanswered = "fpga: cannot use the device: no answer in 100 ms";

class CoreAgentAnswerTest : public CoreAgentFixture {
protected:
   CoreAgentAnswerTest() {
      file->addrBlockSizeIs(1);
      settings.answerTimeout = std::chrono::milliseconds(100);
      gate->registers[0] = 0x1d;
      gate->registers[4] = 0xc;
   }
   ~CoreAgentAnswerTest() override {
      gate->letsIn(1000);
      agent.reset(); // before the manager
   }

   void make() {
      agent.emplace(loop, tables,
                    CoreAgent::Hardware{.name = "fpga",
                                        .registers = file,
                                        .descriptor =
                                           [this] {
                                              // The probe has read all, and the shadow is going to
                                              // be filled.
                                              if (agent->state().registersRead == 3 && onFill) {
                                                 onFill();
                                              }
                                              return TarnRegFile::i2cSornTransportDescriptorFactory(
                                                 0x50, bus);
                                           },
                                        .reason = [](const std::string&) { return "out of order"; },
                                        .alive = {}},
                    settings, registry);
   }
   bool untilUnanswered() {
      return until([this] { return agent->state().lastError == unanswered; });
   }
   /// How often something was done to the bus that began like this.
   std::size_t count(const std::string& front) {
      std::size_t found = 0;
      for (const std::string& line : gate->lines()) {
         found += line.rfind(front, 0) == 0 ? 1U : 0U;
      }
      return found;
   }
   std::size_t statusSize() { return TableMount(tables.directory(), "fpga/status", {}).count(); }

   std::shared_ptr<TestSupport::GatedSornBackend::State> gate =
      std::make_shared<TestSupport::GatedSornBackend::State>();
   Hardware::SornManager manager{loop};
   Platform::Ptr<Hardware::SornDesc> bus =
      manager.busNew("bus", std::make_unique<TestSupport::GatedSornBackend>(gate));
   std::function<void()> onFill;
};

TEST_F(CoreAgentAnswerTest, WithoutAnyAnswerTheGenerationEndsAndTheDeviceIsProbedAgain) {
   const CaptureScope captured;
   std::size_t read = 0;
   bool isHeld = true;
   onFill = [&] {
      if (isHeld) {
         gate->letsIn(0);
         read = count("read");
      }
   };
   make();
   ASSERT_TRUE(untilUnanswered());
   EXPECT_EQ(agent->state().generation, 1U);
   EXPECT_FALSE(agent->state().ready);
   EXPECT_FALSE(agent->state().valid);
   EXPECT_EQ(agent->state().phase, CorePhase::waiting);
   EXPECT_EQ(agent->state().losses, 0U) << "it was not ready";
   EXPECT_EQ(agent->state().errors, 0U) << "no access has failed";
   EXPECT_EQ(count("read"), read) << "nothing more was read";
   EXPECT_EQ(statusSize(), 0U);
   EXPECT_THAT(captured.texts(),
               Contains(HasSubstr(std::string(unanswered) + "; trying again in ")));

   // What comes too late is heard by nobody, and what is read next is a new generation's.
   isHeld = false;
   gate->letsIn(1000);
   ASSERT_TRUE(untilReady(2));
   EXPECT_EQ(statusSize(), 3U);
}

TEST_F(CoreAgentAnswerTest, AnAnswerThatStaysOutAfterOthersEndsItLikewise) {
   bool isHeld = true;
   onFill = [&] {
      if (isHeld) {
         gate->letsIn(2);
      }
   };
   make();
   ASSERT_TRUE(untilUnanswered());
   EXPECT_EQ(agent->state().generation, 1U);
   EXPECT_FALSE(agent->state().valid);
   EXPECT_EQ(agent->state().registersRead, 2U) << "so far it had come";
   EXPECT_EQ(agent->state().registersTotal, 3U);
   EXPECT_EQ(agent->state().errors, 0U);
   isHeld = false;
   gate->letsIn(1000);
   ASSERT_TRUE(untilReady(2));
}

TEST_F(CoreAgentAnswerTest, NoWishIsWrittenBeforeAllHaveAnswered) {
   TableMount wishes(tables.directory(), "fpga/config",
                     {.role = Platform::Tables::TableRole::writer,
                      .shape = Platform::Tables::Table<CoreRegister>::tableShape(),
                      .create = true});
   const CoreRegister wish(CoreRegisterKey(8), 5);
   std::vector<std::uint8_t> bytes(CoreRegister::maxSerializedLen);
   std::vector<std::uint8_t> key(CoreRegisterKey::serializedLen);
   wish.serialize(bytes.data());
   wish.key().serialize(key.data());
   wishes.put(key, {bytes.data(), wish.serializeLen()});
   bool isHeld = true;
   onFill = [&] {
      if (isHeld) {
         gate->letsIn(2);
      }
   };
   make();
   ASSERT_TRUE(untilUnanswered());
   const std::string write = "write 80 0: 8 0 0 0 5";
   EXPECT_EQ(count(write), 0U);
   EXPECT_EQ(wishes.count(), 1U) << "and it stands";
   isHeld = false;
   gate->letsIn(1000);
   ASSERT_TRUE(untilReady(2));
   ASSERT_TRUE(until([&] { return count(write) > 0; }));
   loop.poll();
   EXPECT_EQ(count(write), 1U);
}

} // namespace
} // namespace Agent
