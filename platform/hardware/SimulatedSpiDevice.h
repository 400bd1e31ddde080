#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>

#include "platform/entity/Export.h"
#include "platform/entity/Types.h"
#include "platform/hardware/FaultPlan.h"
#include "platform/hardware/SpiBackend.h"

namespace Hardware {

/// An SPI device in memory: 256 registers of 16 bits, written by messages of three bytes, address,
/// high byte, low byte. Messages of another length change nothing. It has nothing to say: zeros
/// come back.
///
/// Keeps a journal of what was sent to it, and a plan of what goes wrong. For tests, simulated
/// boards and trying a register list out. On one thread.
class TARN_PLATFORM_API SimulatedSpiDevice : public SpiBackend {
public:
   /// One message as it arrived, and what became of it: 0, or the errno it failed with.
   struct Transfer {
      Platform::Bytes bytes;
      int error = 0;

      friend bool operator==(const Transfer&, const Transfer&) = default;
   };

   /// How many transfers the journal keeps; the oldest go first.
   static constexpr std::size_t maxJournal = 65536;

   explicit SimulatedSpiDevice(Platform::String name = "simulated SPI device");
   ~SimulatedSpiDevice() override;

   const Platform::String& name() const noexcept override { return _name; }
   int transfer(std::span<const std::uint8_t> out, std::span<std::uint8_t> in) override;

   /// The value of a register; 0 until it is written.
   std::uint16_t registerValue(std::uint8_t address) const noexcept;

   /// The transfers so far, oldest first, the failed ones included.
   const std::deque<Transfer>& journal() const noexcept { return _journal; }
   void journalClear() noexcept { _journal.clear(); }

   /// Faults, delays and whether the device is there. A transfer is one access, of direction write;
   /// nothing of one that fails takes effect.
   FaultPlan& faults() noexcept { return _faults; }
   const FaultPlan& faults() const noexcept { return _faults; }

   /// Has the `k`-th transfer from now, 1 being the next, fail with any errno, once, whatever the
   /// plan says. Transfers to a lost device count too. An error of 0 takes the fault back; a `k` of
   /// 0 does nothing.
   void failTransferIs(std::uint64_t k, int error);

   /// Takes the device away, so that every transfer fails with ENXIO, and brings it back. The
   /// registers keep their values.
   void lostIs(bool lost) { _faults.lostIs(lost); }
   bool lost() const { return _faults.lost(); }

private:
   int _nextError();

   const Platform::String _name;
   std::map<std::uint8_t, std::uint16_t> _registers;
   std::deque<Transfer> _journal;
   FaultPlan _faults;
   std::map<std::uint64_t, int> _failures; // by the number of the transfer
   std::uint64_t _transfers = 0;
};

} // namespace Hardware
