#include "nimbo/ListeningSocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>
#include <systemd/sd-daemon.h>

#include "nimbo/UnixAddress.h"
#include "platform/entity/Errors.h"
#include "platform/trace/Trace.h"

namespace Nimbo {

namespace {

TARN_TRACE_SOURCE(traceSource, "nimbo/ListeningSocket");

using TarnRegFile::Utils::UnixFdRes;

constexpr mode_t directoryMode = 0755;
constexpr mode_t lockMode = 0600;
constexpr const char* lockSuffix = ".lock";
constexpr const char* newSuffix = ".new"; // while it is made; nobody else's, thanks to the lock

[[noreturn]] void fail(const std::string& text) {
   throw std::runtime_error(text);
}

/// With the current errno.
[[noreturn]] void failErrno(const std::string& text) {
   throw Platform::ErrnoException(errno, text);
}

/// Makes a directory with all above it.
void makeDirectory(const std::string& path) {
   for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
      const std::string part = path.substr(0, end);
      if (::mkdir(part.c_str(), directoryMode) == 0) {
         // Whatever the umask: others' clients have to get through.
         if (::chmod(part.c_str(), directoryMode) != 0) {
            failErrno(part);
         }
      } else if (const int error = errno; error != EEXIST && end == std::string::npos) {
         // What is wrong with a part shows at the latest with the whole.
         throw Platform::ErrnoException(error, path);
      }
      if (end == std::string::npos) {
         return;
      }
   }
}

std::string describe(pid_t pid) {
   return pid > 0 ? fmt::format(" (process {})", pid) : "";
}

void nonBlocking(int fd) {
   const int flags = ::fcntl(fd, F_GETFL);
   if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
      failErrno("a listening socket");
   }
}

} // namespace

ListeningSocket::ListeningSocket(UnixFdRes socket, std::string path)
   : _path(std::move(path)), _socket(std::move(socket)) {}

