#pragma once

#include <string>

#include "platform/tables/Table.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/CoreState.h"

namespace Agent {

/// The table NAME/state, in which the agent says how a core is. Owned by the core's agent; on the
/// thread of the service's loop.
class StateTable : private Platform::Tables::Table<TarnRegFile::Sable::CoreState>::Owner {
public:
   using CoreState = TarnRegFile::Sable::CoreState;

   using Options = Platform::Tables::TableBase::MountOptions;

   /// Mounts the table, and makes it if there is none. Throws what TableBase::mount() throws.
   StateTable(Platform::Tables::TableService& service, const std::string& name,
              const Options& options);
   virtual ~StateTable() = default;
   StateTable(const StateTable&) = delete;
   StateTable& operator=(const StateTable&) = delete;

   /// Shows `state`. Throws what a table's put() throws.
   void stateIs(const CoreState& state) { _table.put(state); }

   /// The first thing that is wrong with the table; empty if nothing is.
   std::string problem() const;

   static Platform::Tables::TableShape shape() {
      return Platform::Tables::Table<CoreState>::tableShape();
   }

private:
   void tableChanged(const Platform::UniqueId&) override {}
   void tableMountStatusChanged() override {}
   void tableQuiescedChanged(bool) override {}

   Platform::Tables::Table<CoreState> _table;
};

} // namespace Agent
