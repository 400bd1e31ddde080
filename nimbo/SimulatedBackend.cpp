#include "nimbo/SimulatedBackend.h"

#include <algorithm>
#include <array>
#include <utility>

namespace Nimbo {

SimulatedBackend::SimulatedBackend(std::shared_ptr<Hardware::SimulatedI2cBus> bus)
   : _bus(std::move(bus)) {}

SimulatedBackend::~SimulatedBackend() = default;

int SimulatedBackend::write(std::uint8_t device, std::span<const std::uint8_t> offset,
                            std::span<const std::uint8_t> data) {
   Hardware::I2cMessage message;
   message.address = device;
   message.bytes.reserve(offset.size() + data.size());
   message.bytes.assign(offset.begin(), offset.end());
   message.bytes.insert(message.bytes.end(), data.begin(), data.end());
   return _bus->transfer(std::span(&message, 1));
}

int SimulatedBackend::read(std::uint8_t device, std::span<const std::uint8_t> offset,
                           std::span<std::uint8_t> data) {
   std::array<Hardware::I2cMessage, 2> messages;
   messages[0].address = device;
   messages[0].bytes.assign(offset.begin(), offset.end());
   messages[1].address = device;
   messages[1].isRead = true;
   messages[1].bytes.resize(data.size());
   const int error = _bus->transfer(messages);
   if (error == 0) {
      std::copy(messages[1].bytes.begin(), messages[1].bytes.end(), data.begin());
   }
   return error;
}

} // namespace Nimbo
