#include "TarnRegFile/I2cTransportDescriptor.h"

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/TypeBuilder.h"

namespace TarnRegFile {

I2cTransportDescriptor::I2cTransportDescriptor(TransportFlavour flavour, const String& devicePath,
                                               std::int32_t deviceAddress)
   : BaseTransportDescriptor(TransportType::i2cBus, TransportProtocol::i2cDev, flavour),
     _devicePath(devicePath), _deviceAddress(deviceAddress) {}

I2cTransportDescriptor::~I2cTransportDescriptor() {
   beingDestroyedIs();
}

const Platform::TypeData& I2cTransportDescriptor::staticType() {
   using Self = I2cTransportDescriptor;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("TarnRegFile::I2cTransportDescriptor",
                                  BaseTransportDescriptor::staticType())
         .attribute<&Self::devicePath, &Self::devicePathIs>("devicePath")
         .attribute<&Self::deviceAddress, &Self::deviceAddressIs>("deviceAddress")
         .build();
   return type;
}

void I2cTransportDescriptor::devicePathIs(const String& devicePath) {
   store(_devicePath, devicePath, devicePathAttr);
}

void I2cTransportDescriptor::deviceAddressIs(std::int32_t deviceAddress) {
   store(_deviceAddress, deviceAddress, deviceAddressAttr);
}

Ptr<I2cTransportDescriptor> i2cTransportDescriptorFactory(const String& devicePath,
                                                          std::int32_t deviceAddress,
                                                          I2cFlavour flavour) {
   switch (flavour) {
   case I2cFlavour::dataBlock:
      return Platform::make<I2cTransportDescriptor>(TransportFlavour::i2cDevFlavour1, devicePath,
                                                    deviceAddress);
   case I2cFlavour::dataWord:
      return Platform::make<I2cTransportDescriptor>(TransportFlavour::i2cDevFlavour2, devicePath,
                                                    deviceAddress);
   }
   throw Platform::RangeError(fmt::format("I2C flavour {} is not known", unsigned(flavour)));
}

} // namespace TarnRegFile
