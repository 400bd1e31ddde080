#include "board/SimulatedBoardParser.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <utility>

#include <fmt/format.h>

#include "board/FileError.h"
#include "board/Number.h"
#include "board/PciFunction.h"
#include "board/TomlTable.h"
#include "TarnRegFile/RegisterFileChecker.h"
#include "TarnRegFile/RegisterFileHelper.h"

namespace Board {

namespace {

constexpr std::uint64_t maxPciSize = std::uint64_t{1} << 30;
constexpr std::int64_t maxDelay = 3'600'000'000; // an hour, in microseconds
constexpr std::size_t maxDevices = 1024;

std::string joined(std::initializer_list<std::string_view> names) {
   return fmt::format("{}", fmt::join(names, ", "));
}

/// The decimal number at the front of `text`, without needless zeros, which is taken off it.
std::optional<unsigned> takeDecimal(std::string_view& text) {
   const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
   if (digits == 0 || digits > 6 || (digits > 1 && text[0] == '0')) {
      return std::nullopt;
   }
   const auto number = numberFrom(text.substr(0, digits));
   text.remove_prefix(digits);
   return static_cast<unsigned>(*number);
}

bool isI2cPath(std::string_view path) {
   constexpr std::string_view front = "/dev/i2c-";
   if (!path.starts_with(front)) {
      return false;
   }
   path.remove_prefix(front.size());
   return takeDecimal(path) && path.empty();
}

/// The controller's number, if `path` names an SPI device.
std::optional<unsigned> controllerOf(std::string_view path) {
   constexpr std::string_view front = "/dev/spidev";
   if (!path.starts_with(front)) {
      return std::nullopt;
   }
   path.remove_prefix(front.size());
   const auto controller = takeDecimal(path);
   if (!controller || !path.starts_with('.')) {
      return std::nullopt;
   }
   path.remove_prefix(1);
   return takeDecimal(path) && path.empty() ? controller : std::nullopt;
}

/// "0000:03:00.0": domain, bus, device, function, in lower-case hex.
bool isPciFunction(std::string_view text) {
   const auto function = pciFunctionFrom(text);
   return function && pciFunctionText(*function) == text;
}

class Parser {
public:
   explicit Parser(const std::string& path) : _file(path) {}

   SimulatedBoard parse(const toml::table& root) {
      const toml::node* simulate = root.get("simulate");
      if (!simulate) {
         throw FileError(
            fmt::format("{}:1:1: there is no [simulate] table: nothing to simulate", _file));
      }
      const TomlTable file(_file, root, "the file");
      if (!simulate->is_table()) {
         file.fail(simulate->source(), "'simulate' must be a table");
      }
      TomlTable reader(_file, *simulate->as_table(), "[simulate]");
      _devices(reader, "i2c", [&](TomlTable& device) { _i2c(device); });
      _devices(reader, "spi", [&](TomlTable& device) { _spi(device); });
      _devices(reader, "pci", [&](TomlTable& device) { _pci(device); });
      reader.finish();
      if (_names.empty()) {
         reader.fail("there is no device to simulate");
      }
      return std::move(_board);
   }

private:
   template <typename Take>
   void _devices(TomlTable& reader, std::string_view bus, const Take& take) {
      const toml::node* node = reader.take(bus);
      if (!node) {
         return;
      }
      if (!node->is_table()) {
         reader.fail(node->source(), fmt::format("'simulate.{}' must be a table of devices", bus));
      }
      for (const auto& [key, device] : *node->as_table()) {
         const std::string name(key.str());
         if (!device.is_table()) {
            reader.fail(device.source(), fmt::format("'{}' must be a table", shown(name)));
         }
         if (name.empty() || name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRST"
                                                    "UVWXYZ0123456789_-.") != std::string::npos) {
            reader.fail(key.source(), fmt::format("'{}' is no name for a device: letters, digits, "
                                                  "'_', '-' and '.' only",
                                                  shown(name)));
         }
         if (!_names.insert(name).second) {
            reader.fail(key.source(), fmt::format("there are two devices named '{}'", shown(name)));
         }
         if (_names.size() > maxDevices) {
            reader.fail(key.source(), fmt::format("more than {} devices", maxDevices));
         }
         _name = name;
         TomlTable one(_file, *device.as_table(),
                       fmt::format("[simulate.{}.{}]", bus, shown(name)));
         take(one);
         one.finish();
      }
   }

