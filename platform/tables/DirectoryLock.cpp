#include "platform/tables/private/DirectoryLock.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include <fmt/format.h>

#include "platform/entity/Errors.h"

namespace Platform::Tables {

namespace {

constexpr const char* lockName = ".lock";
constexpr std::chrono::seconds patience{5};

FileHandle openDirectory(const std::string& path) {
   return FileHandle(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
}

} // namespace

DirectoryLock::DirectoryLock(const TableDirectory& directory, Mode mode) {
   const std::string& path = directory.path();
   _directory = openDirectory(path);
   if (!_directory.isOpen() && errno == ENOENT && mode == Mode::exclusive) {
      // What the process masks off is what others of the group need.
      if (::mkdir(path.c_str(), 0770) == 0) {
         ::chmod(path.c_str(), 0770);
      }
      _directory = openDirectory(path);
   }
   if (!_directory.isOpen()) {
      throwErrno(fmt::format("cannot open the table directory '{}'", path));
   }
   constexpr int common = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
   if (mode == Mode::exclusive) {
      _lock = FileHandle(::openat(fd(), lockName, O_RDWR | O_CREAT | common, 0660));
      struct stat status = {};
      if (_lock.isOpen() && ::fstat(_lock.fd(), &status) == 0 && status.st_uid == ::geteuid()) {
         ::fchmod(_lock.fd(), 0664);
      }
   } else {
      _lock = FileHandle(::openat(fd(), lockName, O_RDONLY | common));
   }
   if (!_lock.isOpen()) {
      throwErrno(fmt::format("cannot open '{}/{}'", path, lockName));
   }
   struct flock lock = {};
   lock.l_type = mode == Mode::exclusive ? F_WRLCK : F_RDLCK;
   lock.l_whence = SEEK_SET;
   const auto deadline = std::chrono::steady_clock::now() + patience;
   while (::fcntl(_lock.fd(), F_OFD_SETLK, &lock) != 0) {
      if (errno != EAGAIN && errno != EACCES) {
         throwErrno(fmt::format("cannot lock '{}/{}'", path, lockName));
      }
      if (std::chrono::steady_clock::now() >= deadline) {
         throwError(ETIMEDOUT, fmt::format("'{}/{}' is locked by another process", path, lockName));
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   }
}

} // namespace Platform::Tables
