#include "TarnRegFile/OrderedRegisterStatus.h"

#include "platform/entity/TypeBuilder.h"

namespace TarnRegFile::Sable {

OrderedRegisterStatus::OrderedRegisterStatus(const String& name)
   : OrderedRegisterTable(name, "OrderedRegisterStatus") {
   _zeroReferencesNotifieeIs(*_zeroReferences.get());
}

OrderedRegisterStatus::~OrderedRegisterStatus() {
   beingDestroyedIs();
}

Ptr<OrderedRegisterStatus> OrderedRegisterStatus::OrderedRegisterStatusIs(const String& name) {
   return Platform::make<OrderedRegisterStatus>(name);
}

Ptr<OrderedRegisterStatus> orderedRegisterStatusFactory(const String& name) {
   return OrderedRegisterStatus::OrderedRegisterStatusIs(name);
}

const Platform::TypeData& OrderedRegisterStatus::staticType() {
   static const Platform::TypeData type =
      Platform::TypeBuilder<OrderedRegisterStatus>("TarnRegFile::Sable::OrderedRegisterStatus",
                                                   OrderedRegisterTable::staticType())
         .build();
   return type;
}

} // namespace TarnRegFile::Sable
