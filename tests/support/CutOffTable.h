#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "platform/tables/TableDirectory.h"
#include "TarnRegFile/Utils.h"

namespace TestSupport {

/// Removes a table and cuts its memory off under who has it mounted, as the owner of a core does
/// with a damaged one before it makes another.
inline void cutOffTable(const Platform::Tables::TableDirectory& directory,
                        const std::string& name) {
   const std::string path =
      directory.path() + '/' + Platform::Tables::TableDirectory::fileName(name);
   const TarnRegFile::Utils::UnixFdRes table(::open((path + ".tbl").c_str(), O_WRONLY | O_CLOEXEC));
   // Its closing wakes who sleeps.
   const TarnRegFile::Utils::UnixFdRes bell(::open((path + ".bell").c_str(), O_WRONLY | O_CLOEXEC));
   directory.tableDel(name, true);
   if (::ftruncate(table.fd(), 0) != 0) {
      throw std::system_error(errno, std::system_category(), path);
   }
}

} // namespace TestSupport
