#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "platform/entity/EventLoop.h"
#include "platform/hardware/HardwareRegisterFile.h"
#include "platform/hardware/SornManager.h"
#include "TarnRegFile/I2cSornTransportDescriptor.h"
#include "TarnRegFile/I2cTransportSornImpl.h"
#include "TarnRegFile/TransportMethod.h"
#include "tests/support/GatedSornBackend.h"
#include "tests/support/RecordingAsyncHelper.h"

/// A transport over a bus whose worker can be held at a gate, below a TransportMethod or alone.
class SornTransportTest : public testing::Test {
protected:
   template <typename T>
   using Ptr = Platform::Ptr<T>;

   static constexpr auto patience = std::chrono::seconds(60);

   SornTransportTest() {
      registerIs("WIDE", 0x1234, 32);
      registerIs("OTHER", 0x1238, 32);
      registerIs("HALF", 0x10, 16);
      registerIs("BYTE", 0x20, 8);
      registerIs("THREE", 0x30, 24);
      registerIs("FAR", 0x56789, 32);
      registerIs("BROKEN", 0x40, 24, 16);
   }

   void registerIs(const std::string& name, std::uint32_t address, std::uint32_t width,
                   std::uint32_t accessWidth = 32) {
      Hardware::HardwareRegister record;
      record.name = name;
      record.address = address;
      record.width = width;
      record.accessWidth = accessWidth;
      record.arraySize = 1;
      model->nameToRegMapIs(name, record);
   }

   /// A transport at `device`, in `method` and, for looking inside, in `transport`.
   void open(std::uint32_t device = 0x50) {
      const auto descriptor = TarnRegFile::i2cSornTransportDescriptorFactory(device, bus);
      method = TarnRegFile::transportMethodFactory("device");
      method->fullInit(descriptor, TarnRegFile::TransportMethodRegFile(model));
      method->handleDeletion();
      transport =
         new TarnRegFile::I2cTransportSornImpl(descriptor->sornDesc()->sorn(), device, "", model);
      method->implPtrIs(transport);
      method->asyncHelperIs(helper);
   }

   /// Runs the loop until `holds`.
   bool until(const std::function<bool()>& holds) { return loop.runUntil(holds, patience); }
   bool results(std::size_t count) {
      return until([&] { return helper->results.size() >= count; });
   }
   std::size_t inFlight() const { return transport->sm()->i2cTransportRequests(); }

   Platform::EventLoop loop;
   std::shared_ptr<TestSupport::GatedSornBackend::State> gate =
      std::make_shared<TestSupport::GatedSornBackend::State>();
   std::unique_ptr<Hardware::SornManager> manager = std::make_unique<Hardware::SornManager>(loop);
   Ptr<Hardware::SornDesc> bus =
      manager->busNew("bus", std::make_unique<TestSupport::GatedSornBackend>(gate));
   Ptr<Hardware::HardwareRegisterFile> model = Hardware::hardwareRegisterFileFactory("model");
   Ptr<TarnRegFile::TransportMethod> method;
   TarnRegFile::I2cTransportSornImpl* transport = nullptr; // method's
   Ptr<TestSupport::RecordingAsyncHelper> helper =
      Platform::make<TestSupport::RecordingAsyncHelper>();
};
