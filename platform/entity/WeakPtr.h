#pragma once

#include <memory>
#include <type_traits>

#include "platform/entity/Node.h"
#include "platform/entity/Ptr.h"

namespace Platform {

/// Remembers a node without keeping it alive. Used on the node's own thread only: between the
/// look and the reference, another thread could destroy the node.
template <typename T>
class WeakPtr {
public:
   WeakPtr() noexcept = default;
   explicit WeakPtr(const Ptr<T>& node) : _object(node.get()) {
      if (_object) {
         _alive = static_cast<const Node*>(_object)->aliveToken();
      }
   }

   /// The node, or null when it has been destroyed or is being destroyed.
   Ptr<T> lock() const noexcept {
      if (_alive.expired() || _object->beingDestroyed()) {
         return nullptr;
      }
      return Ptr<T>(_object);
   }

private:
   T* _object = nullptr;
   std::weak_ptr<const void> _alive;
};

} // namespace Platform
