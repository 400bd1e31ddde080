#pragma once

#include "platform/entity/Change.h"
#include "platform/entity/Export.h"
#include "platform/entity/Ptr.h"

namespace Platform {

class Publisher;

/// Receives the changes of one node.
///
/// The node does not keep its notifiees alive, and a notifiee does not keep its node alive: each
/// forgets the other when it goes. During a call both are held. Owners usually keep a notifiee in
/// an OwnedNotifiee, which silences it for good when the owner goes.
///
/// A notifiee that is unsubscribed, inactive or a zombie is never called, not even by a dispatch
/// that is under way. It belongs to its node's thread.
class TARN_PLATFORM_API Notifiee : public RefCounted {
public:
   ~Notifiee() override;

   /// Subscribes to `source` in place of the node watched so far; null watches none. A zombie
   /// remembers nothing. A change whose dispatch is under way is missed.
   void notifierIs(const Node* source);
   void notifierIs(const Ptr<const Node>& source) { notifierIs(source.get()); }

   /// The node watched, or null when there is none or it has been destroyed.
   const Node* notifier() const noexcept { return _notifier; }

   /// Switches the calls off and on. Switching on subscribes again, behind those who are
   /// subscribed by then. Asking for the present state does nothing.
   void activeIs(bool active);
   bool active() const noexcept { return _active; }

   /// Silences the notifiee for good.
   void zombieIs() noexcept;
   bool zombie() const noexcept { return _zombie; }

   /// A change of the node. May throw: the other notifiees are still called, and the first
   /// exception reaches whoever made the change.
   virtual void onChange(const Change& change) = 0;

protected:
   /// What a notifiee is called for.
   enum class Kind { changes, zeroReferences };

   explicit Notifiee(Kind kind = Kind::changes) noexcept : _kind(kind) {}

private:
   friend class Publisher;

   void _subscribe(const Node* source);
   void _unsubscribe() noexcept;

   const Node* _notifier = nullptr;
   const Kind _kind;
   bool _active = true;
   bool _zombie = false;
};

} // namespace Platform
