#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace Nimbo {

/// One bus that the daemon serves, and which requests are meant for it. A plain value.
struct BusConfig {
   std::string name;        ///< for people: logs, metrics, status; unique in a configuration
   std::uint8_t number = 0; ///< 0 to 127: the bus number that requests give

   /// Only requests that name this PCI function, or this controller (0 to 2047), are meant; any,
   /// where there is none. Of several buses that fit a request, the one that asks for more wins.
   std::optional<std::uint32_t> pciBdf = std::nullopt;
   std::optional<std::uint16_t> controller = std::nullopt;

   /// The bus: "/dev/i2c-3". If `simulated`, that is only what the simulated bus is called.
   std::string device;
   bool simulated = false;

   /// How long the controller waits for a transfer, in steps of 10 ms, and how often it tries one
   /// again that lost arbitration. The system's own where there is none. Not for simulated buses.
   std::optional<std::chrono::milliseconds> timeout = std::nullopt;
   std::optional<unsigned> retries = std::nullopt;

   bool operator==(const BusConfig&) const = default;
};

} // namespace Nimbo
