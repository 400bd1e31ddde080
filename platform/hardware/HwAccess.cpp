#include "platform/hardware/HwAccess.h"

#include "platform/entity/TypeBuilder.h"

namespace Hardware {

HwAccess::HwAccess(const Platform::String& name) : _name(name) {}

HwAccess::~HwAccess() {
   beingDestroyedIs();
}

const Platform::TypeData& HwAccess::staticType() {
   using Self = HwAccess;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("Hardware::HwAccess", Node::staticType())
         .attribute<&Self::name>("name")
         .attribute<&Self::ready, &Self::readyIs>("ready")
         .build();
   return type;
}

void HwAccess::readyIs(bool ready) {
   store(_ready, ready, readyAttr);
}

} // namespace Hardware