   /// What all devices have. `registers` registers of up to `widest`, at multiples of `step`;
   /// the list's register numbers count `listUnit` of the device's addresses.
   void _common(TomlTable& reader, DeviceSpec& spec, std::uint64_t registers, std::uint64_t widest,
                std::uint32_t step, std::uint8_t listUnit) {
      spec.name = _name;
      spec.present = reader.flag("present", true);
      if (const toml::node* list = reader.take("list")) {
         spec.model = _model(reader, *list, listUnit);
      }
      const toml::node* values = reader.take("values");
      if (!values) {
         return;
      }
      const toml::table* table = values->as_table();
      if (!table) {
         reader.fail(values->source(), "'values' must be a table of registers and their values");
      }
      std::set<std::uint32_t> seen;
      for (const auto& [key, value] : *table) {
         const std::uint64_t address = _address(reader, spec, key);
         if (address >= registers) {
            reader.fail(key.source(), fmt::format("there is no register at {:#x}", address));
         }
         if (address % step != 0) {
            reader.fail(key.source(), fmt::format("{:#x} is no multiple of {}", address, step));
         }
         const auto where = static_cast<std::uint32_t>(address);
         if (!seen.insert(where).second) {
            reader.fail(key.source(), fmt::format("the register at {:#x} has two values", where));
         }
         spec.values.emplace_back(
            where, static_cast<std::uint32_t>(reader.number(value, key.str(), 0, widest)));
      }
   }

   std::uint64_t _address(const TomlTable& reader, const DeviceSpec& spec, const toml::key& key) {
      if (const auto number = numberFrom(key.str())) {
         return *number;
      }
      const auto* record = spec.model ? spec.model->findRegister(key.str()) : nullptr;
      if (!record) {
         reader.fail(key.source(),
                     spec.model ? fmt::format("the list has no register '{}'", shown(key.str()))
                                : fmt::format("'{}' is no register address, and there is no list",
                                              shown(key.str())));
      }
      return record->address;
   }

   Platform::Ptr<Hardware::HardwareRegisterFile>
   _model(const TomlTable& reader, const toml::node& node, std::uint8_t unit) const {
      const std::filesystem::path beside = std::filesystem::path(_file).parent_path();
      const std::string path = (beside / reader.text(node, "list")).string();
      try {
         if (const auto line = TarnRegFile::RegisterFileChecker::stoppingLine(path)) {
            reader.fail(node.source(),
                        fmt::format("{}:{}: this array cannot be expanded", shown(path), line));
         }
         return TarnRegFile::RegFileHelper::RegFileHelperIs("list")->parseCsv(path, unit);
      } catch (const FileError&) {
         throw;
      } catch (const std::exception& error) {
         reader.fail(node.source(), fmt::format("{}: {}", shown(path), error.what()));
      }
   }

   void _delayAndFaults(TomlTable& reader, DeviceSpec& spec) {
      spec.delay = std::chrono::microseconds(reader.number("delay_us", 0, maxDelay, 0));
      const toml::node* node = reader.take("faults");
      if (!node) {
         return;
      }
      const toml::array* faults = node->as_array();
      if (!faults) {
         reader.fail(node->source(), "'faults' must be an array of tables");
      }
      for (const toml::node& fault : *faults) {
         if (!fault.is_table()) {
            reader.fail(fault.source(), "a fault must be a table");
         }
         TomlTable one(_file, *fault.as_table(), "a fault");
         spec.faults.push_back(_fault(one));
         one.finish();
      }
   }

   static Hardware::Fault _fault(TomlTable& reader) {
      constexpr auto most = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
      Hardware::Fault fault;
      const std::string kind = reader.text(reader.need("kind"), "kind");
      const auto knownKind = Hardware::faultKindFromString(kind);
      if (!knownKind) {
         reader.failAt("kind", fmt::format("'{}' is no kind of fault: {}", shown(kind),
                                           joined({"nak", "eio", "timeout", "short", "wrong"})));
      }
      fault.kind = *knownKind;
      if (const toml::node* node = reader.take("direction")) {
         const std::string direction = reader.text(*node, "direction");
         const auto known = Hardware::faultDirectionFromString(direction);
         if (!known) {
            reader.failAt("direction", fmt::format("'{}' is no direction: {}", shown(direction),
                                                   joined({"any", "read", "write"})));
         }
         fault.direction = *known;
      }
      fault.first = reader.number("first", 1, most, 1);
      fault.count = reader.number("count", 0, most, 0);
      if (fault.kind == Hardware::FaultKind::wrongBytes) {
         fault.xorMask = static_cast<std::uint8_t>(reader.number("mask", 1, 0xff, 0xff));
      }
      if (fault.kind == Hardware::FaultKind::shortRead) {
         fault.length = reader.number("length", 0, 0xffff, 0);
      }
      return fault;
   }

