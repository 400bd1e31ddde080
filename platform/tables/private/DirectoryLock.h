#pragma once

#include <string>

#include "platform/tables/private/FileHandle.h"
#include "platform/tables/TableDirectory.h"

namespace Platform::Tables {

/// Keeps tables of a directory from coming and going: shared by those who open one, exclusive to
/// those who make or remove one. The kernel gives it back for a process that is gone.
class DirectoryLock {
public:
   enum class Mode { shared, exclusive };

   /// Opens the directory, for `Mode::exclusive` makes it if there is none, and waits up to five
   /// seconds for the lock. Throws std::system_error: ETIMEDOUT (generic category); ENOTDIR or
   /// ELOOP if the path is no directory of its own; failed system calls.
   DirectoryLock(const TableDirectory& directory, Mode mode);

   /// The directory.
   int fd() const noexcept { return _directory.fd(); }

private:
   FileHandle _directory;
   FileHandle _lock;
};

} // namespace Platform::Tables
