#include "platform/hardware/HardwareRegisterFile.h"

#include <algorithm>
#include <cerrno>
#include <limits>

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>
#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/TypeBuilder.h"
#include "platform/hardware/private/NameHash.h"

namespace Hardware {

namespace {

absl::string_view view(std::string_view text) noexcept {
   return {text.data(), text.size()};
}

/// Hash and equality of records by their names, and of a name alone.
struct RecordHash {
   using is_transparent = void;
   std::size_t operator()(const HardwareRegister& record) const noexcept {
      return hash(record.name);
   }
   std::size_t operator()(absl::string_view name) const noexcept {
      return hash({name.data(), name.size()});
   }
   NameHash hash;
};

struct RecordEq {
   using is_transparent = void;
   static absl::string_view nameOf(const HardwareRegister& record) noexcept {
      return view(record.name);
   }
   static absl::string_view nameOf(absl::string_view name) noexcept { return name; }

   template <typename A, typename B>
   bool operator()(const A& a, const B& b) const noexcept {
      return nameOf(a) == nameOf(b);
   }
};

} // namespace

// A look-up by name is what every access pays for, and it pays by the cache line. So records are
// kept in the hash table itself, found by the name that they carry anyway; one that is filed
// under another name than its own is the exception and has a table of its own.
struct HardwareRegisterFile::Maps {
   absl::flat_hash_set<HardwareRegister, RecordHash, RecordEq> records;
   absl::flat_hash_map<String, HardwareRegister> recordsUnderOtherNames;
   absl::flat_hash_map<std::uint32_t, String> byAddress;

   HardwareRegister* find(std::string_view name) noexcept {
      const auto found = records.find(view(name));
      if (found != records.end()) {
         // The name, which the table goes by, is not changed through this.
         return const_cast<HardwareRegister*>(&*found);
      }
      if (recordsUnderOtherNames.empty()) {
         return nullptr;
      }
      const auto other = recordsUnderOtherNames.find(view(name));
      return other == recordsUnderOtherNames.end() ? nullptr : &other->second;
   }

   void insert(const String& name, const HardwareRegister& record) {
      if (name == record.name) {
         recordsUnderOtherNames.erase(name);
         records.insert(record);
      } else {
         if (const auto own = records.find(view(name)); own != records.end()) {
            records.erase(own);
         }
         recordsUnderOtherNames[name] = record;
      }
   }

   std::size_t size() const noexcept { return records.size() + recordsUnderOtherNames.size(); }
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
   HardwareRegister* present = _maps->find(name);
   if (present && *present == record) {
      return;
   }
   ++_version;
   if (present && present->name == record.name) {
      *present = record;
   } else {
      _maps->insert(name, record);
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
   _maps->records.reserve(count);
   _maps->byAddress.reserve(count);
}

const HardwareRegister* HardwareRegisterFile::findRegister(std::string_view name) const noexcept {
   return _maps->find(name);
}

const String* HardwareRegisterFile::findName(std::uint32_t address) const noexcept {
   const auto found = _maps->byAddress.find(address);
   return found == _maps->byAddress.end() ? nullptr : &found->second;
}

std::size_t HardwareRegisterFile::size() const noexcept {
   return _maps->size();
}

void HardwareRegisterFile::forEachRegister(const Visitor& visit) const {
   for (const HardwareRegister& record : _maps->records) {
      visit(record.name, record);
   }
   for (const auto& [name, record] : _maps->recordsUnderOtherNames) {
      visit(name, record);
   }
}

std::vector<String> HardwareRegisterFile::names() const {
   std::vector<String> names;
   names.reserve(size());
   forEachRegister([&](const String& name, const HardwareRegister&) { names.push_back(name); });
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
   forEachRegister([&](const String& name, const HardwareRegister& record) {
      HardwareRegister moved = record;
      moved.address = _convert(name, record.address, addrBlockSize);
      converted->_maps->insert(name, moved);
   });
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
