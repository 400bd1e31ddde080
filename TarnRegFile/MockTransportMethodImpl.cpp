#include "TarnRegFile/MockTransportMethodImpl.h"

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include <absl/container/flat_hash_map.h>
#include <fmt/format.h>

namespace TarnRegFile {

namespace {

constexpr const char* valuesFileVariable = "REG_VALUES_FILE";
constexpr const char* valuesHeader = "Address,Value\n";
constexpr std::uint8_t mockAddrBlockSize = 4;

/// How much of the file at `path` there is to read: what it holds now. One that is appended to
/// meanwhile would otherwise never end. Other kinds of file hold nothing, but for a pipe, which
/// ends when its writer closes it.
std::uint64_t readableSize(const String& path) {
   struct stat status {};
   if (::stat(path.c_str(), &status) != 0) {
      return 0;
   }
   if (S_ISFIFO(status.st_mode)) {
      return UINT64_MAX;
   }
   return S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_size) : 0;
}

} // namespace

struct MockTransportMethodImpl::RegValues {
   absl::flat_hash_map<std::uint32_t, std::uint32_t> map;
};

MockTransportMethodImpl::MockTransportMethodImpl(const char* csvPath,
                                                 const Ptr<HardwareRegisterFile>& regFileModel)
   : BaseTransportMethodImpl(csvPath, mockAddrBlockSize, regFileModel),
     _regValues(std::make_unique<RegValues>()) {
   const char* file = std::getenv(valuesFileVariable);
   if (file && *file) {
      _regValuesFile = file;
      _loadRegValues();
   }
}

MockTransportMethodImpl::~MockTransportMethodImpl() = default;

std::uint32_t MockTransportMethodImpl::regRead(const char* name) {
   return _read(helper->registerByName(name).address);
}

void MockTransportMethodImpl::regWrite(const char* name, std::uint32_t value) {
   _write(helper->registerByName(name).address, value);
}

std::uint32_t MockTransportMethodImpl::regReadResolved(const String&, const HardwareRegister& reg) {
   return _read(reg.address);
}

void MockTransportMethodImpl::regWriteResolved(const String&, const HardwareRegister& reg,
                                               std::uint32_t value) {
   _write(reg.address, value);
}

const std::type_info& MockTransportMethodImpl::handleAccessType() const noexcept {
   return typeid(MockTransportMethodImpl);
}

inline std::uint32_t MockTransportMethodImpl::_read(std::uint32_t address) {
   const auto [entry, added] = _regValues->map.try_emplace(address, 0);
   const std::uint32_t value = entry->second;
   if (added) {
      _doPersistRegValues();
   }
   return value;
}

inline void MockTransportMethodImpl::_write(std::uint32_t address, std::uint32_t value) {
   const auto [entry, added] = _regValues->map.try_emplace(address, value);
   if (!added && entry->second == value) {
      return;
   }
   entry->second = value;
   _doPersistRegValues();
}

void MockTransportMethodImpl::regReadBlock(const char* name, std::uint32_t* out,
                                           std::uint32_t count) {
   std::uint32_t address = helper->registerByName(name).address;
   bool anyAdded = false;
   for (std::uint32_t i = 0; i < count; ++i) {
      const auto [entry, added] = _regValues->map.try_emplace(address, 0);
      out[i] = entry->second;
      anyAdded |= added;
      address += helper->addrBlockSize();
   }
   if (anyAdded) {
      _doPersistRegValues();
   }
}

void MockTransportMethodImpl::regWriteBlock(const char* name, const std::uint32_t* values,
                                            std::uint32_t count) {
   std::uint32_t address = helper->registerByName(name).address;
   for (std::uint32_t i = 0; i < count; ++i) {
      _regValues->map[address] = values[i];
      address += helper->addrBlockSize();
   }
   // Always, unlike regWrite: a block write also serves to bring the file up to date.
   _doPersistRegValues();
}

void MockTransportMethodImpl::_loadRegValues() {
   const std::uint64_t size = readableSize(_regValuesFile);
   if (size == 0) {
      return;
   }
   std::ifstream in(_regValuesFile);
   String line;
   std::uint64_t consumed = 0;
   bool headerLine = true;
   while (consumed < size && std::getline(in, line)) {
      consumed += line.size() + 1;
      if (!headerLine) {
         _loadLine(line);
      }
      headerLine = false;
   }
}

void MockTransportMethodImpl::_loadLine(const String& line) {
   const std::size_t comma = line.find(',');
   if (comma == String::npos) {
      return;
   }
   const auto address = static_cast<std::uint32_t>(std::stoul(line.substr(0, comma)));
   const auto value = static_cast<std::uint32_t>(std::stoul(line.substr(comma + 1)));
   _regValues->map[address] = value;
}

void MockTransportMethodImpl::_doPersistRegValues() const {
   if (_regValuesFile.empty()) {
      return;
   }
   std::ofstream out(_regValuesFile, std::ios::trunc);
   if (!out) {
      return;
   }
   String text = valuesHeader;
   for (const auto& [address, value] : _regValues->map) {
      fmt::format_to(std::back_inserter(text), "{},{}\n", address, value);
   }
   out << text;
}

} // namespace TarnRegFile
