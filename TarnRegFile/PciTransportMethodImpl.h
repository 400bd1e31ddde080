#pragma once

#include <cstdint>

#include "platform/hardware/PciHwAccessImpl.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/HandleAccess.h"
#include "TarnRegFile/TransportMethodImpl.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// Reads and writes the registers of a memory-mapped PCI device: 32-bit loads and stores at byte
/// offsets, consecutive registers 4 apart, in the device's byte order. Synchronous, with block
/// access.
///
/// A device that has dropped off the bus answers accesses with SIGBUS. Unless the handle's
/// busErrorFlag() is set when the transport is made, the transport installs the process's
/// Platform::BusErrorGuard and makes guarded accesses, so that a SIGBUS becomes a
/// Hardware::SigbusException. A handle that is not ready counts as a bus error before anything is
/// accessed: the same exception, or, without the guard, the signal itself.
class TARN_API PciTransportMethodImpl : public BaseTransportMethodImpl, public HandleAccess {
public:
   /// `chipName` is the path of the register list, empty when `regFile` is given. A null handle is
   /// accepted; the transport then only answers questions about its registers.
   ///
   /// With the guard, also switches the guard's autoInstall() off: from here on the guard is the
   /// transports' business. Throws what the base throws, and std::system_error with errno (system
   /// category) "PciHwAccessImpl cast error" for a handle that is not a PciHwAccessImpl.
   PciTransportMethodImpl(const Ptr<Hardware::HwAccessImpl>& hwAccessImpl, const char* chipName,
                          const Ptr<HardwareRegisterFile>& regFile);
   ~PciTransportMethodImpl() override;

   // All accesses throw, in this order and before the device is touched: std::system_error ENOENT
   // for an unknown name; ENODEV "Register '{}': there is no PCI access handle"; SigbusException,
   // or raise SIGBUS, when the handle is not ready; std::runtime_error "Register {} size not
   // supported!" for a register wider than its container; EINVAL "Register '{}' at offset {:#x} of
   // PCI register space {} is not aligned to 4 bytes"; ENXIO "Register '{}' at offset {:#x} lies
   // beyond the {} bytes of PCI register space {}", or "Register '{}' at offset {:#x}: {} words run
   // beyond the ..." (all but the first of the generic category). Then SigbusException, with the
   // guard, when the device has gone.

   /// The word at the register's offset, with the bits beyond the register's width cleared.
   std::uint32_t regRead(const char* regName) override;

   /// Writes the word as it is, whatever the register's width.
   void regWrite(const char* regName, std::uint32_t value) override;

   /// Reads `count` consecutive words. Each is masked to the width of the named register; whether
   /// they are registers at all is not looked at. After a bus error half-way the words before it
   /// are in `buf`.
   void regReadBlock(const char* regName, std::uint32_t* buf, std::uint32_t count) override;

   /// Writes `count` consecutive words. After a bus error half-way those before it are written.
   void regWriteBlock(const char* regName, const std::uint32_t* buf, std::uint32_t count) override;

   std::uint32_t regReadResolved(const String& regName, const HardwareRegister& reg) override;
   void regWriteResolved(const String& regName, const HardwareRegister& reg,
                         std::uint32_t value) override;
   const std::type_info& handleAccessType() const noexcept override;

   /// Whether the handle says that the device can be accessed; false without a handle.
   bool hardwareReady() const noexcept;

   /// Whether this transport installed the guard and makes guarded accesses.
   bool useSigbusGuard() const noexcept { return _useSigbusGuard; }

private:
   const HardwareRegister& _getReg(const char* regName) const;
   void _checkAccess(const char* regName, const HardwareRegister& reg) const;
   std::uint32_t _readReg(const char* regName, const HardwareRegister& reg) const;
   void _writeReg(const char* regName, const HardwareRegister& reg, std::uint32_t value) const;
   void _checkRoom(const char* regName, std::uint32_t offset, std::uint32_t count) const;
   [[noreturn]] void _refuse(const char* regName, std::uint32_t offset, std::uint32_t count) const;
   void _notReady() const;
   std::uint32_t _read(std::uint32_t offset) const;
   void _write(std::uint32_t offset, std::uint32_t value) const;

   Ptr<Hardware::PciHwAccessImpl> _hwAccessImpl;
   bool _useSigbusGuard = false;
};

} // namespace TarnRegFile
