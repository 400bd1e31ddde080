#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/entity/EventLoop.h"
#include "platform/tables/CollectionControl.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/PciTransportDescriptor.h"
#include "TarnRegFile/SableCoreSm.h"
#include "tests/support/JournalPciAccess.h"
#include "tests/support/Registers.h"
#include "tests/support/RegisterSpace.h"
#include "tests/support/TempDir.h"

/// A core of three registers behind a synchronous transport whose accesses are kept, with its
/// shadow tables.
class CoreSmTest : public testing::Test {
protected:
   template <typename T>
   using Ptr = Platform::Ptr<T>;
   using Generation = Hardware::Generation;
   using RegAccessResult = TarnRegFile::RegAccessResult;
   using CoreRegister = TarnRegFile::Sable::CoreRegister;
   using CoreRegisterKey = TarnRegFile::Sable::CoreRegisterKey;

   /// A core that keeps what its hooks are told, one line each, and then does what the test wants.
   class Core : public TarnRegFile::Sable::CoreSmBase {
   public:
      using Log = std::vector<std::string>;
      using Action = std::function<void(Core&, const std::string& line)>;

      Core(const Ptr<TarnRegFile::Sable::SableCoreBase>& model,
           const Ptr<TarnRegFile::Sable::ShadowRegisterConfig>& config,
           const Ptr<TarnRegFile::Sable::ShadowRegisterStatus>& status, Log& log,
           Action action = {})
         : CoreSmBase(model, config, status), onHook(std::move(action)), log_(log) {
         ++alive;
      }
      ~Core() override { --alive; }

      void doOnReadResult(const std::string& regName, RegAccessResult result,
                          std::uint32_t value) override {
         _note("read " + regName + " " + stringValue(result) + " " + std::to_string(value));
      }
      void doOnWriteResult(const std::string& regName, RegAccessResult result) override {
         _note("write " + regName + " " + stringValue(result));
      }
      void doOnReady(bool ready) override { _note(ready ? "ready" : "not ready"); }

      static inline int alive = 0;
      Action onHook;

   private:
      void _note(const std::string& line) {
         log_.push_back(line);
         if (const Action action = onHook) {
            action(*this, line);
         }
      }

      Log& log_;
   };

   CoreSmTest() {
      GTEST_FLAG_SET(death_test_style, "threadsafe"); // a forked child has no tables
      config->regMapControlIs(configControl);
      status->regMapControlIs(statusControl);
      configControl->mount();
      statusControl->mount();
      file->addrBlockSizeIs(4);
      registerIs("ID", 0, false);
      registerIs("CTRL", 4);
      registerIs("SCRATCH", 8);
      space.wordIs(0, 0x1d);
      space.wordIs(4, 0xc);
      space.wordIs(8, 0x5);
   }

   ~CoreSmTest() override {
      if (core) {
         core->teardown();
         core.reset();
      }
      EXPECT_EQ(Core::alive, 0);
      configControl->unmount();
      statusControl->unmount();
   }

   void registerIs(const std::string& name, std::uint32_t address, bool writable = true) {
      TestSupport::registerIs(*file, name, address, writable);
   }

   /// The model, with the registers that there are by now.
   void makeModel(Generation generation = {}) {
      model = TarnRegFile::Sable::sableCoreFactory(
         "core0", file, TarnRegFile::pciTransportDescriptorFactory(access));
      model->generationIs(generation);
   }

   void makeCore(Core::Action action = {}) {
      core = Platform::make<Core>(model, config, status, log, std::move(action));
   }

   /// A core that is ready; what led to it is forgotten.
   void makeReadyCore() {
      makeModel({1, true});
      makeCore();
      ASSERT_TRUE(core->ready());
      forget();
   }

   void forget() {
      log.clear();
      access->journal.clear();
   }

   std::vector<std::string>& bus() { return access->journal; }

   // The tables.

   void configIs(std::uint32_t address, std::uint32_t value) {
      config->regMapIs(CoreRegister(CoreRegisterKey(address), value));
   }
   void configDel(std::uint32_t address) { config->regMapDel(CoreRegisterKey(address)); }
   std::optional<std::uint32_t> configured(std::uint32_t address) const {
      return _value(config->regMap().get(CoreRegisterKey(address)));
   }
   void statusIs(std::uint32_t address, std::uint32_t value) {
      status->regMapIs(CoreRegister(CoreRegisterKey(address), value));
   }
   void statusDel(std::uint32_t address) { status->regMapDel(CoreRegisterKey(address)); }
   std::optional<std::uint32_t> statusOf(std::uint32_t address) const {
      return _value(status->regMap().get(CoreRegisterKey(address)));
   }
   std::size_t statusSize() const { return status->regMap().size(); }

   static Ptr<Platform::Tables::CollectionControl>
   writerOn(Platform::Tables::TableService& tables) {
      return Platform::Tables::collectionControlFactory(
         tables, {.role = Platform::Tables::TableRole::writer});
   }

   Platform::EventLoop loop;
   TestSupport::TempDir directory;
   Platform::Tables::TableService tables{
      loop, Platform::Tables::TableDirectory(directory.path("tables"))};
   Ptr<Platform::Tables::CollectionControl> configControl = writerOn(tables);
   Ptr<Platform::Tables::CollectionControl> statusControl = writerOn(tables);

   TestSupport::RegisterSpace space{4096};
   Ptr<TestSupport::JournalPciAccess> access =
      Platform::make<TestSupport::JournalPciAccess>("fpga", space.path());
   Ptr<Hardware::HardwareRegisterFile> file = Hardware::hardwareRegisterFileFactory("list");
   Ptr<TarnRegFile::Sable::SableCoreBase> model;
   Ptr<TarnRegFile::Sable::ShadowRegisterConfig> config =
      TarnRegFile::Sable::shadowRegisterConfigFactory("config");
   Ptr<TarnRegFile::Sable::ShadowRegisterStatus> status =
      TarnRegFile::Sable::shadowRegisterStatusFactory("status");
   Core::Log log;
   Ptr<Core> core;

private:
   static std::optional<std::uint32_t> _value(const std::optional<CoreRegister>& entry) {
      return entry ? std::optional(entry->value()) : std::nullopt;
   }
};
