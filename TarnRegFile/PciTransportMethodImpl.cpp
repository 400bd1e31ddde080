#include "TarnRegFile/PciTransportMethodImpl.h"

#include <cerrno>
#include <csignal>
#include <stdexcept>

#include <fmt/format.h>

#include "platform/entity/BusErrorGuard.h"
#include "platform/entity/Errors.h"
#include "platform/hardware/SigbusException.h"
#include "platform/trace/Trace.h"

namespace TarnRegFile {

namespace {

TARN_TRACE_SOURCE(traceSource, "TarnRegFile/PciTransportMethodImpl");

constexpr const char* castError = "PciHwAccessImpl cast error";
constexpr const char* noHandle = "Register '{}': there is no PCI access handle";
constexpr const char* tooWide = "Register {} size not supported!";
constexpr const char* notAligned =
   "Register '{}' at offset {:#x} of PCI register space {} is not aligned to 4 bytes";
constexpr const char* beyond =
   "Register '{}' at offset {:#x} lies beyond the {} bytes of PCI register space {}";
constexpr const char* blockBeyond =
   "Register '{}' at offset {:#x}: {} words run beyond the {} bytes of PCI register space {}";

// Offsets count bytes.
constexpr std::uint8_t pciAddrBlockSize = 4;
constexpr std::uint32_t wordSize = sizeof(std::uint32_t);

std::uint32_t masked(const HardwareRegister& reg, std::uint32_t value) noexcept {
   const std::uint32_t unused = (reg.accessWidth - reg.width) % 32;
   return value << unused >> unused;
}

} // namespace

PciTransportMethodImpl::PciTransportMethodImpl(const Ptr<Hardware::HwAccessImpl>& hwAccessImpl,
                                               const char* chipName,
                                               const Ptr<HardwareRegisterFile>& regFile)
   : BaseTransportMethodImpl(chipName, pciAddrBlockSize, regFile) {
   if (!hwAccessImpl) {
      return;
   }
   _hwAccessImpl = Platform::ptrCast<Hardware::PciHwAccessImpl>(hwAccessImpl);
   if (!_hwAccessImpl) {
      Platform::throwErrno(castError);
   }
   if (!_hwAccessImpl->busErrorFlag()) {
      _useSigbusGuard = true;
      Platform::BusErrorGuard::autoInstallIs(false);
      Platform::BusErrorGuard::initialize();
   }
}

PciTransportMethodImpl::~PciTransportMethodImpl() = default;

bool PciTransportMethodImpl::hardwareReady() const noexcept {
   return _hwAccessImpl && _hwAccessImpl->ready();
}

// By reference: a copy of the record would copy its name, at the price of an allocation.
inline const HardwareRegister& PciTransportMethodImpl::_getReg(const char* regName) const {
   const HardwareRegister& reg = helper->registerByName(regName);
   _checkAccess(regName, reg);
   return reg;
}

inline void PciTransportMethodImpl::_checkAccess(const char* regName,
                                                 const HardwareRegister& reg) const {
   if (!_hwAccessImpl) [[unlikely]] {
      Platform::throwError(ENODEV, fmt::format(noHandle, regName));
   }
   if (!hardwareReady()) [[unlikely]] {
      _notReady();
   }
   if (reg.accessWidth < reg.width) [[unlikely]] {
      throw std::runtime_error(fmt::format(tooWide, regName));
   }
}

void PciTransportMethodImpl::_notReady() const {
   TARN_TRACE(traceSource, 1, "_getReg", "Hardware not ready, {} SIGBUS",
              _useSigbusGuard ? "throwing" : "raising");
   if (_useSigbusGuard) {
      throw Hardware::SigbusException();
   }
   // A program that handles the signal and returns gets its access all the same.
   ::raise(SIGBUS);
}

// The handle would refuse these as well, but without knowing the register, and a block only in its
// middle.
inline void PciTransportMethodImpl::_checkRoom(const char* regName, std::uint32_t offset,
                                               std::uint32_t count) const {
   if (count == 0) {
      return;
   }
   const std::uint64_t end =
      offset + (count - 1) * std::uint64_t{helper->addrBlockSize()} + wordSize;
   if (offset % wordSize != 0 || end > _hwAccessImpl->size()) [[unlikely]] {
      _refuse(regName, offset, count);
   }
}

void PciTransportMethodImpl::_refuse(const char* regName, std::uint32_t offset,
                                     std::uint32_t count) const {
   const String& path = _hwAccessImpl->path();
   const std::uint64_t size = _hwAccessImpl->size();
   if (offset % wordSize != 0) {
      Platform::throwError(EINVAL, fmt::format(notAligned, regName, offset, path));
   }
   Platform::throwError(ENXIO, count == 1
                                  ? fmt::format(beyond, regName, offset, size, path)
                                  : fmt::format(blockBeyond, regName, offset, count, size, path));
}

inline std::uint32_t PciTransportMethodImpl::_read(std::uint32_t offset) const {
   return _useSigbusGuard ? _hwAccessImpl->guardedRead32(offset) : _hwAccessImpl->read32(offset);
}

inline void PciTransportMethodImpl::_write(std::uint32_t offset, std::uint32_t value) const {
   if (_useSigbusGuard) {
      _hwAccessImpl->guardedWrite32(offset, value);
   } else {
      _hwAccessImpl->write32(offset, value);
   }
}

inline std::uint32_t PciTransportMethodImpl::_readReg(const char* regName,
                                                      const HardwareRegister& reg) const {
   _checkAccess(regName, reg);
   _checkRoom(regName, reg.address, 1);
   return masked(reg, _read(reg.address));
}

inline void PciTransportMethodImpl::_writeReg(const char* regName, const HardwareRegister& reg,
                                              std::uint32_t value) const {
   _checkAccess(regName, reg);
   _checkRoom(regName, reg.address, 1);
   _write(reg.address, value);
}

std::uint32_t PciTransportMethodImpl::regRead(const char* regName) {
   return _readReg(regName, helper->registerByName(regName));
}

void PciTransportMethodImpl::regWrite(const char* regName, std::uint32_t value) {
   _writeReg(regName, helper->registerByName(regName), value);
}

std::uint32_t PciTransportMethodImpl::regReadResolved(const String& regName,
                                                      const HardwareRegister& reg) {
   return _readReg(regName.c_str(), reg);
}

void PciTransportMethodImpl::regWriteResolved(const String& regName, const HardwareRegister& reg,
                                              std::uint32_t value) {
   _writeReg(regName.c_str(), reg, value);
}

const std::type_info& PciTransportMethodImpl::handleAccessType() const noexcept {
   return typeid(PciTransportMethodImpl);
}

void PciTransportMethodImpl::regReadBlock(const char* regName, std::uint32_t* buf,
                                          std::uint32_t count) {
   const HardwareRegister& reg = _getReg(regName);
   _checkRoom(regName, reg.address, count);
   const std::uint32_t stride = helper->addrBlockSize();
   for (std::uint32_t i = 0; i < count; ++i) {
      buf[i] = masked(reg, _read(reg.address + i * stride));
   }
}

void PciTransportMethodImpl::regWriteBlock(const char* regName, const std::uint32_t* buf,
                                           std::uint32_t count) {
   const HardwareRegister& reg = _getReg(regName);
   _checkRoom(regName, reg.address, count);
   const std::uint32_t stride = helper->addrBlockSize();
   for (std::uint32_t i = 0; i < count; ++i) {
      _write(reg.address + i * stride, buf[i]);
   }
}

} // namespace TarnRegFile
