#include "board/TransportUrl.h"

#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

#include "board/Number.h"
#include "board/PciFunction.h"
#include "platform/entity/Errors.h"
#include "platform/hardware/PciHwAccessImpl.h"
#include "platform/hardware/SpiHwAccess.h"
#include "TarnRegFile/I2cSornTransportDescriptor.h"
#include "TarnRegFile/I2cTransportDescriptor.h"
#include "TarnRegFile/NimboSmbusTransportDescriptor.h"
#include "TarnRegFile/PciTransportDescriptor.h"
#include "TarnRegFile/SpiTransportDescriptor.h"

namespace Board {

namespace {

constexpr const char* pciDevices = "/sys/bus/pci/devices/";
constexpr std::uint32_t maxI2cAddress = 0x7f;
constexpr std::uint32_t maxSpiMode = 3;
constexpr std::uint32_t maxSmbusBus = 127;
constexpr std::uint32_t maxSmbusController = 255;
constexpr std::size_t maxSocketPath = sizeof(sockaddr_un::sun_path) - 1;

/// What stands behind the scheme, taken apart piece by piece.
class Rest {
public:
   Rest(std::string_view text, std::string_view form, std::string_view rest)
      : _text(text), _form(form), _place(rest) {}

   [[noreturn]] void fail(const std::string& reason) const {
      throw std::invalid_argument(
         fmt::format("transport '{}': {}; the form is {}", _text, reason, _form));
   }

   /// Takes what is behind a question mark off the place, and refuses options other than these.
   void optionsAre(std::initializer_list<std::string_view> known) {
      const std::size_t mark = _place.find('?');
      if (mark == std::string_view::npos) {
         return;
      }
      std::string_view rest = _place.substr(mark + 1);
      _place = _place.substr(0, mark);
      for (std::size_t end = 0; end != std::string_view::npos;) {
         end = rest.find('&');
         const std::string_view item = rest.substr(0, end);
         const std::size_t equals = std::min(item.find('='), item.size());
         const std::string_view name = item.substr(0, equals);
         if (std::find(known.begin(), known.end(), name) == known.end()) {
            fail(fmt::format("there is no option '{}'", name));
         }
         if (!_options.emplace(name, item.substr(std::min(equals + 1, item.size()))).second) {
            fail(fmt::format("option '{}' is given twice", name));
         }
         rest.remove_prefix(end == std::string_view::npos ? 0 : end + 1);
      }
   }

   /// An option's value, if it is given.
   std::optional<std::uint32_t> number(std::string_view name, std::uint32_t least,
                                       std::uint32_t most) const {
      const auto option = _options.find(name);
      if (option == _options.end()) {
         return std::nullopt;
      }
      const std::optional<std::uint64_t> number = numberFrom(option->second);
      if (!number || *number < least || *number > most) {
         fail(fmt::format("{} '{}' is no number from {} to {}", name, option->second, least, most));
      }
      return static_cast<std::uint32_t>(*number);
   }

   /// The same of an option that is no number.
   std::optional<std::string_view> text(std::string_view name) const {
      const auto option = _options.find(name);
      return option == _options.end() ? std::nullopt : std::optional(option->second);
   }

   /// An address on an I2C bus.
   std::uint8_t address(std::string_view text) const {
      const std::optional<std::uint64_t> number = numberFrom(text);
      if (!number || *number > maxI2cAddress) {
         fail(fmt::format("address '{}' is no number from 0 to {:#x}", text, maxI2cAddress));
      }
      return static_cast<std::uint8_t>(*number);
   }

