#include "TarnRegFile/ShadowRegisterConfig.h"

#include "platform/entity/TypeBuilder.h"

namespace TarnRegFile::Sable {

ShadowRegisterConfig::ShadowRegisterConfig(const String& name)
   : ShadowRegisterTable(name, "ShadowRegisterConfig") {
   _zeroReferencesNotifieeIs(*_zeroReferences.get());
}

ShadowRegisterConfig::~ShadowRegisterConfig() {
   beingDestroyedIs();
}

Ptr<ShadowRegisterConfig> ShadowRegisterConfig::ShadowRegisterConfigIs(const String& name) {
   return Platform::make<ShadowRegisterConfig>(name);
}

Ptr<ShadowRegisterConfig> shadowRegisterConfigFactory(const String& name) {
   return ShadowRegisterConfig::ShadowRegisterConfigIs(name);
}

const Platform::TypeData& ShadowRegisterConfig::staticType() {
   static const Platform::TypeData type =
      Platform::TypeBuilder<ShadowRegisterConfig>("TarnRegFile::Sable::ShadowRegisterConfig",
                                                  ShadowRegisterTable::staticType())
         .build();
   return type;
}

} // namespace TarnRegFile::Sable
