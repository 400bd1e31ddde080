#include "nimbo/BusTable.h"

#include <algorithm>
#include <utility>

namespace Nimbo {

namespace {

/// How much a bus asks of the requests that are for it.
int demands(const BusConfig& config) {
   return (config.pciBdf ? 2 : 0) + (config.controller ? 1 : 0);
}

} // namespace

BusTable::BusTable(std::vector<std::shared_ptr<Bus>> buses) : _buses(std::move(buses)) {
   for (const std::shared_ptr<Bus>& bus : _buses) {
      _byNumber.at(bus->config().number).push_back(bus.get());
   }
   for (std::vector<Bus*>& candidates : _byNumber) {
      std::stable_sort(candidates.begin(), candidates.end(), [](const Bus* left, const Bus* right) {
         return demands(left->config()) > demands(right->config());
      });
   }
}

Bus* BusTable::find(const AddressWord& where, std::uint32_t pciBdf) const noexcept {
   for (Bus* bus : _byNumber[where.bus]) {
      const BusConfig& config = bus->config();
      if ((!config.pciBdf || *config.pciBdf == pciBdf) &&
          (!config.controller || *config.controller == where.controller)) {
         return bus;
      }
   }
   return nullptr;
}

} // namespace Nimbo
