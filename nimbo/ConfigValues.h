#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "nimbo/BusConfig.h"
#include "nimbo/Config.h"

/// How single values of the configuration are written, in files and on command lines alike. All
/// throw std::invalid_argument that says what is wrong.
namespace Nimbo {

constexpr std::size_t mostBuses = 256;
constexpr std::size_t mostConnections = 65536;
constexpr std::uint8_t mostBusNumber = 127;
constexpr std::uint16_t mostController = 2047;

/// "0660": permissions of a file, in octal.
mode_t socketModeFrom(std::string_view text);

/// A name in a directory. No path.
std::string socketFileFrom(const std::string& text);

/// "0000:03:00.0", or without the domain, as requests give a PCI function.
std::uint32_t pciBdfFrom(std::string_view text);

/// "3=/dev/i2c-7": a bus by number and device. Its name is "bus3".
BusConfig busFrom(std::string_view text);

/// The N of "/dev/i2c-N"; nothing for another path.
std::optional<unsigned> i2cBusNumber(std::string_view path);

/// The bus of `buses` that fits the same requests as `bus` and asks for no less, or null: nobody
/// could say which of the two is meant.
const BusConfig* rivalOf(const BusConfig& bus, const std::vector<BusConfig>& buses);

/// Whether a bus of that device is simulated on the board; throws if not.
void checkSimulated(const std::string& device, const Board::SimulatedBoard& board);

} // namespace Nimbo
