#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

#include "platform/entity/RefCounted.h"

namespace Platform {

namespace Detail {
/// What makes an object itself, whichever of its base classes a pointer names it by.
template <typename T>
const void* identity(const T* object) noexcept {
   return static_cast<const RefCounted*>(object);
}
} // namespace Detail

/// Counted reference to a RefCounted object; one word. Converts implicitly to Ptr<const T> and to
/// a base class; ptrCast() is the explicit, checked way down. Compares and hashes by identity.
///
/// One Ptr object is used by one thread at a time; the count behind it is shared safely once the
/// process has declared itself multi-threaded (multiThreadedIs()).
template <typename T>
class Ptr {
public:
   using element_type = T;

   constexpr Ptr() noexcept = default;
   constexpr Ptr(std::nullptr_t) noexcept {}

   /// Takes a reference. Safe on `this` inside a constructor.
   explicit Ptr(T* object) noexcept : _object(object) { _inc(); }

   Ptr(const Ptr& other) noexcept : _object(other._object) { _inc(); }
   Ptr(Ptr&& other) noexcept : _object(std::exchange(other._object, nullptr)) {}

   template <typename U>
   requires std::is_convertible_v<U*, T*> Ptr(const Ptr<U>& other)
   noexcept : _object(other.get()) { _inc(); }

   template <typename U>
   requires std::is_convertible_v<U*, T*> Ptr(Ptr<U>&& other)
   noexcept : _object(std::exchange(other._object, nullptr)) {}

   ~Ptr() { _dec(_object); }

   Ptr& operator=(const Ptr& other) noexcept {
      Ptr(other).swap(*this);
      return *this;
   }

   Ptr& operator=(Ptr&& other) noexcept {
      Ptr(std::move(other)).swap(*this);
      return *this;
   }

   Ptr& operator=(std::nullptr_t) noexcept {
      reset();
      return *this;
   }

   /// Drops the reference. The pointer is already null when the object's last-user hook runs.
   void reset() noexcept { _dec(std::exchange(_object, nullptr)); }

   void swap(Ptr& other) noexcept { std::swap(_object, other._object); }

   T* get() const noexcept { return _object; }
   T& operator*() const noexcept { return *_object; }
   T* operator->() const noexcept { return _object; }
   explicit operator bool() const noexcept { return _object != nullptr; }

   template <typename H>
   friend H AbslHashValue(H state, const Ptr& pointer) {
      return H::combine(std::move(state), Detail::identity(pointer._object));
   }

private:
   template <typename U>
   friend class Ptr;

   template <typename U, typename... Args>
   friend Ptr<U> make(Args&&... args);

   struct Adopt {};
   Ptr(T* object, Adopt) noexcept : _object(object) {}

   void _inc() const noexcept {
      if (_object) {
         static_cast<const RefCounted*>(_object)->_refInc();
      }
   }

   static void _dec(T* object) noexcept {
      if (object) {
         static_cast<const RefCounted*>(object)->_refDec();
      }
   }

   T* _object = nullptr;
};

template <typename T, typename U>
bool operator==(const Ptr<T>& a, const Ptr<U>& b) noexcept {
   return Detail::identity(a.get()) == Detail::identity(b.get());
}

template <typename T>
bool operator==(const Ptr<T>& a, std::nullptr_t) noexcept {
   return a.get() == nullptr;
}

template <typename T, typename U>
std::strong_ordering operator<=>(const Ptr<T>& a, const Ptr<U>& b) noexcept {
   return std::compare_three_way{}(Detail::identity(a.get()), Detail::identity(b.get()));
}

/// Makes a T and returns its first reference. If the constructor throws, the exception passes on
/// and nothing is left behind.
///
/// A class whose construction ends with calls of its own virtual functions has them in a
/// handleConstructed(), which is called here: in a constructor, the overrides of derived classes
/// are not there yet. What it throws passes on in the same way.
template <typename T, typename... Args>
Ptr<T> make(Args&&... args) {
   Ptr<T> made(new T(std::forward<Args>(args)...), typename Ptr<T>::Adopt{});
   if constexpr (requires { made->handleConstructed(); }) {
      made->handleConstructed();
   }
   return made;
}

/// The same object as a T, or null when it is none (or `pointer` is null).
template <typename T, typename U>
Ptr<T> ptrCast(const Ptr<U>& pointer) noexcept {
   return Ptr<T>(dynamic_cast<T*>(pointer.get()));
}

} // namespace Platform

template <typename T>
struct std::hash<Platform::Ptr<T>> {
   std::size_t operator()(const Platform::Ptr<T>& pointer) const noexcept {
      return std::hash<const void*>{}(Platform::Detail::identity(pointer.get()));
   }
};
