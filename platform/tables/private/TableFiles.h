#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "platform/tables/private/FileHandle.h"
#include "platform/tables/private/Header.h"
#include "platform/tables/TableDirectory.h"
#include "platform/tables/TableRole.h"

namespace Platform::Tables {

/// The open files of one table.
struct TableFiles {
   FileHandle table;     ///< Read-only for a reader.
   FileHandle control;   ///< None for a reader that may not write it.
   FileHandle bell;      ///< For ringing; writers only.
   FileHandle bellWatch; ///< For watching.
   FileHandle mounts;    ///< None for a reader that may not write it.
   Header header = {};   ///< Without objection.

   /// Who may use the files of a new table.
   struct Permissions {
      mode_t mode = 0660;
      gid_t group = static_cast<gid_t>(-1); ///< -1: that of the process.
   };

   /// Opens the files of a table; with `shape` makes them if there are none. They are a new table's
   /// whole: it appears, with its contents formatted, in one step, and a process that dies before
   /// leaves nothing that anybody would see.
   ///
   /// `onOpen` is called before the directory, which is locked meanwhile, is free again: so that a
   /// mount can register itself before somebody removes the table as one that nobody has mounted.
   ///
   /// Throws std::system_error: ENOENT (system category) if there is none; EMLINK, ELOOP or EINVAL
   /// for what is no regular file of its own; failed system calls. CorruptionException for a file
   /// that is no table, of another layout, damaged or cut off.
   static void open(const TableDirectory& directory, const std::string& name, TableRole role,
                    const std::optional<TableShape>& shape, const Permissions& permissions,
                    const std::function<void(TableFiles)>& onOpen);

   /// Removes the files of a table. As TableDirectory::tableDel().
   static void remove(const TableDirectory& directory, const std::string& name, bool force);

   /// Leaves a table without an index. As TableDirectory::tableSpoil().
   static void spoil(const TableDirectory& directory, const std::string& name);
};

} // namespace Platform::Tables
