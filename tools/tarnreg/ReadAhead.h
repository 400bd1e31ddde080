#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "tools/tarnreg/Device.h"

namespace TarnReg {

/// Reads registers in their order. Of a device whose results arrive later, many are asked for ahead
/// of the one that is waited for, so that the bus never waits for this program.
class ReadAhead {
public:
   /// No more are in flight at a time.
   static constexpr std::size_t most = 1024;

   /// The registers have to stay as long as this.
   ReadAhead(Device& device, const std::vector<const TarnRegFile::HardwareRegister*>& registers);

   /// The value of the next register; to be called once for each. Throws AccessError.
   std::uint32_t next();

private:
   std::size_t _window() const;

   Device& _device;
   const std::vector<const TarnRegFile::HardwareRegister*>& _registers;
   const std::chrono::steady_clock::time_point _start = std::chrono::steady_clock::now();
   std::size_t _done = 0;
   std::size_t _begun = 0;
   std::deque<std::shared_ptr<PendingAccess>> _inFlight;
};

} // namespace TarnReg
