#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/entity/Export.h"
#include "platform/hardware/SimulatedI2cDevice.h"

namespace Hardware {

/// One message of an I2C transaction. A plain value.
struct I2cMessage {
   std::uint8_t address = 0; ///< 7 bits
   bool isRead = false;
   std::vector<std::uint8_t> bytes; ///< written; or, of the size asked for, read

   /// A read whose first byte says how many follow (an SMBus block). `bytes` then asks for the
   /// number itself and as many bytes behind the block, at least one, and comes back in full size.
   bool receivesLength = false;

   /// Out: bytes that the device really gave, fewer than asked for if it stopped early. What it
   /// did not give reads 0xff, as a line that nobody pulls down.
   std::size_t received = 0;
};

/// A simulated I2C bus: devices at 7-bit addresses, and transactions with them, one at a time.
///
/// Every transaction can be logged as the wire shows it, in one line, numbers in lower-case hex:
///
///     S 50 W 12 34 | Sr 50 R aa bb cc dd P
///
/// S and Sr are start and repeated start, followed by the address and the direction, P is the
/// stop. A message that fails says so in place of its bytes, and ends the transaction: NAK when
/// nobody answers, EIO when the transfer breaks off, TIMEOUT when the bus hangs, and EPROTO behind
/// a block length that is not possible.
///
/// Held through std::shared_ptr. May be used on any thread; transactions wait for each other.
class TARN_PLATFORM_API SimulatedI2cBus {
public:
   /// Takes one line, without a newline. Called on the thread of the transaction, in the order of
   /// the bus; must not use the bus.
   using WireLog = std::function<void(std::string_view line)>;

   static constexpr std::size_t addresses = 128;

   SimulatedI2cBus();
   ~SimulatedI2cBus();
   SimulatedI2cBus(const SimulatedI2cBus&) = delete;
   SimulatedI2cBus& operator=(const SimulatedI2cBus&) = delete;

   /// Puts a device at `address` in place of the one there; null takes it away. Throws RangeError
   /// for an address of more than 7 bits.
   void deviceIs(std::uint8_t address, std::shared_ptr<SimulatedI2cDevice> device);

   /// The device at `address`, or null.
   std::shared_ptr<SimulatedI2cDevice> device(std::uint8_t address) const;

   void wireLogIs(WireLog log);

   /// One transaction, from start to stop, with all messages in turn. Returns 0, or the errno that
   /// a controller's driver would give: ENXIO when nobody answers at an address, EIO, ETIMEDOUT,
   /// EPROTO. Messages behind the one that failed are not sent. Sleeps for the delays of the
   /// devices addressed.
   int transfer(std::span<I2cMessage> messages);

   /// What the lock of a device node is for a bus of the kernel: whoever wants several transactions
   /// with nobody else's in between holds it meanwhile. Only those who take it too respect it.
   std::mutex& exclusiveUse() noexcept { return _exclusiveUse; }

private:
   std::mutex _exclusiveUse;
   mutable std::mutex _devicesMutex;
   std::array<std::shared_ptr<SimulatedI2cDevice>, addresses> _devices;

   std::mutex _transferMutex; // held for a whole transaction
   WireLog _log;              // under _transferMutex
};

} // namespace Hardware
