#include "platform/entity/RefCounted.h"

#include "platform/entity/Fatal.h"

namespace Platform {

RefCounted::~RefCounted() {
   // One: the reference that whoever destroys the object stands for. More means that a Ptr, handed
   // out by a constructor that then threw, or by a destructor, outlives the object.
   if (refCount() != 1) {
      fatalAssertion("platform/entity", "~RefCounted",
                     "refCount == 1 && \"object destroyed while references to it remain\"");
   }
}

void RefCounted::_lastReferenceGone() const noexcept {
   auto* self = const_cast<RefCounted*>(this);
   // This reference stands for the hook and then for the destructor: what they take and drop
   // never reaches zero a second time.
   _count.store(1, std::memory_order_relaxed);
   self->lastUser();
   if (!_dropsToZero()) {
      return; // somebody took a new reference
   }
   _count.store(1, std::memory_order_relaxed);
   self->_beingDestroyed = true;
   delete self;
}

} // namespace Platform
