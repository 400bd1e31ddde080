#include "TarnRegFile/ShadowRegisterStatus.h"

#include "platform/entity/TypeBuilder.h"

namespace TarnRegFile::Sable {

ShadowRegisterStatus::ShadowRegisterStatus(const String& name)
   : ShadowRegisterTable(name, "ShadowRegisterStatus") {
   _zeroReferencesNotifieeIs(*_zeroReferences.get());
}

ShadowRegisterStatus::~ShadowRegisterStatus() {
   beingDestroyedIs();
}

Ptr<ShadowRegisterStatus> ShadowRegisterStatus::ShadowRegisterStatusIs(const String& name) {
   return Platform::make<ShadowRegisterStatus>(name);
}

Ptr<ShadowRegisterStatus> shadowRegisterStatusFactory(const String& name) {
   return ShadowRegisterStatus::ShadowRegisterStatusIs(name);
}

const Platform::TypeData& ShadowRegisterStatus::staticType() {
   static const Platform::TypeData type =
      Platform::TypeBuilder<ShadowRegisterStatus>("TarnRegFile::Sable::ShadowRegisterStatus",
                                                  ShadowRegisterTable::staticType())
         .build();
   return type;
}

} // namespace TarnRegFile::Sable
