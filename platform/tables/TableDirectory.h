#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/entity/Export.h"

namespace Platform::Tables {

/// The directory that a system's shared tables are in: by default `/dev/shm/tarn`, or what the
/// environment variable TARN_TABLE_DIR says. Made, with mode 0770, when the first table is.
///
/// A table NAME is four files in it. NAME.tbl is the table itself. NAME.ctl is one page in which
/// sleeping readers leave word that they want to be woken, NAME.bell what they are woken by,
/// NAME.reg where every mount has locked a byte. Bytes of a name that a file name cannot have are
/// written as %XX.
///
/// A plain value; any thread.
class TARN_PLATFORM_API TableDirectory {
public:
   /// The directory that the environment, or else the system, provides.
   TableDirectory();

   /// `path`; throws std::system_error EINVAL (generic category) if it is empty.
   explicit TableDirectory(std::string path);

   const std::string& path() const noexcept { return _path; }

   /// Names of the tables that there are, sorted; none if there is no directory. Throws
   /// std::system_error if it cannot be read.
   std::vector<std::string> tableNames() const;

   /// Removes a table, and with it all that it holds. Those who have it mounted keep what they
   /// have, and see and make no further changes of others.
   ///
   /// Throws std::system_error: ENOENT if there is none; EBUSY (generic category) if it is mounted
   /// and `force` is false; failed system calls.
   void tableDel(const std::string& name, bool force = false) const;

   /// Makes a table useless that is damaged in part: from here on everybody finds it damaged before
   /// he writes anything, those too who have it mounted. What it holds can still be read through a
   /// reader's mount, record by record, with TableMount::next(). So that whoever makes a new one of
   /// what is left has it all. Waits some milliseconds for a writer that is at work; one that is
   /// stopped in the middle of it is not waited for.
   ///
   /// Throws std::system_error: ENOENT (system category) if there is none; failed system calls.
   void tableSpoil(const std::string& name) const;

   /// The name of a table's files, without what follows the dot. Throws std::system_error EINVAL
   /// (generic category) for an empty name, ENAMETOOLONG for one that comes to more than 200 bytes.
   static std::string fileName(std::string_view name);

private:
   std::string _path;
};

} // namespace Platform::Tables
