#include "TarnRegFile/I2cSornTransportDescriptor.h"

#include "platform/entity/TypeBuilder.h"

namespace TarnRegFile {

I2cSornTransportDescriptor::I2cSornTransportDescriptor()
   : BaseTransportDescriptor(TransportType::i2cBus, TransportProtocol::sornAsync,
                             TransportFlavour::sornDefault) {}

I2cSornTransportDescriptor::~I2cSornTransportDescriptor() {
   beingDestroyedIs();
}

const Platform::TypeData& I2cSornTransportDescriptor::staticType() {
   using Self = I2cSornTransportDescriptor;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("TarnRegFile::I2cSornTransportDescriptor",
                                  BaseTransportDescriptor::staticType())
         .attribute<&Self::deviceId, &Self::deviceIdIs>("deviceId")
         .attribute<&Self::sornDesc, &Self::sornDescIs>("sornDesc")
         .build();
   return type;
}

void I2cSornTransportDescriptor::deviceIdIs(std::uint32_t deviceId) {
   store(_deviceId, deviceId, deviceIdAttr);
}

void I2cSornTransportDescriptor::sornDescIs(const Ptr<Hardware::SornDesc>& sornDesc) {
   store(_sornDesc, sornDesc, sornDescAttr);
}

Ptr<I2cSornTransportDescriptor>
i2cSornTransportDescriptorFactory(std::uint32_t deviceId, const Ptr<Hardware::SornDesc>& sornDesc) {
   auto descriptor = Platform::make<I2cSornTransportDescriptor>();
   descriptor->deviceIdIs(deviceId);
   descriptor->sornDescIs(sornDesc);
   return descriptor;
}

} // namespace TarnRegFile