ListeningSocket::ListeningSocket(const Place& place)
   : _path(place.directory + '/' + place.file), _file(place.file) {
   makeDirectory(place.directory);
   _directory = UnixFdRes(::open(place.directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
   if (_directory.fd() < 0) {
      failErrno(place.directory);
   }
   _takeLock();
   const bool replaces = _isStale();
   _bind(place);
   try {
      _appear(replaces);
   } catch (...) {
      ::unlinkat(_directory.fd(), (_file + newSuffix).c_str(), 0);
      throw;
   }
   if (replaces) {
      TARN_TRACE(traceSource, 1, "ListeningSocket", "{}: took the place of a dead daemon's", _path);
   }
}

void ListeningSocket::_takeLock() {
   const std::string lock = _path + lockSuffix;
   _lock = UnixFdRes(::openat(_directory.fd(), (_file + lockSuffix).c_str(),
                              O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, lockMode));
   struct stat status {};
   if (_lock.fd() < 0 || ::fstat(_lock.fd(), &status) != 0) {
      failErrno(lock);
   }
   if (!S_ISREG(status.st_mode)) {
      fail(fmt::format("{}: is no ordinary file", lock));
   }
   // Whoever has the lock says here who it is, for the message of the other.
   std::array<char, 16> text{};
   if (TEMP_FAILURE_RETRY(::flock(_lock.fd(), LOCK_EX | LOCK_NB)) != 0) {
      if (errno != EWOULDBLOCK) {
         failErrno(lock);
      }
      int pid = 0;
      if (::pread(_lock.fd(), text.data(), text.size() - 1, 0) > 0) {
         pid = std::atoi(text.data());
      }
      fail(
         fmt::format("{}: is another daemon's{}, which has {} locked", _path, describe(pid), lock));
   }
   const auto end = fmt::format_to_n(text.data(), text.size(), "{}\n", ::getpid());
   if (::ftruncate(_lock.fd(), 0) != 0 || ::pwrite(_lock.fd(), text.data(), end.size, 0) < 0) {
      // A full file system costs the other's message, not the lock.
   }
}

bool ListeningSocket::_isStale() const {
   struct stat status {};
   if (::fstatat(_directory.fd(), _file.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT) {
         return false;
      }
      failErrno(_path);
   }
   if (!S_ISSOCK(status.st_mode)) {
      fail(fmt::format("{}: is there already, and is no socket", _path));
   }
   const UnixFdRes probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
   const UnixAddress address(_directory.fd(), _path, _file);
   if (probe.fd() < 0) {
      failErrno(_path);
   }
   if (::connect(probe.fd(), address.get(), address.size()) == 0) {
      ucred peer{};
      socklen_t size = sizeof peer;
      ::getsockopt(probe.fd(), SOL_SOCKET, SO_PEERCRED, &peer, &size);
      fail(fmt::format("{}: somebody accepts connections there{}", _path, describe(peer.pid)));
   }
   switch (errno) {
   case ECONNREFUSED:
      return true;
   case ENOENT:
      return false; // just now
   case EAGAIN:
      // So many wait to be accepted that there is no room for more.
      fail(fmt::format("{}: somebody accepts connections there", _path));
   case EPROTOTYPE:
      fail(fmt::format("{}: is a socket of another kind", _path));
   default:
      failErrno(fmt::format("{}: whether somebody accepts connections there", _path));
   }
}

void ListeningSocket::_bind(const Place& place) {
   const std::string name = _file + newSuffix;
   const std::string path = _path + newSuffix;
   struct stat status {};
   if (::fstatat(_directory.fd(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
      if (!S_ISSOCK(status.st_mode)) {
         fail(fmt::format("{}: is there already, and is no socket", path));
      }
      // A daemon was killed while it made this.
      if (::unlinkat(_directory.fd(), name.c_str(), 0) != 0) {
         failErrno(path);
      }
   }
   _socket = UnixFdRes(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
   const UnixAddress address(_directory.fd(), path, name);
   // A socket's file gets the mode that the socket had: nobody may do anything with it yet.
   if (_socket.fd() < 0 || ::fchmod(_socket.fd(), 0) != 0 ||
       ::bind(_socket.fd(), address.get(), address.size()) != 0) {
      failErrno(path);
   }
   try {
      // By its descriptor: who may write to the directory could put another file in its place.
      const UnixFdRes file(
         ::openat(_directory.fd(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
      if (file.fd() < 0 || ::fstat(file.fd(), &status) != 0) {
         failErrno(path);
      }
      _device = status.st_dev;
      _inode = status.st_ino;
      constexpr auto same = static_cast<uid_t>(-1);
      if ((place.owner || place.group) &&
          ::fchownat(file.fd(), "", place.owner.value_or(same), place.group.value_or(same),
                     AT_EMPTY_PATH) != 0) {
         failErrno(fmt::format("{}: cannot be given to its owner and group", _path));
      }
      if (!S_ISSOCK(status.st_mode) ||
          ::chmod(fmt::format("/proc/self/fd/{}", file.fd()).c_str(), place.mode) != 0) {
         failErrno(fmt::format("{}: cannot be given its mode", _path));
      }
      if (::listen(_socket.fd(), SOMAXCONN) != 0) {
         failErrno(_path);
      }
   } catch (...) {
      ::unlinkat(_directory.fd(), name.c_str(), 0);
      throw;
   }
}

void ListeningSocket::_appear(bool replaces) {
   const int directory = _directory.fd();
   const std::string name = _file + newSuffix;
   // Not a plain rename: should somebody have put a file there just now, it must not get lost.
   if (::renameat2(directory, name.c_str(), directory, _file.c_str(),
                   replaces ? RENAME_EXCHANGE : RENAME_NOREPLACE) == 0) {
      if (!replaces) {
         return;
      }
      struct stat status {};
      if (::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
          !S_ISSOCK(status.st_mode)) {
         ::renameat2(directory, name.c_str(), directory, _file.c_str(), RENAME_EXCHANGE);
         fail(fmt::format("{}: is there already, and is no socket", _path));
      }
      ::unlinkat(directory, name.c_str(), 0);
      return;
   }
   // Some file systems cannot do that, and a stale socket may have gone by itself.
   if ((errno != EINVAL && errno != ENOSYS && errno != ENOENT) ||
       ::renameat(directory, name.c_str(), directory, _file.c_str()) != 0) {
      failErrno(_path);
   }
}

std::unique_ptr<ListeningSocket> ListeningSocket::activated() {
   // The environment's word is taken once: children have no sockets of ours.
   const int count = ::sd_listen_fds(1);
   if (count == 0) {
      return nullptr;
   }
   if (count < 0) {
      throw Platform::ErrnoException(-count, "the socket that systemd passed");
   }
   if (count > 1) {
      fail(fmt::format("systemd passed {} sockets: one is expected", count));
   }
   UnixFdRes socket(SD_LISTEN_FDS_START);
   if (::sd_is_socket_unix(socket.fd(), SOCK_STREAM, 1, nullptr, 0) <= 0) {
      fail("what systemd passed is no listening Unix stream socket");
   }
   nonBlocking(socket.fd());
   sockaddr_un address{};
   socklen_t size = sizeof address;
   std::string path;
   if (::getsockname(socket.fd(), reinterpret_cast<sockaddr*>(&address), &size) == 0 &&
       size > offsetof(sockaddr_un, sun_path)) {
      const char* const text = static_cast<const char*>(address.sun_path);
      const std::size_t length = size - offsetof(sockaddr_un, sun_path);
      path = text[0] == '\0' ? '@' + std::string(text + 1, length - 1)
                             : std::string(text, ::strnlen(text, length));
   }
   return std::unique_ptr<ListeningSocket>(new ListeningSocket(std::move(socket), std::move(path)));
}

ListeningSocket::~ListeningSocket() {
   if (isActivated()) {
      return;
   }
   struct stat status {};
   if (::fstatat(_directory.fd(), _file.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
       status.st_dev == _device && status.st_ino == _inode) {
      ::unlinkat(_directory.fd(), _file.c_str(), 0);
   }
}

} // namespace Nimbo
