#pragma once

#include <atomic>
#include <cstdint>

#include "platform/entity/Export.h"
#include "platform/entity/MultiThreading.h"

namespace Platform {

template <typename T>
class Ptr;

template <typename T, typename... Args>
Ptr<T> make(Args&&... args);

/// Base of everything that a Ptr can hold.
///
/// The count starts at one: the construction reference. It keeps the object alive while its
/// constructor hands out Ptr(this), and becomes the reference that make() returns. An object is
/// therefore made with make(), never with a bare new.
///
/// When the last reference goes, lastUser() runs; it may let somebody take a new reference, and the
/// object then lives on. Otherwise the object is destroyed. A reference taken and dropped while
/// the destructor runs is harmless; one that outlives the object ends the process, in place of a
/// dangling pointer later.
///
/// Counts may change on any thread once multiThreadedIs() was called; lastUser() and the
/// destructor run on the thread that drops the last reference.
class TARN_PLATFORM_API RefCounted {
public:
   RefCounted(const RefCounted&) = delete;
   RefCounted& operator=(const RefCounted&) = delete;

   /// References at this moment, the construction reference included. For tests and diagnostics.
   std::uint32_t refCount() const noexcept { return _count.load(std::memory_order_relaxed); }

   /// True from the moment that destruction is settled on.
   bool beingDestroyed() const noexcept { return _beingDestroyed; }

protected:
   RefCounted() noexcept = default;
   virtual ~RefCounted();

   /// Runs when the last reference has gone, before anything is destroyed. Must not throw: there
   /// is nobody to throw to.
   virtual void lastUser() noexcept {}

   /// Marks the object as being destroyed. Destructors of derived classes call it first, so that
   /// what they still do to the object is no longer seen by observers.
   void beingDestroyedIs() noexcept { _beingDestroyed = true; }

private:
   template <typename T>
   friend class Ptr;

   void _refInc() const noexcept {
      if (multiThreaded()) {
         _count.fetch_add(1, std::memory_order_relaxed);
      } else {
         _count.store(_count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
      }
   }

   void _refDec() const noexcept {
      if (_dropsToZero()) {
         _lastReferenceGone();
      }
   }

   bool _dropsToZero() const noexcept {
      if (multiThreaded()) {
         return _count.fetch_sub(1, std::memory_order_acq_rel) == 1;
      }
      const std::uint32_t left = _count.load(std::memory_order_relaxed) - 1;
      _count.store(left, std::memory_order_relaxed);
      return left == 0;
   }

   void _lastReferenceGone() const noexcept;

   mutable std::atomic<std::uint32_t> _count{1};
   bool _beingDestroyed = false;
};

} // namespace Platform
