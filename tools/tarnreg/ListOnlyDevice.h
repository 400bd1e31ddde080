#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "tools/tarnreg/Device.h"
#include "tools/tarnreg/DevicePlace.h"

namespace TarnReg {

/// A device that is only its register list: nothing is opened, and accesses are a programming
/// error. Throws Failure (general) for a list that cannot be used.
std::unique_ptr<Device> listOnlyDevice(const std::string& name, const std::string& list,
                                       std::uint8_t addrBlockSize);

/// The same for the device at `place`, with the addresses that it has when it is opened.
std::unique_ptr<Device> listOnlyDevice(const DevicePlace& place);

/// The address units per register number of a device that is reached so.
std::uint8_t addrBlockSizeOf(const Board::TransportUrl& url);

} // namespace TarnReg
