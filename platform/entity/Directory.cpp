#include "platform/entity/Directory.h"

#include <algorithm>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/TypeData.h"

namespace Platform {

void Directory::add(const String& name, const Ptr<Node>& node) {
   if (!node) {
      throw RangeError(fmt::format("no entity to enter under the name {}", quote(name)));
   }
   if (_entries.size() >= _sweepAt) {
      _sweep();
   }
   WeakPtr<Node>& entry = _entries[Key(String(node->typeData().name()), name)];
   const Ptr<Node> present = entry.lock();
   if (present && present != node) {
      throw RangeError(fmt::format("there is already an entity {} of type {}", quote(name),
                                   node->typeData().name()));
   }
   entry = WeakPtr<Node>(node);
}

Ptr<Node> Directory::find(std::string_view type, std::string_view name) const {
   const auto found = _entries.find(Key(String(type), String(name)));
   return found == _entries.end() ? nullptr : found->second.lock();
}

void Directory::_sweep() {
   std::erase_if(_entries, [](const auto& entry) { return !entry.second.lock(); });
   _sweepAt = std::max<std::size_t>(16, 2 * _entries.size());
}

} // namespace Platform
