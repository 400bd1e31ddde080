#include "TarnRegFile/PciTransportDescriptor.h"

#include "platform/entity/TypeBuilder.h"

namespace TarnRegFile {

PciTransportDescriptor::PciTransportDescriptor(const Ptr<Hardware::HwAccess>& hwAccess)
   : BaseTransportDescriptor(TransportType::pciBus, TransportProtocol::pciMmio,
                             TransportFlavour::pciDefault),
     _hwAccess(hwAccess) {}

PciTransportDescriptor::~PciTransportDescriptor() {
   beingDestroyedIs();
}

const Platform::TypeData& PciTransportDescriptor::staticType() {
   using Self = PciTransportDescriptor;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("TarnRegFile::PciTransportDescriptor",
                                  BaseTransportDescriptor::staticType())
         .attribute<&Self::hwAccess, &Self::hwAccessIs>("hwAccess")
         .build();
   return type;
}

void PciTransportDescriptor::hwAccessIs(const Ptr<Hardware::HwAccess>& hwAccess) {
   store(_hwAccess, hwAccess, hwAccessAttr);
}

Ptr<PciTransportDescriptor> pciTransportDescriptorFactory(const Ptr<Hardware::HwAccess>& hwAccess) {
   return Platform::make<PciTransportDescriptor>(hwAccess);
}

} // namespace TarnRegFile
