#pragma once

#include <map>
#include <memory>
#include <string>

#include "board/SimulatedBoard.h"
#include "platform/hardware/SimulatedI2cBus.h"

namespace Board {

/// Simulated I2C buses by their paths, "/dev/i2c-3".
using SimulatedI2cBuses = std::map<std::string, std::shared_ptr<Hardware::SimulatedI2cBus>>;

/// The I2C buses of a board with all their devices: register names and values, faults, delays and
/// presence as the board file has them. A bus that no device is on does not exist. Each call makes
/// buses and devices of its own. Throws RangeError for a board that no file describes.
SimulatedI2cBuses simulatedI2cBuses(const SimulatedBoard& board);

} // namespace Board
