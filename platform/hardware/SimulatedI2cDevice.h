#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "platform/entity/Export.h"
#include "platform/entity/Types.h"
#include "platform/hardware/FaultPlan.h"

namespace Hardware {

class HardwareRegisterFile;

/// How a simulated I2C device takes addresses and values from the wire.
enum class SimulatedI2cKind : std::uint8_t {
   /// 16-bit register pointer, high byte first; registers are 32-bit words, most significant byte
   /// first. A write of two or more bytes sets the pointer from its first two and stores the rest
   /// from there on; a write of one byte changes nothing. Reads return bytes from the pointer on.
   /// The pointer advances with every byte and wraps behind the last register.
   block,
   /// 8-bit command, 256 words of 16 bits, low byte first. A write sets the command from its first
   /// byte and stores the rest from there on, word after word; a single byte is the low one. Reads
   /// start at the command that was written last.
   word,
   /// 256 bytes behind an 8-bit pointer, as small EEPROMs have it. A write sets the pointer from
   /// its first byte and stores the rest; reads go on from the pointer, which advances and wraps.
   bytes,
};

/// The kind with this name ("block", "word", "bytes"), if there is one, and back.
TARN_PLATFORM_API std::optional<SimulatedI2cKind>
simulatedI2cKindFromString(std::string_view name) noexcept;
TARN_PLATFORM_API std::string_view simulatedI2cKindToString(SimulatedI2cKind kind) noexcept;

/// A simulated device on an I2C bus: registers that a bus reads and writes as the wire does, and a
/// test looks at and changes from behind. It keeps a journal of what the bus did, and a plan of
/// what goes wrong.
///
/// Held through std::shared_ptr by the buses that it sits on. May be used on any thread.
class TARN_PLATFORM_API SimulatedI2cDevice {
public:
   using Kind = SimulatedI2cKind;

   /// One access from the bus: a message that was read or written, or a transaction that failed.
   struct Access {
      bool isRead = false;
      std::uint32_t address = 0;       ///< register at which it began
      std::vector<std::uint8_t> bytes; ///< read: as they went over the wire; written: the values,
                                       ///< without the register pointer
      int error = 0;                   ///< errno of a transaction that failed; then without bytes
      bool operator==(const Access&) const = default;
   };

   /// Older accesses are forgotten.
   static constexpr std::size_t journalCapacity = 4096;

   /// A device with all registers 0. `addressUnit`, 1 to 4, is for the block kind: how many bytes
   /// one step of the register pointer stands for; 1 addresses bytes, 4 addresses 32-bit words.
   /// Throws RangeError for another unit.
   explicit SimulatedI2cDevice(Kind kind, unsigned addressUnit = 1);
   ~SimulatedI2cDevice();
   SimulatedI2cDevice(const SimulatedI2cDevice&) = delete;
   SimulatedI2cDevice& operator=(const SimulatedI2cDevice&) = delete;

   Kind kind() const noexcept { return _kind; }
   unsigned addressUnit() const noexcept { return _unit; }

   /// The register at `address` (block: register pointer, 32 bits; word: command, 16 bits; bytes:
   /// offset, 8 bits), as the wire would give it. Leaves pointer and journal alone. Throws
   /// RangeError when there is no such register, or when it cannot hold the value.
   std::uint32_t registerAt(std::uint32_t address) const;
   void registerIs(std::uint32_t address, std::uint32_t value);

   /// Takes over the names of `model`, whose addresses are this device's register addresses, and
   /// sets the registers that `values` names. Throws RangeError for a name that is not in the
   /// model, and as registerIs() does.
   void registersAre(const HardwareRegisterFile& model,
                     const std::map<Platform::String, std::uint32_t>& values = {});

   /// The address under a name of the model that was loaded last, if it has one.
   std::optional<std::uint32_t> addressOf(std::string_view name) const;

   /// Where the next read would begin, in the unit of register addresses, rounded down.
   std::uint32_t pointer() const;

   FaultPlan& faults() noexcept { return _faults; }
   const FaultPlan& faults() const noexcept { return _faults; }

   std::vector<Access> journal() const;
   void journalClear();

   // What the bus does.

   /// A write message without its address byte.
   void write(std::span<const std::uint8_t> bytes);

   /// A read message: fills `bytes`, each with the bits of `xorMask` inverted.
   void read(std::span<std::uint8_t> bytes, std::uint8_t xorMask = 0);

   /// A read message that starts with the number of bytes that follow: reads that number, limits
   /// it to `limit`, and reads so many. Returns all the bytes, the number first; a number that no
   /// SMBus block may have (0, or more than 32) comes alone.
   std::vector<std::uint8_t> readCounted(std::optional<std::size_t> limit,
                                         std::uint8_t xorMask = 0);

   /// Notes that a transaction failed with `error`.
   void failed(bool isRead, int error);

private:
   std::uint32_t _registers() const noexcept;
   unsigned _width() const noexcept;
   std::size_t _checked(std::uint32_t address, std::size_t width) const;
   std::uint8_t _next() noexcept;
   void _store(std::uint8_t byte) noexcept;
   void _note(Access access);
   std::uint32_t _pointer() const noexcept;

   const Kind _kind;
   const unsigned _unit;
   FaultPlan _faults;

   mutable std::mutex _mutex;
   std::vector<std::uint8_t> _memory; // in the order in which the wire has it
   std::size_t _position = 0;         // in _memory
   std::map<Platform::String, std::uint32_t, std::less<>> _names;
   std::deque<Access> _journal;
};

} // namespace Hardware
