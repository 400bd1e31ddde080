#pragma once

#include <cstdint>

#include "platform/hardware/Sorn.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/HandleAccess.h"
#include "TarnRegFile/I2cTransportSornImplSm.h"
#include "TarnRegFile/TransportMethodImpl.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// Reaches registers of a device on an I2C bus through the access manager, and waits for none: an
/// access is submitted and returns, and its result reaches the async helper later, on the access
/// manager's event loop. The device has a 16-bit register pointer, and values of 32 bits, most
/// significant byte first.
///
/// Without a helper results are dropped. When the transport goes, what is in flight is taken back;
/// what the bus has begun of it may still be done. There is no block access.
class TARN_API I2cTransportSornImpl : public BaseTransportMethodImpl, public HandleAccess {
public:
   /// Of the device at address `devId` on the bus that `sorn` is a handle of. Throws what the base
   /// throws, and std::system_error EINVAL (generic category) when `sorn` is null.
   I2cTransportSornImpl(const Ptr<Hardware::Sorn>& sorn, std::uint32_t devId, const char* csvPath,
                        const Ptr<HardwareRegisterFile>& regFile);
   ~I2cTransportSornImpl() override;

   /// Submits the read, and returns 0. Throws as I2cTransportSornImplSm::sornRead().
   std::uint32_t regRead(const char* regName) override;

   /// Submits the write. Throws as regRead().
   void regWrite(const char* regName, std::uint32_t value) override;

   std::uint32_t regReadResolved(const String& regName, const HardwareRegister& reg) override;
   void regWriteResolved(const String& regName, const HardwareRegister& reg,
                         std::uint32_t value) override;
   const std::type_info& handleAccessType() const noexcept override;

   /// The receiver of results is the state machine's; the base's own place stays empty.
   void asyncHelperIs(Ptr<AsyncHelperBase> helper) override;
   Ptr<AsyncHelperBase> getAsyncHelper() const override;

   const Ptr<Hardware::Sorn>& sorn() const noexcept { return _sorn; }
   const Ptr<I2cTransportSornImplSm>& sm() const noexcept { return _sm; }

private:
   Ptr<Hardware::Sorn> _sorn;
   Ptr<I2cTransportSornImplSm> _sm;
};

} // namespace TarnRegFile
