#include "platform/hardware/HwAccessImpl.h"

#include "platform/entity/TypeBuilder.h"

namespace Hardware {

HwAccessImpl::HwAccessImpl(const Platform::String& name) : HwAccess(name) {}

HwAccessImpl::~HwAccessImpl() {
   beingDestroyedIs();
}

const Platform::TypeData& HwAccessImpl::staticType() {
   using Self = HwAccessImpl;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("Hardware::HwAccessImpl", HwAccess::staticType())
         .attribute<&Self::size>("size")
         .attribute<&Self::busErrorFlag, &Self::busErrorFlagIs>("busErrorFlag")
         .operation<&Self::read32>("read32", {"offset"})
         .operation<&Self::write32>("write32", {"offset", "value"})
         .operation<&Self::guardedRead32>("guardedRead32", {"offset"})
         .operation<&Self::guardedWrite32>("guardedWrite32", {"offset", "value"})
         .build();
   return type;
}

void HwAccessImpl::busErrorFlagIs(bool busErrorFlag) {
   store(_busErrorFlag, busErrorFlag, busErrorFlagAttr);
}

} // namespace Hardware