   std::string_view place() const noexcept { return _place; }

private:
   const std::string_view _text;
   const std::string_view _form;
   std::string_view _place;
   std::map<std::string_view, std::string_view> _options;
};

TransportUrl::Where mockAt(Rest& rest) {
   return MockAt{std::string(rest.place())};
}

/// Whether `text` names a device's file for one of its BARs: "resource0", "resource2_wc".
bool isResource(std::string_view text) {
   constexpr std::string_view front = "resource";
   constexpr std::string_view combining = "_wc";
   if (text.ends_with(combining)) {
      text.remove_suffix(combining.size());
   }
   return text.size() == front.size() + 1 && text.starts_with(front) && text.back() >= '0' &&
          text.back() <= '5';
}

TransportUrl::Where pciAt(Rest& rest) {
   const std::string_view text = rest.place();
   const std::size_t slash = text.find('/');
   const std::string_view device = text.substr(0, slash);
   if (const auto function = pciFunctionFrom(device)) {
      const std::string_view resource =
         slash == std::string_view::npos ? "resource0" : text.substr(slash + 1);
      if (!isResource(resource)) {
         rest.fail(fmt::format("'{}' is none of resource0 to resource5", resource));
      }
      return PciAt{fmt::format("{}{}/{}", pciDevices, pciFunctionText(*function), resource)};
   }
   if (slash == std::string_view::npos || text.back() == '/') {
      rest.fail("neither a device nor the path of a file");
   }
   return PciAt{std::string(text)};
}

/// "PATH@ADDRESS", taken apart.
std::pair<std::string, std::uint8_t> pathAndAddress(const Rest& rest) {
   const std::string_view place = rest.place();
   const std::size_t at = place.rfind('@');
   if (at == std::string_view::npos || at == 0) {
      rest.fail(at == 0 ? "no path" : "no address");
   }
   return {std::string(place.substr(0, at)), rest.address(place.substr(at + 1))};
}

TransportUrl::Where i2cAt(Rest& rest) {
   rest.optionsAre({"flavour"});
   const auto [path, address] = pathAndAddress(rest);
   const std::uint32_t flavour = rest.number("flavour", 1, 2).value_or(1);
   return I2cAt{path, address, static_cast<TarnRegFile::I2cFlavour>(flavour)};
}

TransportUrl::Where sornAt(Rest& rest) {
   rest.optionsAre({"timeout"});
   const auto [path, address] = pathAndAddress(rest);
   return SornAt{path, address, rest.number("timeout", 0, UINT32_MAX).value_or(0)};
}

TransportUrl::Where spiAt(Rest& rest) {
   rest.optionsAre({"speed", "mode"});
   if (rest.place().empty()) {
      rest.fail("no path");
   }
   SpiAt where;
   where.settings.path = std::string(rest.place());
   where.settings.maxSpeedHz = rest.number("speed", 1, UINT32_MAX).value_or(0);
   if (const std::optional<std::uint32_t> mode = rest.number("mode", 0, maxSpiMode)) {
      where.settings.mode = static_cast<std::uint8_t>(*mode);
   }
   return where;
}

TransportUrl::Where smbusAt(Rest& rest) {
   rest.optionsAre({"flavour", "controller", "pci", "socket"});
   const std::string_view place = rest.place();
   const std::size_t at = place.find('@');
   if (at == std::string_view::npos) {
      rest.fail("no address");
   }
   const std::string_view bus = place.substr(0, at);
   const std::optional<std::uint64_t> number = numberFrom(bus);
   if (!number || *number > maxSmbusBus) {
      rest.fail(fmt::format("bus '{}' is no number from 0 to {}", bus, maxSmbusBus));
   }
   SmbusAt where;
   where.busId = static_cast<std::uint8_t>(*number);
   where.devAddr = rest.address(place.substr(at + 1));
   if (rest.number("flavour", 1, 2) == 2) {
      where.flavour = TarnRegFile::TransportFlavour::nimboSmbusFlavour2;
   }
   where.accelId =
      static_cast<std::uint8_t>(rest.number("controller", 0, maxSmbusController).value_or(0));
   if (const std::optional<std::string_view> pci = rest.text("pci")) {
      where.pciAddr = pciFunctionFrom(*pci);
      if (!where.pciAddr) {
         rest.fail(fmt::format("pci '{}' is no PCI function", *pci));
      }
   }
   if (const std::optional<std::string_view> socket = rest.text("socket")) {
      if (socket->empty() || socket->back() == '/') {
         rest.fail(fmt::format("socket '{}' is no path of a file", *socket));
      }
      where.socket = std::string(*socket);
   }
   return where;
}

struct Scheme {
   std::string_view name;
   std::string_view form;
   TransportUrl::Where (*where)(Rest& rest);
};

constexpr std::array schemes{
   Scheme{"mock", "mock:[VALUES-FILE]", mockAt},
   Scheme{"pci", "pci:BUS:DEVICE.FUNCTION[/resourceN] or pci:PATH", pciAt},
   Scheme{"i2c", "i2c:PATH@ADDRESS[?flavour=1|2]", i2cAt},
   Scheme{"spi", "spi:PATH[?speed=HZ&mode=0..3]", spiAt},
   Scheme{"smbus",
          "smbus:BUS@ADDRESS[?flavour=1|2&controller=N&pci=BUS:DEVICE.FUNCTION&socket=PATH]",
          smbusAt},
   Scheme{"sorn", "sorn:PATH@ADDRESS[?timeout=MS]", sornAt},
};

/// Names a daemon's socket to the SMBus transport, in its two pieces.
void socketIs(const std::string& path) {
   const std::size_t slash = path.rfind('/');
   const bool isBare = slash == std::string::npos;
   const std::string directory = isBare ? "." : path.substr(0, slash);
   const std::string file = isBare ? path : path.substr(slash + 1);
   if (directory.size() + 1 + file.size() > maxSocketPath) {
      // The transport would cut it, and go to another one.
      Platform::throwError(ENAMETOOLONG,
                           fmt::format("the path of a socket has {} characters at most, '{}' more",
                                       maxSocketPath, path));
   }
   ::setenv(socketDirectoryVariable, directory.c_str(), 1);
   ::setenv(socketFileVariable, file.c_str(), 1);
}

template <typename... Visitors>
struct Overloaded : Visitors... {
   using Visitors::operator()...;
};
template <typename... Visitors>
Overloaded(Visitors...) -> Overloaded<Visitors...>;

} // namespace

TransportUrl::TransportUrl(std::string_view text) : _text(text) {
   const std::size_t colon = text.find(':');
   for (const Scheme& scheme : schemes) {
      if (colon != std::string_view::npos && text.substr(0, colon) == scheme.name) {
         Rest rest(text, scheme.form, text.substr(colon + 1));
         _where = scheme.where(rest);
         return;
      }
   }
   std::string forms;
   for (const Scheme& scheme : schemes) {
      forms += (forms.empty() ? "" : ", ") + std::string(scheme.form);
   }
   throw std::invalid_argument(
      fmt::format("transport '{}' is not known; there is {}", text, forms));
}

void TransportUrl::directoryIs(const std::string& directory) {
   const auto fromThere = [&directory](std::string& path) {
      if (!path.empty()) {
         path = (std::filesystem::path(directory) / path).string();
      }
   };
   if (auto* mock = std::get_if<MockAt>(&_where)) {
      fromThere(mock->valuesFile);
   } else if (auto* smbus = std::get_if<SmbusAt>(&_where)) {
      fromThere(smbus->socket);
   }
}

std::string TransportUrl::valuesFile() const {
   const auto* mock = std::get_if<MockAt>(&_where);
   if (!mock) {
      return "";
   }
   const char* fromEnvironment = std::getenv(valuesFileVariable);
   return !mock->valuesFile.empty() || !fromEnvironment ? mock->valuesFile
                                                        : std::string(fromEnvironment);
}

Platform::Ptr<TarnRegFile::BaseTransportDescriptor>
TransportUrl::descriptor(Platforms* platforms) const {
   using Descriptor = Platform::Ptr<TarnRegFile::BaseTransportDescriptor>;
   return std::visit(
      Overloaded{[platforms](const MockAt& mock) -> Descriptor {
                    if (!mock.valuesFile.empty()) {
                       ::setenv(valuesFileVariable, mock.valuesFile.c_str(), 1);
                    } else if (platforms) {
                       platforms->restoreEnvironment(valuesFileVariable);
                    }
                    return TarnRegFile::mockTransportDescriptorFactory();
                 },
                 [](const PciAt& pci) -> Descriptor {
                    return TarnRegFile::pciTransportDescriptorFactory(
                       Hardware::pciHwAccessImplFactory(pci.path, pci.path));
                 },
                 [](const I2cAt& i2c) -> Descriptor {
                    return TarnRegFile::i2cTransportDescriptorFactory(i2c.path, i2c.address,
                                                                      i2c.flavour);
                 },
                 [](const SpiAt& spi) -> Descriptor {
                    const auto access =
                       Hardware::spiHwAccessFactory(spi.settings.path, spi.settings);
                    // Whoever names the device wants it used; whether it is there,
                    // the transfer tells.
                    access->readyIs(true);
                    return TarnRegFile::spiTransportDescriptorFactory(access);
                 },
                 [platforms](const SmbusAt& smbus) -> Descriptor {
                    if (!smbus.socket.empty()) {
                       socketIs(smbus.socket);
                    } else if (platforms) {
                       platforms->restoreEnvironment(socketDirectoryVariable);
                       platforms->restoreEnvironment(socketFileVariable);
                    }
                    return TarnRegFile::nimboSmbusTransportDescriptorFactory(
                       smbus.busId, smbus.devAddr, smbus.accelId, smbus.flavour, smbus.pciAddr);
                 },
                 [platforms](const SornAt& sorn) -> Descriptor {
                    if (!platforms) {
                       throw std::logic_error("sorn: needs an access manager");
                    }
                    const auto bus = platforms->sornManager().linuxBus(sorn.path);
                    bus->timeoutIs(sorn.timeout);
                    return TarnRegFile::i2cSornTransportDescriptorFactory(sorn.address, bus);
                 }},
      _where);
}

} // namespace Board
