#include "tools/tarnsim/PciDevice.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "tools/tarnsim/SystemError.h"

namespace TarnSim {

namespace {

constexpr std::size_t chunk = 1 << 16;

} // namespace

PciDevice::PciDevice(Board::PciSpec spec) : SimulatedDevice(spec.name), _spec(std::move(spec)) {}

std::string PciDevice::path() const {
   return fmt::format("/sys/bus/pci/devices/{}/resource{}", _spec.function, _spec.resource);
}

std::string PciDevice::place() const {
   return fmt::format("pci {} resource{} {:#x}", _spec.function, _spec.resource, _spec.size);
}

void PciDevice::fileIs(TarnRegFile::Utils::UnixFdRes file) {
   {
      const std::lock_guard lock(_mutex);
      _file = std::move(file);
      if (::ftruncate(_file.fd(), static_cast<off_t>(_spec.size)) != 0) {
         failErrno(fmt::format("cannot make {} of {} bytes", path(), _spec.size));
      }
   }
   for (const auto& [address, value] : _spec.values) {
      registerIs(address, value);
   }
   lostIs(!_spec.present);
}

std::optional<std::uint32_t> PciDevice::addressOf(std::string_view name) const {
   // The model does not change any more: any thread may look.
   const auto* record = _spec.model ? _spec.model->findRegister(name) : nullptr;
   return record ? std::optional(record->address) : std::nullopt;
}

void PciDevice::_check(std::uint32_t address) const {
   if (address % 4 != 0 || address > _spec.size - 4) {
      throw Platform::RangeError(fmt::format("There is no register at {:#x}", address));
   }
}

std::uint32_t PciDevice::registerAt(std::uint32_t address) const {
   _check(address);
   const std::lock_guard lock(_mutex);
   std::uint32_t value = 0;
   if (_lost) {
      if (address + sizeof(value) <= _contents.size()) {
         std::memcpy(&value, _contents.data() + address, sizeof(value));
      }
   } else if (::pread(_file.fd(), &value, sizeof(value), address) !=
              static_cast<ssize_t>(sizeof(value))) {
      // The command has truncated its own resource file.
      throw std::runtime_error("The resource file cannot be read");
   }
   return value;
}

void PciDevice::registerIs(std::uint32_t address, std::uint32_t value) {
   _check(address);
   const std::lock_guard lock(_mutex);
   if (_lost) {
      if (address + sizeof(value) > _contents.size()) {
         _contents.resize(address + sizeof(value));
      }
      std::memcpy(_contents.data() + address, &value, sizeof(value));
   } else if (::pwrite(_file.fd(), &value, sizeof(value), address) !=
              static_cast<ssize_t>(sizeof(value))) {
      throw std::runtime_error("The resource file cannot be written");
   }
}

bool PciDevice::lost() const {
   const std::lock_guard lock(_mutex);
   return _lost;
}

void PciDevice::lostIs(bool lost) {
   const std::lock_guard lock(_mutex);
   if (lost == _lost) {
      return;
   }
   if (lost) {
      // Only what holds data: a large resource is mostly holes, which take no memory.
      std::vector<char> contents;
      off_t data = 0;
      while ((data = ::lseek(_file.fd(), data, SEEK_DATA)) >= 0 &&
             static_cast<std::uint64_t>(data) < _spec.size) {
         const auto begin = static_cast<std::size_t>(data);
         const std::size_t size = std::min<std::size_t>(chunk, _spec.size - begin);
         contents.resize(begin + size);
         const ssize_t got = ::pread(_file.fd(), contents.data() + begin, size, data);
         if (got <= 0) {
            break;
         }
         data += got;
      }
      if (::ftruncate(_file.fd(), 0) != 0) {
         throw std::runtime_error("The resource file cannot be truncated");
      }
      _contents = std::move(contents);
      _lost = true;
      return;
   }
   const auto size = static_cast<ssize_t>(_contents.size());
   // The contents first: who sees the file back sees them, too.
   if (::pwrite(_file.fd(), _contents.data(), _contents.size(), 0) != size ||
       ::ftruncate(_file.fd(), static_cast<off_t>(_spec.size)) != 0) {
      throw std::runtime_error("The resource file cannot be restored");
   }
   _contents.clear();
   _lost = false;
}

std::vector<std::string> PciDevice::journal() const {
   throw std::runtime_error("Accesses to a PCI resource go past tarnsim: there is no journal");
}

void PciDevice::journalClear() {
   throw std::runtime_error("Accesses to a PCI resource go past tarnsim: there is no journal");
}

} // namespace TarnSim
