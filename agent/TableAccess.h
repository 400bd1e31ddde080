#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "platform/tables/TableBase.h"
#include "platform/tables/TableDirectory.h"

namespace Agent {

/// Who besides the agent's own user may do what with the tables of its cores. A plain value.
struct AccessRights {
   std::optional<gid_t> group = std::nullopt; ///< of the files; the process's unless given
   bool othersRead = false;                   ///< whether everybody may read
};

/// The files of the tables in one directory, as far as rights go: clients of the group wish, and so
/// write some of the tables; only the agent writes the others; who is not of the group reads at
/// most, and has no right to write any of the files, not even those by which a sleeper is woken.
///
/// What is asked for is also given to what others made before, as far as that may be done; what may
/// not is traced at level 0. Without anything asked for, what is there stays as it is.
///
/// A plain value, for one thread at a time.
class TableAccess {
public:
   enum class Kind {
      wishes,  ///< written by clients
      reports, ///< written by the agent only
   };

   TableAccess(Platform::Tables::TableDirectory directory, const AccessRights& rights)
      : _directory(std::move(directory)), _rights(rights) {}

   /// To mount a table as its writer, and make it if there is none.
   Platform::Tables::TableBase::MountOptions options(Kind kind) const;

   /// Makes the directory if there is none, and gives it the rights.
   void applyToDirectory() const;

   /// Gives the files of a table theirs.
   void applyToTable(const std::string& name, Kind kind) const;

   /// Gives a core's lock, a file of that name in the directory, its own.
   void applyToLock(const std::string& file) const;

private:
   bool _isAsked() const noexcept { return _rights.group || _rights.othersRead; }
   mode_t _others(mode_t mode) const noexcept { return _rights.othersRead ? mode : 0; }
   void _apply(const std::string& path, mode_t mode, bool isDirectory = false) const;

   const Platform::Tables::TableDirectory _directory;
   const AccessRights _rights;
};

} // namespace Agent
