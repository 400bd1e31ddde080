// One core of the agent, over a device whose accesses are kept and may fail.

#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include "agent/CoreAgent.h"
#include "TarnRegFile/PciTransportDescriptor.h"
#include "tests/support/JournalPciAccess.h"
#include "tests/support/Registers.h"
#include "tests/support/RegisterSpace.h"
#include "tests/support/TempDir.h"

namespace Agent {

class CoreAgentFixture : public testing::Test {
protected:
   CoreAgentFixture() {
      file->addrBlockSizeIs(4);
      registerIs("ID", 0, false);
      registerIs("CTRL", 4);
      registerIs("SCRATCH", 8);
      space.wordIs(4, 0xc);
      settings.checkInterval = std::chrono::milliseconds(0);
      settings.retryFirst = std::chrono::milliseconds(1);
      settings.retryMost = std::chrono::milliseconds(4);
      access->onAccess = [this] {
         ++accesses;
         if (fails && fails(accesses)) {
            throw std::runtime_error("out of order");
         }
      };
   }

   void registerIs(const std::string& name, std::uint32_t address, bool writable = true) {
      TestSupport::registerIs(*file, name, address, writable);
   }

   void make() {
      agent.emplace(
         loop, tables,
         CoreAgent::Hardware{
            .name = "fpga",
            .registers = file,
            .descriptor = [this] { return TarnRegFile::pciTransportDescriptorFactory(access); },
            .reason = [](const std::string& /*regName*/) { return "out of order"; },
            .alive = {},
            .isThere = isThere},
         settings, registry);
   }

   /// What the registers of a device that has gone read.
   void allOnesAre() {
      for (const std::size_t offset : {0U, 4U, 8U}) {
         space.wordIs(offset, 0xffffffff);
      }
   }

   bool until(const std::function<bool()>& predicate) {
      return loop.runUntil(predicate, std::chrono::seconds(60));
   }
   bool untilReady(std::uint32_t generation) {
      return until([this, generation] {
         return agent->state().ready && agent->state().generation == generation;
      });
   }

   Platform::EventLoop loop;
   TestSupport::TempDir directory;
   Platform::Tables::TableService tables{
      loop, Platform::Tables::TableDirectory(directory.path("tables"))};
   Platform::Metrics::Registry registry;
   TestSupport::RegisterSpace space{4096};
   Platform::Ptr<TestSupport::JournalPciAccess> access =
      Platform::make<TestSupport::JournalPciAccess>("fpga", space.path());
   Platform::Ptr<Hardware::HardwareRegisterFile> file =
      Hardware::hardwareRegisterFileFactory("list");
   Settings settings;
   int accesses = 0;
   std::function<std::optional<bool>()> isThere;
   std::function<bool(int)> fails; // whether the access of that number does
   std::optional<CoreAgent> agent;
};

} // namespace Agent
