#include "agent/OwnerLock.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include <fmt/format.h>

#include "TarnRegFile/CoreOwner.h"

namespace Agent {

namespace {

using TarnRegFile::Sable::CoreOwner;

constexpr mode_t mode = 0660;

[[noreturn]] void fail(const std::string& path) {
   throw std::system_error(errno, std::system_category(), path);
}

/// Locks one byte of the file; false, with errno set, if that fails.
bool isLocked(int fd, off_t byte) {
   struct flock lock = {};
   lock.l_type = F_WRLCK;
   lock.l_whence = SEEK_SET;
   lock.l_start = byte;
   lock.l_len = 1;
   return ::fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

std::string ownerIn(int fd) {
   std::array<char, 32> text{};
   const ssize_t size = ::pread(fd, text.data(), text.size() - 1, 0);
   std::string owner(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
   owner.resize(std::min(owner.size(), owner.find_first_not_of("0123456789")));
   return owner.empty() ? std::string() : fmt::format(", process {}", owner);
}

} // namespace

OwnerLock::OwnerLock(const Platform::Tables::TableDirectory& directory, const std::string& core)
   : _path(CoreOwner(directory, core).lockPath()),
     _file(::open(_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, mode)) {
   if (_file.fd() < 0) {
      fail(_path);
   }
   if (!isLocked(_file.fd(), CoreOwner::ownerByte)) {
      if (errno != EAGAIN && errno != EACCES) {
         fail(_path);
      }
      throw OwnedError(fmt::format("core '{}' has an agent already{}", core, ownerIn(_file.fd())));
   }
   const std::string owner = fmt::format("{}\n", ::getpid());
   if (::ftruncate(_file.fd(), 0) != 0 ||
       ::pwrite(_file.fd(), owner.data(), owner.size(), 0) != static_cast<ssize_t>(owner.size())) {
      fail(_path);
   }
}

void OwnerLock::serve() {
   if (!isLocked(_file.fd(), CoreOwner::servingByte)) {
      fail(_path);
   }
}

} // namespace Agent
