#include "platform/hardware/Sorn.h"

#include <utility>

#include "platform/entity/TypeBuilder.h"
#include "platform/hardware/private/SornBus.h"

namespace Hardware {

Sorn::Sorn(std::shared_ptr<SornBus> bus, std::uint32_t timeoutMilliseconds)
   : _bus(std::move(bus)), _client(std::make_shared<SornClient>()), _timeout(timeoutMilliseconds) {}

Sorn::~Sorn() {
   beingDestroyedIs();
}

const Platform::TypeData& Sorn::staticType() {
   using Self = Sorn;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("Hardware::Sorn", Node::staticType())
         .attribute<&Self::busName>("busName")
         .attribute<&Self::timeout, &Self::timeoutIs>("timeout")
         .operation<&Self::newRequest>("newRequest")
         .build();
   return type;
}

const String& Sorn::busName() const noexcept {
   return _bus->name();
}

void Sorn::timeoutIs(std::uint32_t milliseconds) {
   store(_timeout, milliseconds, timeoutAttr);
}

Ptr<SornRequest> Sorn::newRequest() const {
   return Platform::make<SornRequest>(_bus, _client, std::chrono::milliseconds(_timeout));
}

} // namespace Hardware
