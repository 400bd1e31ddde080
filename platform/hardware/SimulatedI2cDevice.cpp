#include "platform/hardware/SimulatedI2cDevice.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>
#include <linux/i2c.h>

#include "platform/entity/Errors.h"
#include "platform/hardware/HardwareRegisterFile.h"

namespace Hardware {

namespace {

constexpr std::size_t pointers = 0x10000;
constexpr std::size_t commands = 0x100;

std::size_t memorySize(SimulatedI2cKind kind, unsigned unit) {
   if (unit < 1 || unit > 4) {
      throw Platform::RangeError(fmt::format("An address unit of {} bytes is not possible", unit));
   }
   switch (kind) {
   case SimulatedI2cKind::block:
      return pointers * unit;
   case SimulatedI2cKind::word:
      return commands * 2;
   case SimulatedI2cKind::bytes:
      break;
   }
   return commands;
}

} // namespace

std::optional<SimulatedI2cKind> simulatedI2cKindFromString(std::string_view name) noexcept {
   for (const auto kind :
        {SimulatedI2cKind::block, SimulatedI2cKind::word, SimulatedI2cKind::bytes}) {
      if (simulatedI2cKindToString(kind) == name) {
         return kind;
      }
   }
   return std::nullopt;
}

std::string_view simulatedI2cKindToString(SimulatedI2cKind kind) noexcept {
   switch (kind) {
   case SimulatedI2cKind::block:
      return "block";
   case SimulatedI2cKind::word:
      return "word";
   case SimulatedI2cKind::bytes:
      return "bytes";
   }
   return "unknown";
}

SimulatedI2cDevice::SimulatedI2cDevice(Kind kind, unsigned addressUnit)
   : _kind(kind), _unit(addressUnit), _memory(memorySize(kind, addressUnit)) {}

SimulatedI2cDevice::~SimulatedI2cDevice() = default;

std::uint32_t SimulatedI2cDevice::_registers() const noexcept {
   return static_cast<std::uint32_t>(_kind == Kind::block ? pointers : commands);
}

/// Bytes of one register.
unsigned SimulatedI2cDevice::_width() const noexcept {
   return _kind == Kind::block ? 4 : _kind == Kind::word ? 2 : 1;
}

/// Where the register at `address` begins. One that begins behind the last whole register wraps,
/// as it does on the wire.
std::size_t SimulatedI2cDevice::_checked(std::uint32_t address, std::size_t width) const {
   if (address >= _registers()) {
      throw Platform::RangeError(fmt::format("A {} device has no register at {:#x}",
                                             simulatedI2cKindToString(_kind), address));
   }
   return std::size_t{address} * (_kind == Kind::block ? _unit : width);
}

std::uint32_t SimulatedI2cDevice::registerAt(std::uint32_t address) const {
   const unsigned width = _width();
   const std::size_t begin = _checked(address, width);
   const std::lock_guard lock(_mutex);
   std::uint32_t value = 0;
   for (unsigned i = 0; i < width; ++i) {
      const std::uint32_t byte = _memory[(begin + i) % _memory.size()];
      value |= byte << (8 * (_kind == Kind::block ? width - 1 - i : i));
   }
   return value;
}

void SimulatedI2cDevice::registerIs(std::uint32_t address, std::uint32_t value) {
   const unsigned width = _width();
   const std::size_t begin = _checked(address, width);
   if (width < 4 && (value >> (8 * width)) != 0) {
      throw Platform::RangeError(fmt::format("The register at {:#x} of a {} device cannot hold "
                                             "{:#x}",
                                             address, simulatedI2cKindToString(_kind), value));
   }
   const std::lock_guard lock(_mutex);
   for (unsigned i = 0; i < width; ++i) {
      _memory[(begin + i) % _memory.size()] =
         static_cast<std::uint8_t>(value >> (8 * (_kind == Kind::block ? width - 1 - i : i)));
   }
}

void SimulatedI2cDevice::registersAre(const HardwareRegisterFile& model,
                                      const std::map<Platform::String, std::uint32_t>& values) {
   std::map<Platform::String, std::uint32_t, std::less<>> names;
   model.forEachRegister([&](const Platform::String& name, const HardwareRegister& record) {
      names.insert_or_assign(name, record.address);
   });
   for (const auto& [name, value] : values) {
      const auto found = names.find(name);
      if (found == names.end()) {
         throw Platform::RangeError(fmt::format("There is no register '{}'", name));
      }
      registerIs(found->second, value);
   }
   const std::lock_guard lock(_mutex);
   _names = std::move(names);
}

std::optional<std::uint32_t> SimulatedI2cDevice::addressOf(std::string_view name) const {
   const std::lock_guard lock(_mutex);
   const auto found = _names.find(name);
   return found == _names.end() ? std::nullopt : std::optional(found->second);
}

std::uint32_t SimulatedI2cDevice::_pointer() const noexcept {
   const std::size_t unit = _kind == Kind::block ? _unit : _width();
   return static_cast<std::uint32_t>(_position / unit);
}

std::uint32_t SimulatedI2cDevice::pointer() const {
   const std::lock_guard lock(_mutex);
   return _pointer();
}

std::vector<SimulatedI2cDevice::Access> SimulatedI2cDevice::journal() const {
   const std::lock_guard lock(_mutex);
   return {_journal.begin(), _journal.end()};
}

void SimulatedI2cDevice::journalClear() {
   const std::lock_guard lock(_mutex);
   _journal.clear();
}

void SimulatedI2cDevice::_note(Access access) {
   if (_journal.size() == journalCapacity) {
      _journal.pop_front();
   }
   _journal.push_back(std::move(access));
}

std::uint8_t SimulatedI2cDevice::_next() noexcept {
   const std::uint8_t byte = _memory[_position];
   _position = (_position + 1) % _memory.size();
   return byte;
}

void SimulatedI2cDevice::_store(std::uint8_t byte) noexcept {
   _memory[_position] = byte;
   _position = (_position + 1) % _memory.size();
}

void SimulatedI2cDevice::write(std::span<const std::uint8_t> bytes) {
   const std::lock_guard lock(_mutex);
   if (_kind == Kind::block) {
      // A lone byte is half a pointer: what an SMBus read puts in front of the data.
      if (bytes.size() >= 2) {
         _position = (std::size_t{bytes[0]} << 8 | bytes[1]) * _unit;
         bytes = bytes.subspan(2);
      } else {
         bytes = {};
      }
   } else if (!bytes.empty()) {
      _position = std::size_t{bytes[0]} * _width();
      bytes = bytes.subspan(1);
   }
   const std::size_t begin = _position;
   _note({false, _pointer(), {bytes.begin(), bytes.end()}, 0});
   for (const std::uint8_t byte : bytes) {
      _store(byte);
   }
   if (_kind == Kind::word) {
      _position = begin;
   }
}

void SimulatedI2cDevice::read(std::span<std::uint8_t> bytes, std::uint8_t xorMask) {
   const std::lock_guard lock(_mutex);
   const std::size_t begin = _position;
   const std::uint32_t pointer = _pointer();
   for (std::uint8_t& byte : bytes) {
      byte = static_cast<std::uint8_t>(_next() ^ xorMask);
   }
   _note({true, pointer, {bytes.begin(), bytes.end()}, 0});
   if (_kind == Kind::word) {
      _position = begin;
   }
}

std::vector<std::uint8_t> SimulatedI2cDevice::readCounted(std::optional<std::size_t> limit,
                                                          std::uint8_t xorMask) {
   const std::lock_guard lock(_mutex);
   const std::size_t begin = _position;
   const std::uint32_t pointer = _pointer();
   std::vector<std::uint8_t> bytes;
   std::size_t count = static_cast<std::uint8_t>(_next() ^ xorMask);
   if (limit) {
      count = std::min(count, *limit);
   }
   bytes.push_back(static_cast<std::uint8_t>(count));
   for (std::size_t i = 0; i < count && count <= I2C_SMBUS_BLOCK_MAX; ++i) {
      bytes.push_back(static_cast<std::uint8_t>(_next() ^ xorMask));
   }
   _note({true, pointer, bytes, 0});
   if (_kind == Kind::word) {
      _position = begin;
   }
   return bytes;
}

void SimulatedI2cDevice::failed(bool isRead, int error) {
   const std::lock_guard lock(_mutex);
   _note({isRead, _pointer(), {}, error});
}

} // namespace Hardware
