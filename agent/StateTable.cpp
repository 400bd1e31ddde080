#include "agent/StateTable.h"

namespace Agent {

using Platform::Tables::TableRole;

StateTable::StateTable(Platform::Tables::TableService& service, const std::string& name)
   : _table(name, *this) {
   _table.mount(service, {.role = TableRole::writer});
}

} // namespace Agent
