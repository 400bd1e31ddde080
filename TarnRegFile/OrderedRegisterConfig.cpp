#include "TarnRegFile/OrderedRegisterConfig.h"

#include "platform/entity/TypeBuilder.h"

namespace TarnRegFile::Sable {

OrderedRegisterConfig::OrderedRegisterConfig(const String& name)
   : OrderedRegisterTable(name, "OrderedRegisterConfig") {
   _zeroReferencesNotifieeIs(*_zeroReferences.get());
}

OrderedRegisterConfig::~OrderedRegisterConfig() {
   beingDestroyedIs();
}

Ptr<OrderedRegisterConfig> OrderedRegisterConfig::OrderedRegisterConfigIs(const String& name) {
   return Platform::make<OrderedRegisterConfig>(name);
}

Ptr<OrderedRegisterConfig> orderedRegisterConfigFactory(const String& name) {
   return OrderedRegisterConfig::OrderedRegisterConfigIs(name);
}

const Platform::TypeData& OrderedRegisterConfig::staticType() {
   static const Platform::TypeData type =
      Platform::TypeBuilder<OrderedRegisterConfig>("TarnRegFile::Sable::OrderedRegisterConfig",
                                                   OrderedRegisterTable::staticType())
         .build();
   return type;
}

} // namespace TarnRegFile::Sable
