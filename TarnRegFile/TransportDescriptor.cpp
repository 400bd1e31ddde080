#include "TarnRegFile/TransportDescriptor.h"

#include "platform/entity/TypeBuilder.h"

namespace TarnRegFile {

BaseTransportDescriptor::BaseTransportDescriptor(TransportType type, TransportProtocol protocol,
                                                 TransportFlavour flavour)
   : _transportType(type), _transportProtocol(protocol), _transportFlavour(flavour) {}

BaseTransportDescriptor::~BaseTransportDescriptor() {
   beingDestroyedIs();
}

const Platform::TypeData& BaseTransportDescriptor::staticType() {
   using Self = BaseTransportDescriptor;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("TarnRegFile::BaseTransportDescriptor",
                                  TransportDescriptorBase::staticType())
         .attribute<&Self::transportType, &Self::transportTypeIs>("transportType")
         .attribute<&Self::transportProtocol, &Self::transportProtocolIs>("transportProtocol")
         .attribute<&Self::transportFlavour, &Self::transportFlavourIs>("transportFlavour")
         .build();
   return type;
}

void BaseTransportDescriptor::transportTypeIs(TransportType type) {
   store(_transportType, type, transportTypeAttr);
}

void BaseTransportDescriptor::transportProtocolIs(TransportProtocol protocol) {
   store(_transportProtocol, protocol, transportProtocolAttr);
}

void BaseTransportDescriptor::transportFlavourIs(TransportFlavour flavour) {
   store(_transportFlavour, flavour, transportFlavourAttr);
}

Ptr<BaseTransportDescriptor> baseTransportDescriptorFactory(TransportType type,
                                                            TransportProtocol protocol,
                                                            TransportFlavour flavour) {
   return Platform::make<BaseTransportDescriptor>(type, protocol, flavour);
}

Ptr<BaseTransportDescriptor> mockTransportDescriptorFactory() {
   return baseTransportDescriptorFactory(TransportType::mockBus, TransportProtocol::mockAccess,
                                         TransportFlavour::mockDefault);
}

} // namespace TarnRegFile
