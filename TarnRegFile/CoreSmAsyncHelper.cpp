#include "TarnRegFile/CoreSmAsyncHelper.h"

#include "platform/entity/Fatal.h"
#include "platform/entity/TypeBuilder.h"
#include "platform/trace/Trace.h"
#include "TarnRegFile/CoreSmBase.h"

namespace TarnRegFile::Sable {

namespace {

TARN_TRACE_SOURCE(traceSource, "TarnRegFile/CoreSmAsyncHelper");

constexpr const char* className = "CoreSmAsyncHelper";

} // namespace

CoreSmAsyncHelper::CoreSmAsyncHelper(const Ptr<CoreSmBase>& parent) : _parent(parent) {}

CoreSmAsyncHelper::~CoreSmAsyncHelper() {
   beingDestroyedIs();
}

const Platform::TypeData& CoreSmAsyncHelper::staticType() {
   using Self = CoreSmAsyncHelper;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("TarnRegFile::Sable::CoreSmAsyncHelper",
                                  AsyncHelperBase::staticType())
         .attribute<&Self::_constParent>("parent")
         .build();
   return type;
}

void CoreSmAsyncHelper::handleReadResult(const String& regName, RegAccessResult result,
                                         std::uint32_t value) {
   TARN_TRACE(traceSource, 9, "handleReadResult", "read {} from transport: result {}, value {}",
              regName, stringValue(result), value);
   if (!_parent) {
      Platform::fatalAssertion(className, "handleReadResult", "parent is not initialized");
   }
   const Ptr<CoreSmBase> core = _parent; // what is told may take the core down
   if (!core->ready()) {
      core->handleInitSyncResult(regName, result, value);
      return;
   }
   if (result == RegAccessResult::Success) {
      core->updateShadowRegStatus(regName, value);
   }
   if (core->accessHw()) {
      core->doOnReadResult(regName, result, value);
   }
}

void CoreSmAsyncHelper::handleWriteResult(const String& regName, RegAccessResult result) {
   if (!_parent) {
      Platform::fatalAssertion(className, "handleWriteResult", "parent is not initialized");
   }
   const Ptr<CoreSmBase> core = _parent;
   if (core->ready()) {
      core->doOnWriteResult(regName, result);
   }
}

} // namespace TarnRegFile::Sable
