#include "platform/entity/Node.h"

#include "platform/entity/Fatal.h"
#include "platform/entity/Publisher.h"
#include "platform/entity/TypeData.h"
#include "platform/entity/Value.h"

namespace Platform {

Node::Node() : _ownerThread(std::this_thread::get_id()) {}

Node::~Node() {
   _checkThread("~Node");
   beingDestroyedIs();
}

Publisher& Node::publisher() const {
   _checkThread("publisher");
   if (!_publisher) {
      _publisher = std::make_unique<Publisher>();
   }
   return *_publisher;
}

const TypeData& Node::typeData() const {
   return staticType();
}

const TypeData& Node::staticType() {
   static const TypeData type("Platform::Node");
   return type;
}

bool Node::hasNotifiees() const noexcept {
   return _publisher && _publisher->hasNotifiees();
}

std::weak_ptr<const void> Node::aliveToken() const {
   if (!_alive) {
      _alive = std::make_shared<char>();
   }
   return _alive;
}

void Node::lastUser() noexcept {
   if (_publisher) {
      publisher().zeroReferences(*this);
   }
}

void Node::publish(AttributeId attribute) const {
   _checkThread("publish");
   if (hasNotifiees()) {
      _publish(attribute, Value());
   }
}

void Node::_publish(AttributeId attribute, const Value& key) const {
   if (beingDestroyed()) {
      return;
   }
   // Held to the end of the dispatch: a notifiee may drop what was the last reference.
   const Ptr<const Node> held(this);
   publisher().publish(Change{*this, attribute, key});
}

void Node::_checkThread([[maybe_unused]] const char* function) const noexcept {
#ifdef TARN_DEBUG_CHECKS
   if (std::this_thread::get_id() != _ownerThread) {
      fatalAssertion("platform/entity", function,
                     "onOwnerThread && \"node used on a thread that does not own it\"");
   }
#endif
}

} // namespace Platform
