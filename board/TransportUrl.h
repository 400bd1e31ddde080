#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "board/Platforms.h"
#include "platform/entity/Ptr.h"
#include "platform/hardware/SpidevBackend.h"
#include "TarnRegFile/I2cFlavour.h"
#include "TarnRegFile/PciAddress.h"
#include "TarnRegFile/TransportDescriptor.h"

namespace Board {

/// In memory, and in a values file.
struct MockAt {
   std::string valuesFile; ///< empty for what the environment names, if anything
};

/// A PCI device's register space, or an ordinary file in its place.
struct PciAt {
   std::string path;
};

/// A device on one of the kernel's I2C buses.
struct I2cAt {
   std::string path;
   std::int32_t address = 0;
   TarnRegFile::I2cFlavour flavour = TarnRegFile::I2cFlavour::dataBlock;
};

/// A device behind one of the kernel's SPI devices.
struct SpiAt {
   Hardware::SpidevSettings settings;
};

/// A device behind the SMBus proxy daemon.
struct SmbusAt {
   std::uint8_t busId = 0;
   std::uint8_t devAddr = 0;
   std::uint8_t accelId = 0;
   TarnRegFile::TransportFlavour flavour = TarnRegFile::TransportFlavour::nimboSmbusFlavour1;
   std::optional<TarnRegFile::PciAddress> pciAddr;
   std::string socket; ///< the daemon's; empty for where the environment says
};

/// A device on one of the kernel's I2C buses, through the access manager.
struct SornAt {
   std::string path;
   std::uint8_t address = 0;
   std::uint32_t timeout = 0; ///< milliseconds that an access may take; 0 for no limit
};

/// What the mock finds its values file by.
inline constexpr const char* valuesFileVariable = "REG_VALUES_FILE";

/// What the SMBus transport finds its daemon's socket by: a directory, and a name in it.
inline constexpr const char* socketDirectoryVariable = "NM_SOCKET_DIR";
inline constexpr const char* socketFileVariable = "NM_SOCKET_FILE";

/// What they are where the environment says nothing.
inline constexpr const char* defaultSocketDirectory = "/var/run/platform";
inline constexpr const char* defaultSocketFile = "smbus";

/// Says in one line of text how a device is reached, "scheme:rest":
///
///     mock:                              in memory, and in the file that REG_VALUES_FILE names
///     mock:PATH                          in memory and in the values file at PATH
///     pci:[DOMAIN:]BUS:DEVICE.FUNCTION[/resourceN]
///                                        a BAR, resource0 unless another is named
///     pci:PATH                           a file, by its path with a slash in it
///     i2c:PATH@ADDRESS[?flavour=1|2]     flavour 1 unless told otherwise
///     spi:PATH[?speed=HZ&mode=0..3]      clock limit and mode as the system has them unless told
///     smbus:BUS@ADDRESS[?flavour=1|2&controller=N&pci=[DOMAIN:]BUS:DEVICE.FUNCTION&socket=PATH]
///                                        flavour 1, controller 0, no PCI function, and the socket
///                                        that NM_SOCKET_DIR and NM_SOCKET_FILE name, unless told
///     sorn:PATH@ADDRESS[?timeout=MS]     without limit unless told; 0 is none either
///
/// Numbers are decimal, 0x hexadecimal or 0b binary. A plain value.
class TransportUrl {
public:
   using Where = std::variant<MockAt, PciAt, I2cAt, SpiAt, SmbusAt, SornAt>;

   /// Opens nothing. Throws std::invalid_argument, naming the text and what is wrong with it.
   explicit TransportUrl(std::string_view text);

   const Where& where() const noexcept { return _where; }

   /// As it was given.
   const std::string& text() const noexcept { return _text; }

   /// Makes a relative path of a mock's values file or of a daemon's socket count from `directory`.
   void directoryIs(const std::string& directory);

   /// The file that the mock keeps its values in, from here or from REG_VALUES_FILE; empty for
   /// none, and for the other transports.
   std::string valuesFile() const;

   /// A new descriptor that selects the transport. A PCI device is mapped for it; it throws what
   /// Hardware::pciHwAccessImplFactory() throws. For a mock with a path it also points
   /// REG_VALUES_FILE, which the mock reads, there, and for a daemon with a socket the two
   /// variables that the SMBus transport reads: to be called while the process has one thread, and
   /// followed by the making of the transport before it is called for another one. A mock or a
   /// daemon without gets the environment that `platforms` found; without `platforms`, what was
   /// pointed there last. Throws std::system_error ENAMETOOLONG (generic category) for a socket of
   /// more than 107 characters.
   ///
   /// The access manager of `platforms` has the device of sorn:, and throws what
   /// Hardware::SornManager::linuxBus() throws; without it, std::logic_error is thrown. The other
   /// transports need none.
   Platform::Ptr<TarnRegFile::BaseTransportDescriptor>
   descriptor(Platforms* platforms = nullptr) const;

private:
   std::string _text;
   Where _where;
};

} // namespace Board
