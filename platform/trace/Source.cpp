#include "platform/trace/Source.h"

#include "platform/trace/Sources.h"

namespace Platform::Trace {

Source::~Source() {
   // Code that runs even later may still ask: the answer must not lead back into the registry.
   Sources::instance().sourceAdd(*this);
   Sources::instance().sourceDel(*this);
}

int Source::threshold() noexcept {
   registered();
   return _threshold.load(std::memory_order_relaxed);
}

bool Source::registered() noexcept {
   if (_threshold.load(std::memory_order_relaxed) == _unregistered) {
      Sources::instance().sourceAdd(*this);
   }
   return true;
}

bool Source::_firstUse(int level) noexcept {
   return level <= threshold();
}

} // namespace Platform::Trace