   void _i2c(TomlTable& reader) {
      I2cSpec spec;
      spec.bus = reader.text(reader.need("bus"), "bus");
      if (!isI2cPath(spec.bus)) {
         reader.failAt("bus", "'bus' must be of the form \"/dev/i2c-N\"");
      }
      spec.address = static_cast<std::uint8_t>(reader.neededNumber("address", 0x03, 0x77));
      const std::string kind = reader.text(reader.need("kind"), "kind");
      const auto known = Hardware::simulatedI2cKindFromString(kind);
      if (!known) {
         reader.failAt("kind", fmt::format("'{}' is no kind of I2C device: {}", shown(kind),
                                           joined({"block", "word", "bytes"})));
      }
      spec.kind = *known;
      std::uint64_t registers = 0x100;
      std::uint64_t widest = spec.kind == Hardware::SimulatedI2cKind::word ? 0xffff : 0xff;
      if (spec.kind == Hardware::SimulatedI2cKind::block) {
         spec.addressUnit = static_cast<unsigned>(reader.number("address_unit", 1, 4, 1));
         registers = 0x10000;
         widest = 0xffffffff;
      }
      _common(reader, spec, registers, widest, 1, 1);
      _delayAndFaults(reader, spec);
      for (const I2cSpec& other : _board.i2c) {
         if (other.bus == spec.bus && other.address == spec.address) {
            reader.failAt("address", fmt::format("'{}' is at {:#x} of {} already", other.name,
                                                 spec.address, spec.bus));
         }
      }
      _board.i2c.push_back(std::move(spec));
   }

   void _spi(TomlTable& reader) {
      SpiSpec spec;
      spec.device = reader.text(reader.need("device"), "device");
      const auto controller = controllerOf(spec.device);
      if (!controller) {
         reader.failAt("device", "'device' must be of the form \"/dev/spidevB.C\"");
      }
      spec.controller = *controller;
      _common(reader, spec, 0x100, 0xffff, 1, 1);
      _delayAndFaults(reader, spec);
      for (const SpiSpec& other : _board.spi) {
         if (other.device == spec.device) {
            reader.failAt("device", fmt::format("'{}' is at {} already", other.name, spec.device));
         }
      }
      _board.spi.push_back(std::move(spec));
   }

   void _pci(TomlTable& reader) {
      PciSpec spec;
      spec.function = reader.text(reader.need("function"), "function");
      if (!isPciFunction(spec.function)) {
         reader.failAt("function", "'function' must be of the form \"0000:03:00.0\", in lower-case "
                                   "hex");
      }
      spec.resource = static_cast<unsigned>(reader.number("resource", 0, 5, 0));
      spec.size = reader.neededNumber("size", 4, maxPciSize);
      if (spec.size % 4 != 0) {
         reader.failAt("size", "'size' must be a multiple of 4");
      }
      spec.vendor = static_cast<std::uint32_t>(reader.number("vendor", 0, 0xffff, 0));
      spec.device = static_cast<std::uint32_t>(reader.number("device", 0, 0xffff, 0));
      _common(reader, spec, spec.size, 0xffffffff, 4, 4);
      for (const PciSpec& other : _board.pci) {
         if (other.function == spec.function && other.resource == spec.resource) {
            reader.failAt("resource", fmt::format("'{}' is resource {} of {} already", other.name,
                                                  spec.resource, spec.function));
         }
         if (other.function == spec.function &&
             (other.vendor != spec.vendor || other.device != spec.device)) {
            reader.failAt("vendor",
                          fmt::format("'{}' gives {} other ids", other.name, spec.function));
         }
      }
      _board.pci.push_back(std::move(spec));
   }

   const std::string& _file;
   SimulatedBoard _board;
   std::set<std::string> _names;
   std::string _name; // of the device that is being read
};

} // namespace

SimulatedBoard simulatedBoardFromToml(const toml::table& root, const std::string& path) {
   return Parser(path).parse(root);
}

SimulatedBoard simulatedBoardFromText(std::string_view text, const std::string& path) {
   return simulatedBoardFromToml(tomlFromText(text, path), path);
}

SimulatedBoard simulatedBoardFromFile(const std::string& path) {
   return simulatedBoardFromToml(tomlFromFile(path), path);
}

} // namespace Board
