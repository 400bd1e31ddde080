#pragma once

#include <cstddef>
#include <deque>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "board/SimulatedBoard.h"
#include "platform/entity/Ptr.h"
#include "platform/hardware/FaultPlan.h"
#include "platform/hardware/SimulatedSpiDevice.h"
#include "tools/tarnsim/SimulatedDevice.h"

namespace TarnSim {

/// An SPI device of the board.
class SpiDevice : public SimulatedDevice {
public:
   static constexpr std::size_t journalCapacity = 4096;

   explicit SpiDevice(const Board::SpiSpec& spec);

   /// One message, chip select held: `out` goes out, `in`, which is as long, comes back. Returns 0
   /// or an errno. Sleeps for the device's delay.
   int transfer(std::span<const std::uint8_t> out, std::span<std::uint8_t> in);

   std::string place() const override { return "spi " + _spec.device; }
   std::optional<std::uint32_t> addressOf(std::string_view name) const override;
   std::uint32_t registerAt(std::uint32_t address) const override;
   void registerIs(std::uint32_t address, std::uint32_t value) override;
   bool lost() const override { return _faults.lost(); }
   void lostIs(bool lost) override { _faults.lostIs(lost); }
   Hardware::FaultPlan* faults() override { return &_faults; }
   std::vector<std::string> journal() const override;
   void journalClear() override;

private:
   const Board::SpiSpec _spec;
   Hardware::FaultPlan _faults;
   mutable std::mutex _mutex;
   // The model is for one thread: used under the mutex, and its count never changes.
   const Platform::Ptr<Hardware::SimulatedSpiDevice> _model;
   std::deque<std::string> _journal;
};

} // namespace TarnSim
