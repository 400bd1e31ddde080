#include "agent/OwnerLock.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include <fmt/format.h>

namespace Agent {

namespace {

constexpr mode_t mode = 0660;

std::string pathOf(const Platform::Tables::TableDirectory& directory, const std::string& core) {
   return directory.path() + '/' + Platform::Tables::TableDirectory::fileName(core + "/owner") +
          ".lock";
}

[[noreturn]] void fail(const std::string& path) {
   throw std::system_error(errno, std::system_category(), path);
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
   : _file(
        ::open(pathOf(directory, core).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, mode)) {
   const std::string path = pathOf(directory, core);
   if (_file.fd() < 0) {
      fail(path);
   }
   struct flock lock = {};
   lock.l_type = F_WRLCK;
   lock.l_whence = SEEK_SET;
   if (::fcntl(_file.fd(), F_OFD_SETLK, &lock) != 0) {
      if (errno != EAGAIN && errno != EACCES) {
         fail(path);
      }
      throw OwnedError(fmt::format("core '{}' has an agent already{}", core, ownerIn(_file.fd())));
   }
   const std::string owner = fmt::format("{}\n", ::getpid());
   if (::ftruncate(_file.fd(), 0) != 0 ||
       ::pwrite(_file.fd(), owner.data(), owner.size(), 0) != static_cast<ssize_t>(owner.size())) {
      fail(path);
   }
}

} // namespace Agent
