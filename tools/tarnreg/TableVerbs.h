#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/tables/TableDirectory.h"
#include "tools/tarnreg/Pace.h"
#include "tools/tarnreg/Report.h"

/// What `tarnreg table` does with the shared tables of this machine. All of it mounts tables as a
/// reader, but for removal, and so changes nothing in them.
namespace TarnReg {

/// Lists the tables: what they hold, how many records, who has them mounted.
void listTables(const Platform::Tables::TableDirectory& directory, Report& report);

/// Says all that is known of a table: what it is made for, what it takes, its mounts.
void describeTable(const Platform::Tables::TableDirectory& directory, const std::string& name,
                   Report& report);

/// Prints every record of a table, in the order of the keys' bytes.
void dumpTable(const Platform::Tables::TableDirectory& directory, const std::string& name,
               Report& report);

/// How watchTable() goes about it.
struct TableWatchOptions {
   std::uint64_t count = 0;                           ///< changes; 0: no end
   std::optional<Pace::Clock::duration> timeout = {}; ///< for all of them; none: no end
};

/// Prints the changes of a table as they come, until there were `count`, or the time is over, or
/// the process is interrupted. Throws Failure (timeout) when `count` did not come in time.
void watchTable(const Platform::Tables::TableDirectory& directory, const std::string& name,
                const TableWatchOptions& options, Report& report);

/// Looks through tables, all of them without names, for damage, and fails when there is any.
void auditTables(const Platform::Tables::TableDirectory& directory,
                 const std::vector<std::string>& names, Report& report);

/// Removes a table; `force`: also one that is mounted.
void removeTable(const Platform::Tables::TableDirectory& directory, const std::string& name,
                 bool force, Report& report);

} // namespace TarnReg
