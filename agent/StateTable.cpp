#include "agent/StateTable.h"

namespace Agent {

StateTable::StateTable(Platform::Tables::TableService& service, const std::string& name,
                       const Options& options)
   : _table(name, *this) {
   _table.mount(service, options);
}

std::string StateTable::problem() const {
   const auto found = _table.tableMount()->audit();
   return found.problems.empty() ? std::string() : found.problems.front();
}

} // namespace Agent
