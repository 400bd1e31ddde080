#pragma once

#include <cstddef>
#include <map>
#include <string_view>
#include <utility>

#include "platform/entity/Export.h"
#include "platform/entity/Ptr.h"
#include "platform/entity/Types.h"
#include "platform/entity/WeakPtr.h"

namespace Platform {

/// Finds live entities by type and name, without keeping them alive. A program builds one and
/// hands it to the parsers that resolve references. Used on the thread of its entities.
class TARN_PLATFORM_API Directory {
public:
   /// Enters `node` under its type's name and `name`. Throws RangeError when `node` is null or
   /// another live entity has that place.
   void add(const String& name, const Ptr<Node>& node);

   /// The live entity of that type and name, or null.
   Ptr<Node> find(std::string_view type, std::string_view name) const;

   /// Entries held, those of entities that have died since the last sweep included. For tests and
   /// diagnostics.
   std::size_t size() const noexcept { return _entries.size(); }

private:
   using Key = std::pair<String, String>;

   // Entries of dead entities are dropped whenever as many have been added as were alive at the
   // last sweep, so that the map stays within a constant factor of what lives.
   void _sweep();

   std::map<Key, WeakPtr<Node>> _entries;
   std::size_t _sweepAt = 16;
};

} // namespace Platform
