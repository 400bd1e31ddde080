#include "platform/entity/Notifiee.h"

#include <utility>

#include "platform/entity/Node.h"
#include "platform/entity/Publisher.h"

namespace Platform {

Notifiee::~Notifiee() {
   _unsubscribe();
}

void Notifiee::notifierIs(const Node* source) {
   if (_zombie || source == _notifier) {
      return;
   }
   _unsubscribe();
   _subscribe(source);
}

void Notifiee::activeIs(bool active) {
   if (active == _active) {
      return;
   }
   const Node* source = _notifier;
   _unsubscribe();
   _active = active;
   _subscribe(source);
}

void Notifiee::zombieIs() noexcept {
   _unsubscribe();
   _zombie = true;
}

void Notifiee::_subscribe(const Node* source) {
   if (source) {
      source->publisher().notifieeIs(*this);
   }
   _notifier = source;
}

void Notifiee::_unsubscribe() noexcept {
   if (const Node* source = std::exchange(_notifier, nullptr)) {
      source->publisher().notifieeDel(*this);
   }
}

} // namespace Platform
