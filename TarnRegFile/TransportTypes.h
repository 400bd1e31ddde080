#pragma once

#include <cstdint>

#include "platform/entity/EnumType.h"

namespace TarnRegFile {

/// The kind of bus. Stored in 8 bits; the value 1 is not used.
enum class TransportType : std::uint8_t {
   i2cBus = 0,  ///< behind an I2C or SMBus bus
   pciBus = 2,  ///< memory-mapped PCI device
   spiBus = 3,  ///< SPI device
   mockBus = 4, ///< in-memory mock device
};

/// How the bus is reached. Stored in 8 bits.
enum class TransportProtocol : std::uint8_t {
   pciMmio = 0,    ///< PCI memory-mapped access
   sornAsync = 1,  ///< asynchronous I2C through the access manager
   i2cDev = 2,     ///< the kernel's I2C device
   nimboSmbus = 3, ///< SMBus through the Nimbo daemon
   spiAccess = 4,  ///< SPI through the hardware-access handle
   mockAccess = 5, ///< the mock
};

/// The dialect that is spoken. Stored in 8 bits.
enum class TransportFlavour : std::uint8_t {
   pciDefault = 0,
   sornDefault = 1,
   i2cDevFlavour1 = 2,
   i2cDevFlavour2 = 3,
   nimboSmbusFlavour1 = 4,
   nimboSmbusFlavour2 = 5,
   spiDefault = 6,
   mockDefault = 7,
};

} // namespace TarnRegFile

template <>
struct Platform::EnumTraits<TarnRegFile::TransportType> {
   static constexpr std::string_view name = "TarnRegFile::TransportType";
   static constexpr EnumEntry entries[] = {
      {0, "i2cBus"}, {2, "pciBus"}, {3, "spiBus"}, {4, "mockBus"}};
};

template <>
struct Platform::EnumTraits<TarnRegFile::TransportProtocol> {
   static constexpr std::string_view name = "TarnRegFile::TransportProtocol";
   static constexpr EnumEntry entries[] = {{0, "pciMmio"},    {1, "sornAsync"}, {2, "i2cDev"},
                                           {3, "nimboSmbus"}, {4, "spiAccess"}, {5, "mockAccess"}};
};

template <>
struct Platform::EnumTraits<TarnRegFile::TransportFlavour> {
   static constexpr std::string_view name = "TarnRegFile::TransportFlavour";
   static constexpr EnumEntry entries[] = {{0, "pciDefault"},         {1, "sornDefault"},
                                           {2, "i2cDevFlavour1"},     {3, "i2cDevFlavour2"},
                                           {4, "nimboSmbusFlavour1"}, {5, "nimboSmbusFlavour2"},
                                           {6, "spiDefault"},         {7, "mockDefault"}};
};
