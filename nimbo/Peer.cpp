#include "nimbo/Peer.h"

#include <sys/socket.h>

#include <cerrno>

#include <fmt/format.h>

#include "platform/entity/Errors.h"

namespace Nimbo {

namespace {

std::vector<gid_t> groupsOf(int socket) {
   constexpr std::size_t usual = 64;
   std::vector<gid_t> groups(usual);
   while (true) {
      auto bytes = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
      const int result = ::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &bytes);
      const std::size_t count = bytes / sizeof(gid_t);
      if (result == 0) {
         groups.resize(count);
         return groups;
      }
      // Told how many there are, it fits the next time: they do not change.
      if (errno != ERANGE || count <= groups.size()) {
         throw Platform::ErrnoException(errno, "the groups of a socket's peer");
      }
      groups.resize(count);
   }
}

} // namespace

Peer Peer::of(int socket) {
   ucred credentials{};
   socklen_t size = sizeof credentials;
   if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
      throw Platform::ErrnoException(errno, "the user of a socket's peer");
   }
   if (credentials.uid == static_cast<uid_t>(-1)) {
      throw Platform::ErrnoException(ENOTCONN, "the user of a socket's peer");
   }
   return {credentials.pid, credentials.uid, credentials.gid, groupsOf(socket)};
}

std::string Peer::text() const {
   return fmt::format("uid {} gid {} pid {}", uid, gid, pid);
}

} // namespace Nimbo
