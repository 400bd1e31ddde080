#pragma once

#include <memory>
#include <thread>
#include <type_traits>
#include <utility>

#include "platform/entity/AttributeId.h"
#include "platform/entity/Export.h"
#include "platform/entity/Ptr.h"
#include "platform/entity/Types.h"

namespace Platform {

class Publisher;
class TypeData;
class Value;

/// An entity: reference-counted, observable, and described by a reflection table.
///
/// A class derived from it declares its attributes and operations once, in the table that its
/// staticType() returns, and overrides typeData() to return that table. Setters store first, then
/// publish, and only when the value differs.
///
/// A node belongs to the thread that made it (normally its event loop's), or to the one named
/// with ownerThreadIs(); builds with TARN_DEBUG_CHECKS stop the process when another one
/// subscribes to it, changes it or destroys it.
///
/// Parents and children that hold each other are taken apart by an explicit, idempotent teardown
/// that the owner calls.
class TARN_PLATFORM_API Node : public RefCounted {
public:
   Node();

   // Virtual slots, in this order: destructor and last-user hook (both from RefCounted), publisher
   // access, type data. Compiled observers rely on it.

   /// Where the notifiees of this node are registered. An override, which may want to know that
   /// somebody subscribes, returns what this one returns.
   virtual Publisher& publisher() const;

   /// The table that describes the node's most derived type.
   virtual const TypeData& typeData() const;

   /// The table of the bare node: no attributes, no operations.
   static const TypeData& staticType();

   /// Whether anybody is subscribed.
   bool hasNotifiees() const noexcept;

   /// Hands the node to another thread; nobody may be using it meanwhile.
   void ownerThreadIs(std::thread::id thread) noexcept { _ownerThread = thread; }
   std::thread::id ownerThread() const noexcept { return _ownerThread; }

   /// Expires when the node is destroyed; what WeakPtr is built on.
   std::weak_ptr<const void> aliveToken() const;

protected:
   ~Node() override;

   /// Runs the zero-references notifiees.
   void lastUser() noexcept override;

   /// Publishes a change of a plain attribute. Nothing is published while the node is being
   /// destroyed. Throws what a notifiee throws, after all of them were called.
   void publish(AttributeId attribute) const;

   /// Publishes a change of a collection at `key`.
   template <typename Key>
   void publish(AttributeId attribute, const Key& key) const;

   /// Stores `value` in `slot` and publishes, if the two differ. For setters.
   template <typename T>
   void store(T& slot, const std::type_identity_t<T>& value, AttributeId attribute) {
      if (!(slot == value)) {
         slot = value;
         publish(attribute);
      }
   }

private:
   void _publish(AttributeId attribute, const Value& key) const;
   void _checkThread(const char* function) const noexcept;

   std::thread::id _ownerThread;
   mutable std::unique_ptr<Publisher> _publisher;
   mutable std::shared_ptr<const void> _alive;
};

} // namespace Platform
