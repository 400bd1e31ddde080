#include "platform/hardware/SimulatedSpiDevice.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace Hardware {

namespace {

constexpr std::size_t registerWrite = 3;

} // namespace

SimulatedSpiDevice::SimulatedSpiDevice(Platform::String name) : _name(std::move(name)) {}

SimulatedSpiDevice::~SimulatedSpiDevice() = default;

int SimulatedSpiDevice::transfer(std::span<const std::uint8_t> out, std::span<std::uint8_t> in) {
   const int error = _nextError();
   if (_journal.size() == maxJournal) {
      _journal.pop_front();
   }
   _journal.push_back({Platform::Bytes(out.begin(), out.end()), error});
   if (error != 0) {
      return error;
   }
   std::fill(in.begin(), in.end(), std::uint8_t{0});
   if (out.size() == registerWrite) {
      _registers[out[0]] = static_cast<std::uint16_t>(out[1] << 8 | out[2]);
   }
   return 0;
}

int SimulatedSpiDevice::_nextError() {
   const FaultPlan::Outcome outcome = _faults.access(false);
   if (outcome.delay.count() > 0) {
      std::this_thread::sleep_for(outcome.delay);
   }
   ++_transfers;
   if (const auto failure = _failures.extract(_transfers)) {
      return failure.mapped();
   }
   return outcome.error;
}

std::uint16_t SimulatedSpiDevice::registerValue(std::uint8_t address) const noexcept {
   const auto found = _registers.find(address);
   return found == _registers.end() ? std::uint16_t{0} : found->second;
}

void SimulatedSpiDevice::failTransferIs(std::uint64_t k, int error) {
   if (k == 0) {
      return;
   }
   if (error == 0) {
      _failures.erase(_transfers + k);
   } else {
      _failures[_transfers + k] = error;
   }
}

} // namespace Hardware
