#pragma once

#include <fmt/format.h>

#include "platform/entity/EventLoop.h"
#include "platform/hardware/SimulatedSpiDevice.h"
#include "platform/hardware/SpiHwAccess.h"
#include "TarnRegFile/SpiTransportDescriptor.h"
#include "tests/contract/TransportAdapter.h"

namespace Contract {

/// SPI, to a simulated device. Writes are queued and not waited for, so no failure of the device
/// is ever told.
class SpiAdapter : public TransportAdapter {
public:
   SpiAdapter() : TransportAdapter({.canRead = false, .synchronous = false, .canFail = false}) {
      _access->readyIs(true);
      _access->eventLoopIs(&_loop);
   }

   Ptr<TransportMethod> open(const TransportMethodRegFile& registers) override {
      auto device = TarnRegFile::transportMethodFactory("device");
      device->fullInit(TarnRegFile::spiTransportDescriptorFactory(_access), registers);
      return device;
   }

   void settle() override { _access->drain(); }

   std::vector<std::string> journal() const override {
      std::vector<std::string> lines;
      for (const auto& transfer : _device->journal()) {
         lines.push_back(fmt::format("{:#x}", fmt::join(transfer.bytes, " ")));
      }
      return lines;
   }

   std::uint32_t value(std::uint32_t number) const override {
      return _device->registerValue(static_cast<std::uint8_t>(number));
   }
   void valueIs(std::uint32_t, std::uint32_t) override {} // nobody can read it

private:
   Platform::EventLoop _loop;
   const Ptr<Hardware::SimulatedSpiDevice> _device = Platform::make<Hardware::SimulatedSpiDevice>();
   const Ptr<Hardware::SpiHwAccess> _access = Hardware::spiHwAccessFactory("device", _device);
};

} // namespace Contract
