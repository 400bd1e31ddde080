#include "TarnRegFile/AsyncHelper.h"

#include "platform/entity/TypeBuilder.h"

namespace TarnRegFile {

AsyncHelperBase::AsyncHelperBase() = default;

AsyncHelperBase::~AsyncHelperBase() {
   beingDestroyedIs();
}

const Platform::TypeData& AsyncHelperBase::staticType() {
   using Self = AsyncHelperBase;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("TarnRegFile::AsyncHelperBase", Node::staticType())
         .operation<&Self::handleReadResult>("handleReadResult", {"regName", "result", "value"})
         .operation<&Self::handleWriteResult>("handleWriteResult", {"regName", "result"})
         .build();
   return type;
}

} // namespace TarnRegFile
