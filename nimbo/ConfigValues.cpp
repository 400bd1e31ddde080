#include "nimbo/ConfigValues.h"

#include <algorithm>
#include <charconv>
#include <set>
#include <stdexcept>

#include <fmt/format.h>

#include "board/Number.h"
#include "board/PciFunction.h"
#include "board/TomlTable.h"

namespace Nimbo {

namespace {

using Board::shown;

[[noreturn]] void refuse(const std::string& text) {
   throw std::invalid_argument(text);
}

} // namespace

mode_t socketModeFrom(std::string_view text) {
   constexpr unsigned all = 0777;
   unsigned mode = 0;
   const char* const end = text.data() + text.size();
   const auto [stop, error] = std::from_chars(text.data(), end, mode, 8);
   if (error != std::errc() || stop != end || mode > all) {
      refuse(fmt::format("'{}' is no mode of a socket: octal, as in \"0660\"", shown(text)));
   }
   return mode;
}

std::string socketFileFrom(const std::string& text) {
   if (text.empty() || text == "." || text == ".." ||
       text.find_first_of(std::string_view("/\0", 2)) != std::string::npos) {
      refuse(fmt::format("'{}' is no name of a file in the socket's directory", shown(text)));
   }
   return text;
}

std::uint32_t pciBdfFrom(std::string_view text) {
   const auto function = Board::pciFunctionFrom(text);
   if (!function) {
      refuse(fmt::format("'{}' is no PCI function: of the form \"0000:03:00.0\"", shown(text)));
   }
   const std::uint32_t bdf = std::uint32_t{function->domain} << 16U |
                             std::uint32_t{function->bus} << 8U |
                             std::uint32_t{function->device} << 3U | function->function;
   if (bdf == 0) {
      refuse(fmt::format("no request can name the PCI function {}: in requests it stands for none",
                         text));
   }
   return bdf;
}

BusConfig busFrom(std::string_view text) {
   const std::size_t equals = text.find('=');
   const auto number = Board::numberFrom(text.substr(0, equals));
   if (equals == std::string_view::npos || !number || *number > mostBusNumber) {
      refuse(fmt::format("'{}' is no bus: NUMBER=DEVICE, with a number from 0 to {}", shown(text),
                         mostBusNumber));
   }
   BusConfig bus;
   bus.number = static_cast<std::uint8_t>(*number);
   bus.name = fmt::format("bus{}", bus.number);
   bus.device = text.substr(equals + 1);
   if (!bus.device.starts_with('/')) {
      refuse(fmt::format("the device of bus {} must be an absolute path, as /dev/i2c-3 is",
                         bus.number));
   }
   return bus;
}

std::optional<unsigned> i2cBusNumber(std::string_view path) {
   constexpr std::string_view front = "/dev/i2c-";
   unsigned number = 0;
   if (!path.starts_with(front)) {
      return std::nullopt;
   }
   path.remove_prefix(front.size());
   const char* const end = path.data() + path.size();
   const auto [stop, error] = std::from_chars(path.data(), end, number);
   if (error != std::errc() || stop != end) {
      return std::nullopt;
   }
   return number;
}

const BusConfig* rivalOf(const BusConfig& bus, const std::vector<BusConfig>& buses) {
   const auto rival = std::find_if(buses.begin(), buses.end(), [&](const BusConfig& other) {
      return &other != &bus && other.number == bus.number && other.pciBdf == bus.pciBdf &&
             other.controller == bus.controller;
   });
   return rival == buses.end() ? nullptr : &*rival;
}

void checkSimulated(const std::string& device, const Board::SimulatedBoard& board) {
   std::set<std::string> there;
   for (const Board::I2cSpec& spec : board.i2c) {
      there.insert(spec.bus);
   }
   if (!there.contains(device)) {
      refuse(fmt::format("'{}' is not simulated on the board{}", shown(device),
                         there.empty() ? "; no I2C bus is"
                                       : fmt::format("; there is {}", fmt::join(there, ", "))));
   }
}

} // namespace Nimbo
