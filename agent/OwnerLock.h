#pragma once

#include <stdexcept>
#include <string>

#include "platform/tables/TableDirectory.h"
#include "TarnRegFile/Utils.h"

namespace Agent {

/// Another agent owns the core: ExitCode::refused.
class OwnedError : public std::runtime_error {
public:
   using std::runtime_error::runtime_error;
};

/// Makes an agent the only one that owns a core, among all that use the same table directory: a
/// lock on a file there, which the system lets go when the process ends, however it does. The file
/// holds the owner's process id, and stays. See CoreOwner for how others learn of it.
class OwnerLock {
public:
   /// The directory exists. Throws OwnedError, naming core and owner, if there is one already, and
   /// std::system_error for failed system calls.
   OwnerLock(const Platform::Tables::TableDirectory& directory, const std::string& core);

   /// The core's state is this owner's from here on. Throws std::system_error.
   void serve();

private:
   const std::string _path;
   TarnRegFile::Utils::UnixFdRes _file;
};

} // namespace Agent
