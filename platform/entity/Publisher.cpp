#include "platform/entity/Publisher.h"

#include <algorithm>
#include <exception>

#include "platform/entity/ZeroReferencesNotifiee.h"

namespace Platform {

Publisher::~Publisher() {
   for (Slots* slots : {&_changes, &_zeroReferences, &_inactive}) {
      for (Notifiee* notifiee : slots->entries) {
         if (notifiee) {
            notifiee->_notifier = nullptr;
         }
      }
   }
}

Publisher::Slots& Publisher::_slotsOf(const Notifiee& notifiee) noexcept {
   if (!notifiee._active) {
      return _inactive;
   }
   return notifiee._kind == Notifiee::Kind::changes ? _changes : _zeroReferences;
}

void Publisher::notifieeIs(Notifiee& notifiee) {
   Slots& slots = _slotsOf(notifiee);
   slots.entries.push_back(&notifiee);
   ++slots.used;
}

void Publisher::notifieeDel(Notifiee& notifiee) noexcept {
   Slots& slots = _slotsOf(notifiee);
   auto found = std::find(slots.entries.begin(), slots.entries.end(), &notifiee);
   if (found == slots.entries.end()) {
      return;
   }
   --slots.used;
   if (slots.dispatches == 0) {
      slots.entries.erase(found);
   } else {
      *found = nullptr;
   }
}

template <typename Call>
void Publisher::_forEach(Slots& slots, Call&& call) {
   ++slots.dispatches;
   const std::size_t end = slots.entries.size();
   for (std::size_t i = 0; i < end; ++i) {
      Notifiee* notifiee = slots.entries[i];
      // One that is being destroyed is no longer whole, though its slot is not empty yet.
      if (notifiee && !notifiee->beingDestroyed()) {
         Ptr<Notifiee> held(notifiee);
         call(*notifiee);
      }
   }
   if (--slots.dispatches == 0 && slots.used != slots.entries.size()) {
      std::erase(slots.entries, nullptr);
   }
}

void Publisher::publish(const Change& change) {
   std::exception_ptr first;
   _forEach(_changes, [&](Notifiee& notifiee) {
      try {
         notifiee.onChange(change);
      } catch (...) {
         if (!first) {
            first = std::current_exception();
         }
      }
   });
   if (first) {
      std::rethrow_exception(first);
   }
}

void Publisher::zeroReferences(Node& node) noexcept {
   _forEach(_zeroReferences, [&](Notifiee& notifiee) {
      static_cast<ZeroReferencesNotifiee&>(notifiee).onZeroReferences(node);
   });
}

} // namespace Platform
