#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/entity/Ptr.h"
#include "platform/hardware/FaultPlan.h"
#include "platform/hardware/HardwareRegisterFile.h"
#include "platform/hardware/SimulatedI2cDevice.h"

namespace Board {

/// What all simulated devices of a board file have in common. Plain values, as are all here.
struct DeviceSpec {
   std::string name;                                            ///< unique on the board
   std::vector<std::pair<std::uint32_t, std::uint32_t>> values; ///< by register address
   Platform::Ptr<Hardware::HardwareRegisterFile> model;         ///< names of registers; may be null
   std::vector<Hardware::Fault> faults;
   std::chrono::microseconds delay{};
   bool present = true;
};

struct I2cSpec : DeviceSpec {
   std::string bus; ///< "/dev/i2c-3"
   std::uint8_t address = 0;
   Hardware::SimulatedI2cKind kind = Hardware::SimulatedI2cKind::block;
   unsigned addressUnit = 1;
};

struct SpiSpec : DeviceSpec {
   std::string device;      ///< "/dev/spidev0.1"
   unsigned controller = 0; ///< the 0 of it: devices of one controller take turns
};

struct PciSpec : DeviceSpec {
   std::string function; ///< "0000:03:00.0"
   unsigned resource = 0;
   std::uint64_t size = 0;   ///< bytes
   std::uint32_t vendor = 0; ///< with `device`, if any is not 0: what the files of that name hold
   std::uint32_t device = 0;
};

/// What a board file says about what is to be simulated.
struct SimulatedBoard {
   std::vector<I2cSpec> i2c;
   std::vector<SpiSpec> spi;
   std::vector<PciSpec> pci;
};

} // namespace Board
