#pragma once

#include <cstddef>
#include <vector>

#include "platform/entity/Change.h"
#include "platform/entity/Export.h"
#include "platform/entity/Notifiee.h"

namespace Platform {

class Node;

/// The notifiees of one node, and the dispatch to them.
///
/// A subscription is a slot in a vector, in order of registration. While a dispatch is under way
/// slots are only emptied or appended, never moved: a dispatch walks by index up to the end it saw
/// at its start, so whoever goes is not called again and whoever comes misses this change. Empty
/// slots are squeezed out when the outermost dispatch ends. All on the node's thread.
class TARN_PLATFORM_API Publisher {
public:
   Publisher() = default;
   Publisher(const Publisher&) = delete;
   Publisher& operator=(const Publisher&) = delete;
   ~Publisher();

   void notifieeIs(Notifiee& notifiee);
   void notifieeDel(Notifiee& notifiee) noexcept;

   /// Whether anybody would be called for a change.
   bool hasNotifiees() const noexcept { return _changes.used != 0; }

   /// Calls every notifiee for `change`; rethrows the first exception after the last call.
   void publish(const Change& change);

   /// Calls the zero-references notifiees of `node`.
   void zeroReferences(Node& node) noexcept;

private:
   struct Slots {
      std::vector<Notifiee*> entries;
      std::size_t used = 0;
      unsigned dispatches = 0;
   };

   Slots& _slotsOf(const Notifiee& notifiee) noexcept;

   template <typename Call>
   static void _forEach(Slots& slots, Call&& call);

   Slots _changes;
   Slots _zeroReferences;
   Slots _inactive; // never called, but told when the node goes
};

} // namespace Platform
