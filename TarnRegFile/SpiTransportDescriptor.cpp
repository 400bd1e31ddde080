#include "TarnRegFile/SpiTransportDescriptor.h"

#include "platform/entity/TypeBuilder.h"

namespace TarnRegFile {

SpiTransportDescriptor::SpiTransportDescriptor()
   : BaseTransportDescriptor(TransportType::spiBus, TransportProtocol::spiAccess,
                             TransportFlavour::spiDefault) {}

SpiTransportDescriptor::~SpiTransportDescriptor() {
   beingDestroyedIs();
}

const Platform::TypeData& SpiTransportDescriptor::staticType() {
   using Self = SpiTransportDescriptor;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("TarnRegFile::SpiTransportDescriptor",
                                  BaseTransportDescriptor::staticType())
         .attribute<&Self::hwAccess, &Self::hwAccessIs>("hwAccess")
         .build();
   return type;
}

void SpiTransportDescriptor::hwAccessIs(const Ptr<const Hardware::HwAccess>& hwAccess) {
   store(_hwAccess, hwAccess, hwAccessAttr);
}

Ptr<SpiTransportDescriptor>
spiTransportDescriptorFactory(const Ptr<const Hardware::HwAccess>& hwAccess) {
   auto descriptor = Platform::make<SpiTransportDescriptor>();
   descriptor->hwAccessIs(hwAccess);
   return descriptor;
}

} // namespace TarnRegFile
