#include "platform/entity/Notifiee.h"

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
   _notifier = source;
   _subscribe();
}

void Notifiee::activeIs(bool active) {
   if (active == _active) {
      return;
   }
   if (active) {
      _active = true;
      _subscribe();
   } else {
      _unsubscribe();
      _active = false;
   }
}

void Notifiee::zombieIs() noexcept {
   _unsubscribe();
   _notifier = nullptr;
   _zombie = true;
}

void Notifiee::_subscribe() {
   if (_notifier && _active && !_zombie) {
      _notifier->publisher().notifieeIs(*this);
   }
}

void Notifiee::_unsubscribe() noexcept {
   if (_notifier && _active) {
      _notifier->publisher().notifieeDel(*this);
   }
}

} // namespace Platform
