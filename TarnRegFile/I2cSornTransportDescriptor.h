#pragma once

#include <cstdint>

#include "platform/entity/AttributeId.h"
#include "platform/hardware/SornDesc.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/TransportDescriptor.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// Selects the asynchronous I2C transport, and says which device on which bus of the access
/// manager. The transport reads it once, when it is made. An entity, held through Ptr, on the
/// access manager's event loop.
class TARN_API I2cSornTransportDescriptor : public BaseTransportDescriptor {
public:
   static constexpr Platform::AttributeId deviceIdAttr{"deviceId"};
   static constexpr Platform::AttributeId sornDescAttr{"sornDesc"};

   I2cSornTransportDescriptor();
   ~I2cSornTransportDescriptor() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   /// The device's address on the bus, 7 bits; 0 at first.
   std::uint32_t deviceId() const noexcept { return _deviceId; }
   void deviceIdIs(std::uint32_t deviceId);

   /// The bus; null at first. The transport takes a handle of its own from it.
   const Ptr<Hardware::SornDesc>& sornDesc() const noexcept { return _sornDesc; }
   void sornDescIs(const Ptr<Hardware::SornDesc>& sornDesc);

private:
   std::uint32_t _deviceId = 0;
   Ptr<Hardware::SornDesc> _sornDesc;
};

/// A new descriptor of the device at address `deviceId` of the bus `sornDesc`.
TARN_API Ptr<I2cSornTransportDescriptor>
i2cSornTransportDescriptorFactory(std::uint32_t deviceId, const Ptr<Hardware::SornDesc>& sornDesc);

} // namespace TarnRegFile
