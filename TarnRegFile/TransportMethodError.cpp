#include "TarnRegFile/TransportMethodError.h"

#include "platform/entity/TypeBuilder.h"

namespace TarnRegFile {

TransportMethodError::TransportMethodError(const String& chipName) : _chipName(chipName) {}

TransportMethodError::~TransportMethodError() {
   beingDestroyedIs();
}

const Platform::TypeData& TransportMethodError::staticType() {
   using Self = TransportMethodError;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("TarnRegFile::TransportMethodError", Node::staticType())
         .attribute<&Self::chipName, &Self::chipNameIs>("chipName")
         .attribute<&Self::error, &Self::errorIs>("error")
         .build();
   return type;
}

void TransportMethodError::chipNameIs(const String& chipName) {
   store(_chipName, chipName, chipNameAttr);
}

void TransportMethodError::errorIs(bool error) {
   store(_error, error, errorAttr);
}

} // namespace TarnRegFile
