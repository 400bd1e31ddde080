#pragma once

#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "nimbo/ListeningSocket.h"
#include "nimbo/Server.h"
#include "nimbo/SimulatedBackend.h"
#include "platform/entity/EventLoop.h"
#include "platform/entity/MultiThreading.h"
#include "platform/hardware/SimulatedI2cBus.h"
#include "TarnRegFile/NimboSmbusTransportDescriptor.h"
#include "tests/contract/TransportAdapter.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/TempDir.h"

namespace Contract {

/// SMBus through the proxy daemon's server, which runs on a thread of its own, to a simulated
/// device.
class SmbusAdapter : public TransportAdapter {
public:
   explicit SmbusAdapter(TarnRegFile::TransportFlavour flavour)
      : TransportAdapter({}), _flavour(flavour) {
      Platform::multiThreadedIs();
      _bus->deviceIs(address, _device);
      _bus->wireLogIs([this](std::string_view line) {
         const std::lock_guard lock(_mutex);
         _journal.emplace_back(line);
      });
      std::promise<void> listening;
      _thread = std::thread([&] { _serve(listening); });
      listening.get_future().get();
   }
   ~SmbusAdapter() override {
      _loop->stop();
      _thread.join();
   }

   Ptr<TransportMethod> open(const TransportMethodRegFile& registers) override {
      auto device = TarnRegFile::transportMethodFactory("device");
      device->fullInit(
         TarnRegFile::nimboSmbusTransportDescriptorFactory(busNumber, address, 0, _flavour),
         registers);
      return device;
   }

   std::vector<std::string> journal() const override {
      const std::lock_guard lock(_mutex);
      return _journal;
   }

   std::uint32_t value(std::uint32_t number) const override { return _device->registerAt(number); }
   void valueIs(std::uint32_t number, std::uint32_t value) override {
      _device->registerIs(number, value);
   }
   void goneIs(bool gone) override { _bus->deviceIs(address, gone ? nullptr : _device); }

private:
   static constexpr std::uint8_t busNumber = 3;
   static constexpr std::uint8_t address = 0x50;

   void _serve(std::promise<void>& listening) {
      Platform::EventLoop loop;
      const Nimbo::ListeningSocket socket({.directory = _dir.path(), .file = "smbus"});
      Nimbo::Server server(loop, 10, [](int, std::string&) { return true; });
      Nimbo::BusConfig config;
      config.name = "bus";
      config.number = busNumber;
      server.busesAre(std::make_shared<const Nimbo::BusTable>(std::vector{
         std::make_shared<Nimbo::Bus>(config, std::make_unique<Nimbo::SimulatedBackend>(_bus))}));
      server.listenAt(socket.fd());
      _loop = &loop;
      listening.set_value();
      loop.run();
   }

   const TarnRegFile::TransportFlavour _flavour;
   const TestSupport::TempDir _dir;
   const TestSupport::EnvironmentVariable _directory{"NM_SOCKET_DIR", _dir.path()};
   const TestSupport::EnvironmentVariable _file{"NM_SOCKET_FILE", std::nullopt};

   const std::shared_ptr<Hardware::SimulatedI2cBus> _bus =
      std::make_shared<Hardware::SimulatedI2cBus>();
   const std::shared_ptr<Hardware::SimulatedI2cDevice> _device =
      std::make_shared<Hardware::SimulatedI2cDevice>(Hardware::SimulatedI2cKind::block, 4);
   mutable std::mutex _mutex;
   std::vector<std::string> _journal; // under _mutex

   Platform::EventLoop* _loop = nullptr;
   std::thread _thread;
};

} // namespace Contract
