#include "platform/hardware/SornDesc.h"

#include <utility>

#include "platform/entity/TypeBuilder.h"
#include "platform/hardware/private/SornBus.h"

namespace Hardware {

SornDesc::SornDesc(std::shared_ptr<SornBus> bus) : _bus(std::move(bus)) {}

SornDesc::~SornDesc() {
   beingDestroyedIs();
}

const Platform::TypeData& SornDesc::staticType() {
   using Self = SornDesc;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("Hardware::SornDesc", Node::staticType())
         .attribute<&Self::busName>("busName")
         .attribute<&Self::timeout, &Self::timeoutIs>("timeout")
         .operation<&Self::sorn>("sorn")
         .build();
   return type;
}

const String& SornDesc::busName() const noexcept {
   return _bus->name();
}

void SornDesc::timeoutIs(std::uint32_t milliseconds) {
   store(_timeout, milliseconds, timeoutAttr);
}

Ptr<Sorn> SornDesc::sorn() const {
   return Platform::make<Sorn>(_bus, _timeout);
}

} // namespace Hardware
