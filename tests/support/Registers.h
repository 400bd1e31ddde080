#pragma once

#include <cstdint>
#include <string>

#include "platform/hardware/HardwareRegisterFile.h"

namespace TestSupport {

/// Adds a register of 32 bits to a list, or replaces it.
inline void registerIs(Hardware::HardwareRegisterFile& file, const std::string& name,
                       std::uint32_t address, bool writable = true) {
   Hardware::HardwareRegister record;
   record.name = name;
   record.address = address;
   record.width = 32;
   record.arraySize = 1;
   record.writable = writable;
   file.nameToRegMapIs(name, record);
   file.addrToNameMapIs(address, name);
}

} // namespace TestSupport
