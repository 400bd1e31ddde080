#include "TarnRegFile/CoreOwner.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>

#include "TarnRegFile/Utils.h"

namespace TarnRegFile::Sable {

CoreOwner::CoreOwner(const Platform::Tables::TableDirectory& directory, const String& coreName)
   : _lockPath(directory.path() + '/' +
               Platform::Tables::TableDirectory::fileName(coreName + "/owner") + ".lock") {}

OwnerLife CoreOwner::life() const noexcept {
   const Utils::UnixFdRes file(
      ::open(_lockPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
   if (file.fd() < 0) {
      return errno == ENOENT ? OwnerLife::gone : OwnerLife::unknown;
   }
   struct flock lock = {};
   lock.l_type = F_RDLCK; // which only the lock of an owner keeps from being taken
   lock.l_whence = SEEK_SET;
   lock.l_start = servingByte;
   lock.l_len = 1;
   if (::fcntl(file.fd(), F_OFD_GETLK, &lock) != 0) {
      return OwnerLife::unknown;
   }
   return lock.l_type == F_UNLCK ? OwnerLife::gone : OwnerLife::alive;
}

} // namespace TarnRegFile::Sable
