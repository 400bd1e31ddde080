#include "platform/hardware/TransportDescriptorBase.h"

#include "platform/entity/TypeBuilder.h"

namespace Hardware {

TransportDescriptorBase::TransportDescriptorBase() = default;

TransportDescriptorBase::~TransportDescriptorBase() {
   beingDestroyedIs();
}

const Platform::TypeData& TransportDescriptorBase::staticType() {
   static const Platform::TypeData type =
      Platform::TypeBuilder<TransportDescriptorBase>("Hardware::TransportDescriptorBase",
                                                     Node::staticType())
         .build();
   return type;
}

} // namespace Hardware
