#include "platform/hardware/HardwareRegisterFile.h"

#include <algorithm>
#include <cerrno>
#include <limits>

#include <absl/container/flat_hash_map.h>
#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/TypeBuilder.h"

namespace Hardware {

struct HardwareRegisterFile::Maps {
   absl::flat_hash_map<String, HardwareRegister> byName;
   absl::flat_hash_map<std::uint32_t, String> byAddress;
};

HardwareRegisterFile::HardwareRegisterFile(String name)
   : _name(std::move(name)), _maps(std::make_unique<Maps>()) {}

HardwareRegisterFile::~HardwareRegisterFile() = default;

const Platform::TypeData& HardwareRegisterFile::staticType() {
   using Self = HardwareRegisterFile;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("Hardware::HardwareRegisterFile", Node::staticType())
         .attribute<&Self::name>("name")
         .attribute<&Self::addrBlockSize, &Self::addrBlockSizeIs>("addrBlockSize")
         .collection<&Self::names, &Self::_registerAt>("nameToRegMap")
         .collection<&Self::addresses, &Self::_nameAt>("addrToNameMap")
         .operation<&Self::nameToRegMapIs>("nameToRegMapIs", {"name", "record"})
         .operation<&Self::addrToNameMapIs>("addrToNameMapIs", {"address", "name"})
         .operation<&Self::convertAddrBlockSize>("convertAddrBlockSize", {"addrBlockSize"})
         .build();
   return type;
}

void HardwareRegisterFile::addrBlockSizeIs(std::uint8_t addrBlockSize) {
   store(_addrBlockSize, addrBlockSize, addrBlockSizeAttr);
}

void HardwareRegisterFile::nameToRegMapIs(const String& name, const HardwareRegister& record) {
   const auto [entry, added] = _maps->byName.try_emplace(name, record);
   if (!added) {
      if (entry->second == record) {
         return;
      }
      entry->second = record;
   }
   publish(nameToRegMapAttr, name);
}

void HardwareRegisterFile::addrToNameMapIs(std::uint32_t address, const String& name) {
   const auto [entry, added] = _maps->byAddress.try_emplace(address, name);
   if (!added) {
      if (entry->second == name) {
         return;
      }
      entry->second = name;
   }
   publish(addrToNameMapAttr, address);
}

void HardwareRegisterFile::reserve(std::size_t count) {
   _maps->byName.reserve(count);
   _maps->byAddress.reserve(count);
}

const HardwareRegister* HardwareRegisterFile::findRegister(std::string_view name) const noexcept {
   const auto found = _maps->byName.find(absl::string_view(name.data(), name.size()));
   return found == _maps->byName.end() ? nullptr : &found->second;
}

const String* HardwareRegisterFile::findName(std::uint32_t address) const noexcept {
   const auto found = _maps->byAddress.find(address);
   return found == _maps->byAddress.end() ? nullptr : &found->second;
}

std::size_t HardwareRegisterFile::size() const noexcept {
   return _maps->byName.size();
}

void HardwareRegisterFile::forEachRegister(const Visitor& visit) const {
   for (const auto& [name, record] : _maps->byName) {
      visit(name, record);
   }
}

std::vector<String> HardwareRegisterFile::names() const {
   std::vector<String> names;
   names.reserve(size());
   for (const auto& [name, record] : _maps->byName) {
      names.push_back(name);
   }
   std::sort(names.begin(), names.end());
   return names;
}

std::vector<std::uint32_t> HardwareRegisterFile::addresses() const {
   std::vector<std::uint32_t> addresses;
   addresses.reserve(_maps->byAddress.size());
   for (const auto& [address, name] : _maps->byAddress) {
      addresses.push_back(address);
   }
   std::sort(addresses.begin(), addresses.end());
   return addresses;
}

Ptr<HardwareRegisterFile>
HardwareRegisterFile::convertAddrBlockSize(std::uint8_t addrBlockSize) const {
   Ptr<HardwareRegisterFile> converted = hardwareRegisterFileFactory(_name);
   converted->_addrBlockSize = addrBlockSize;
   converted->reserve(size());
   for (const auto& [name, record] : _maps->byName) {
      HardwareRegister moved = record;
      moved.address = _convert(name, record.address, addrBlockSize);
      converted->_maps->byName.emplace(name, std::move(moved));
   }
   for (const auto& [address, name] : _maps->byAddress) {
      converted->_maps->byAddress.emplace(_convert(name, address, addrBlockSize), name);
   }
   return converted;
}

std::uint32_t HardwareRegisterFile::_convert(std::string_view name, std::uint32_t address,
                                             std::uint8_t addrBlockSize) const {
   if (_addrBlockSize == 0 || address % _addrBlockSize != 0) {
      Platform::throwError(
         EINVAL, fmt::format("Register '{}' at address {:#x} is no whole number of {}-unit blocks",
                             name, address, _addrBlockSize));
   }
   const std::uint64_t moved = static_cast<std::uint64_t>(address / _addrBlockSize) * addrBlockSize;
   if (moved > std::numeric_limits<std::uint32_t>::max()) {
      Platform::throwError(EOVERFLOW,
                           fmt::format("Register '{}' at address {:#x} does not fit in 32 bits "
                                       "with {}-unit blocks",
                                       name, address, addrBlockSize));
   }
   return static_cast<std::uint32_t>(moved);
}

HardwareRegister HardwareRegisterFile::_registerAt(const String& name) const {
   const HardwareRegister* record = findRegister(name);
   return record ? *record : HardwareRegister();
}

String HardwareRegisterFile::_nameAt(const std::uint32_t& address) const {
   const String* name = findName(address);
   return name ? *name : String();
}

Ptr<HardwareRegisterFile> hardwareRegisterFileFactory(const String& name) {
   return Platform::make<HardwareRegisterFile>(name);
}

} // namespace Hardware
