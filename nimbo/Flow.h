#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Nimbo {

/// How much of each bus a connection has had: what FairQueue weighs it by. Belongs to one
/// connection; changed only by the queue that one of its transactions is in.
class Flow {
public:
   /// The end of its latest share of the bus with that serial number; 0 for none.
   std::uint64_t end(std::uint64_t bus) const noexcept {
      const auto entry = std::find_if(_ends.begin(), _ends.end(),
                                      [bus](const auto& each) { return each.first == bus; });
      return entry == _ends.end() ? 0 : entry->second;
   }

   void endIs(std::uint64_t bus, std::uint64_t end) {
      const auto entry = std::find_if(_ends.begin(), _ends.end(),
                                      [bus](const auto& each) { return each.first == bus; });
      if (entry != _ends.end()) {
         entry->second = end;
         return;
      }
      if (_ends.size() == mostBuses) {
         // More than a daemon has at a time: the oldest is one that went at a reload.
         _ends.erase(_ends.begin());
      }
      _ends.emplace_back(bus, end);
   }

private:
   static constexpr std::size_t mostBuses = 128;

   std::vector<std::pair<std::uint64_t, std::uint64_t>> _ends;
};

} // namespace Nimbo
