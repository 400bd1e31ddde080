#pragma once

#include <cstdint>
#include <memory>

#include "TarnRegFile/Export.h"
#include "TarnRegFile/HandleAccess.h"
#include "TarnRegFile/I2cFlavour.h"
#include "TarnRegFile/TransportMethodImpl.h"
#include "TarnRegFile/Utils.h"

namespace TarnRegFile {

/// Reaches a device's registers through one of Linux's I2C devices (/dev/i2c-N) and the kernel's
/// SMBus calls. Synchronous: each access ends its transfers before it returns. No block access.
///
/// The device is opened and the peripheral's address set once, when the transport is made. A
/// failed transfer is reported and nothing else: the next access tries again on the same
/// descriptor, so a device that comes back works again by itself.
class TARN_API I2cTransportMethodImpl : public BaseTransportMethodImpl, public HandleAccess {
public:
   /// `peripheralAddress` is the device's 7-bit address on the bus. Throws, in this order:
   /// - std::out_of_range "_Map_base::at" for a flavour that there is not, before anything else;
   /// - what the base throws;
   /// - std::system_error with the errno of opening `devicePath`, or of setting the address, which
   ///   the kernel refuses for an address out of range or, with EBUSY, one that a driver has.
   I2cTransportMethodImpl(const char* devicePath, int peripheralAddress, const char* chipName,
                          I2cFlavour flavour, const Ptr<HardwareRegisterFile>& regFile);
   ~I2cTransportMethodImpl() override;

   /// Throws std::system_error: ENOENT for an unknown name, before the device is used; else what
   /// the flavour's access throws.
   std::uint32_t regRead(const char* regName) override;

   /// As regRead().
   void regWrite(const char* regName, std::uint32_t value) override;

   std::uint32_t regReadResolved(const String& regName, const HardwareRegister& reg) override;
   void regWriteResolved(const String& regName, const HardwareRegister& reg,
                         std::uint32_t value) override;
   const std::type_info& handleAccessType() const noexcept override;

private:
   I2cTransportMethodImpl(const i2cflavspec::Spec& spec, const char* devicePath,
                          int peripheralAddress, const char* chipName,
                          const Ptr<HardwareRegisterFile>& regFile);

   int _openFd(const char* function) const;

protected:
   std::unique_ptr<Utils::UnixFdRes> i2cFd;
   i2cflavspec::ReadFunction readFunction;
   i2cflavspec::WriteFunction writeFunction;
};

} // namespace TarnRegFile
