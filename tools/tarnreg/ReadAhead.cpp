#include "tools/tarnreg/ReadAhead.h"

#include <algorithm>

namespace TarnReg {

ReadAhead::ReadAhead(Device& device,
                     const std::vector<const TarnRegFile::HardwareRegister*>& registers)
   : _device(device), _registers(registers) {}

std::size_t ReadAhead::_window() const {
   using Milliseconds = std::chrono::duration<double, std::milli>;
   const Milliseconds timeout(_device.accessTimeout());
   if (timeout.count() == 0) {
      return most;
   }
   // The time an access has runs from when it is asked for. So that none spends it waiting for its
   // turn on a slow bus, no more are asked for than take a quarter of it, as fast as it has been.
   if (_done == 0) {
      return 1;
   }
   const Milliseconds each =
      (std::chrono::steady_clock::now() - _start) / static_cast<double>(_done);
   return static_cast<std::size_t>(
      std::clamp(timeout / (4 * each), 1.0, static_cast<double>(most)));
}

std::uint32_t ReadAhead::next() {
   if (!_device.isAsync()) {
      return _device.read(_registers.at(_done++)->name);
   }
   for (const std::size_t window = _window();
        _begun < _registers.size() && _inFlight.size() < window;) {
      _inFlight.push_back(_device.readBegin(_registers[_begun++]->name));
   }
   const std::shared_ptr<PendingAccess> access = std::move(_inFlight.front());
   _inFlight.pop_front();
   ++_done;
   return _device.finish(access);
}

} // namespace TarnReg
