#include "tools/tarnsim/SpiDevice.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <thread>

#include <fmt/format.h>

#include "platform/entity/Errors.h"

namespace TarnSim {

SpiDevice::SpiDevice(const Board::SpiSpec& spec)
   : SimulatedDevice(spec.name), _spec(spec),
     _model(Platform::make<Hardware::SimulatedSpiDevice>(spec.name)) {
   for (const auto& [address, value] : spec.values) {
      registerIs(address, value);
   }
   for (const Hardware::Fault& fault : spec.faults) {
      _faults.add(fault);
   }
   _faults.delayIs(spec.delay);
   _faults.lostIs(!spec.present);
}

int SpiDevice::transfer(std::span<const std::uint8_t> out, std::span<std::uint8_t> in) {
   const bool isGone = _faults.lost();
   // Every message goes both ways: there are no reads and writes to tell apart.
   const Hardware::FaultPlan::Outcome outcome = _faults.access(false);
   if (outcome.delay.count() > 0) {
      std::this_thread::sleep_for(outcome.delay);
   }
   const std::lock_guard lock(_mutex);
   // What the kernel says of a device that was unplugged.
   int error = isGone ? ESHUTDOWN : outcome.error;
   if (error == 0) {
      error = _model->transfer(out, in);
      _model->journalClear();
   }
   std::string line = "transfer:";
   if (error != 0) {
      fmt::format_to(std::back_inserter(line), " error {}", error);
   } else {
      for (const std::uint8_t byte : out) {
         fmt::format_to(std::back_inserter(line), " {:02x}", byte);
      }
      for (std::size_t i = 0; i < in.size(); ++i) {
         in[i] = outcome.length && i >= *outcome.length
                    ? std::uint8_t{0xff}
                    : static_cast<std::uint8_t>(in[i] ^ outcome.xorMask);
      }
   }
   if (_journal.size() == journalCapacity) {
      _journal.pop_front();
   }
   _journal.push_back(std::move(line));
   return error;
}

std::optional<std::uint32_t> SpiDevice::addressOf(std::string_view name) const {
   const auto* record = _spec.model ? _spec.model->findRegister(name) : nullptr;
   return record ? std::optional(record->address) : std::nullopt;
}

std::uint32_t SpiDevice::registerAt(std::uint32_t address) const {
   if (address > 0xff) {
      throw Platform::RangeError(fmt::format("There is no register at {:#x}", address));
   }
   const std::lock_guard lock(_mutex);
   return _model->registerValue(static_cast<std::uint8_t>(address));
}

void SpiDevice::registerIs(std::uint32_t address, std::uint32_t value) {
   if (address > 0xff || value > 0xffff) {
      throw Platform::RangeError(
         fmt::format("There is no register at {:#x} that holds {:#x}", address, value));
   }
   const std::array<std::uint8_t, 3> out{static_cast<std::uint8_t>(address),
                                         static_cast<std::uint8_t>(value >> 8),
                                         static_cast<std::uint8_t>(value)};
   std::array<std::uint8_t, 3> in{};
   const std::lock_guard lock(_mutex);
   (void)_model->transfer(out, in);
   _model->journalClear();
}

std::vector<std::string> SpiDevice::journal() const {
   const std::lock_guard lock(_mutex);
   return {_journal.begin(), _journal.end()};
}

void SpiDevice::journalClear() {
   const std::lock_guard lock(_mutex);
   _journal.clear();
}

} // namespace TarnSim
