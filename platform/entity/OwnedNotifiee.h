#pragma once

#include <utility>

#include "platform/entity/Ptr.h"

namespace Platform {

/// Holds a notifiee on behalf of the object that it calls back into. When the owner goes, the
/// notifiee becomes a zombie, so a dispatch that still holds it does not call into a dead owner.
template <typename N>
class OwnedNotifiee {
public:
   OwnedNotifiee() noexcept = default;

   template <typename... Args>
   explicit OwnedNotifiee(std::in_place_t, Args&&... args)
      : _notifiee(make<N>(std::forward<Args>(args)...)) {}

   OwnedNotifiee(OwnedNotifiee&&) noexcept = default;
   OwnedNotifiee& operator=(OwnedNotifiee&& other) noexcept {
      if (this != &other) {
         reset();
         _notifiee = std::move(other._notifiee);
      }
      return *this;
   }
   ~OwnedNotifiee() { reset(); }

   /// Silences the notifiee for good and lets it go.
   void reset() noexcept {
      if (Ptr<N> gone = std::move(_notifiee)) {
         gone->zombieIs();
      }
   }

   N* get() const noexcept { return _notifiee.get(); }
   N* operator->() const noexcept { return _notifiee.get(); }
   explicit operator bool() const noexcept { return static_cast<bool>(_notifiee); }

private:
   Ptr<N> _notifiee;
};

} // namespace Platform
