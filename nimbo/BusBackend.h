#pragma once

#include <cstdint>
#include <span>

namespace Nimbo {

/// A bus as the daemon drives it: transfers between begin() and end(), by one thread at a time.
class BusBackend {
public:
   BusBackend() = default;
   virtual ~BusBackend() = default;
   BusBackend(const BusBackend&) = delete;
   BusBackend& operator=(const BusBackend&) = delete;

   /// Gets the bus for a sequence of transfers that nobody else's come between, waiting for others
   /// as long as it takes. Throws std::system_error, whose text names the bus, when the bus cannot
   /// be had; end() is then not called.
   virtual void begin() = 0;
   virtual void end() noexcept = 0;

   /// One transfer: the bytes of the offset, then `data`, go to the device. Returns 0 or an errno.
   virtual int write(std::uint8_t device, std::span<const std::uint8_t> offset,
                     std::span<const std::uint8_t> data) = 0;

   /// One transfer: the bytes of the offset go to the device, then, after a repeated start, `data`
   /// is filled. Returns 0 or an errno, with `data` then left undefined.
   virtual int read(std::uint8_t device, std::span<const std::uint8_t> offset,
                    std::span<std::uint8_t> data) = 0;
};

} // namespace Nimbo
