#pragma once

#include <cstdint>

#include "platform/entity/AttributeId.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/I2cFlavour.h"
#include "TarnRegFile/TransportDescriptor.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// Says which device on which of the kernel's I2C buses. The transport reads it once, when it is
/// made.
class TARN_API I2cTransportDescriptor : public BaseTransportDescriptor {
public:
   static constexpr Platform::AttributeId devicePathAttr{"devicePath"};
   static constexpr Platform::AttributeId deviceAddressAttr{"deviceAddress"};

   I2cTransportDescriptor(TransportFlavour flavour, const String& devicePath,
                          std::int32_t deviceAddress);
   ~I2cTransportDescriptor() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   /// The I2C device, such as "/dev/i2c-3".
   const String& devicePath() const noexcept { return _devicePath; }
   void devicePathIs(const String& devicePath);

   /// The peripheral's address on the bus, 7 bits.
   std::int32_t deviceAddress() const noexcept { return _deviceAddress; }
   void deviceAddressIs(std::int32_t deviceAddress);

private:
   String _devicePath;
   std::int32_t _deviceAddress;
};

/// A new descriptor that selects the I2C device transport. Throws Platform::RangeError for a
/// flavour that there is not.
TARN_API Ptr<I2cTransportDescriptor> i2cTransportDescriptorFactory(const String& devicePath,
                                                                   std::int32_t deviceAddress,
                                                                   I2cFlavour flavour);

} // namespace TarnRegFile
