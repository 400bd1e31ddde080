#pragma once

#include <sys/types.h>

#include <vector>

#include "nimbo/Peer.h"

namespace Nimbo {

/// Who may use a socket, beyond what the mode of the socket's file says: the users of a list, and
/// the members of the groups of a list. Nobody is allowed unasked once there is a list, neither
/// root nor the daemon's own user. A plain value.
class PeerPolicy {
public:
   /// Allows everybody whom the file's mode lets connect.
   PeerPolicy() = default;

   /// With both lists empty, as without them.
   PeerPolicy(std::vector<uid_t> users, std::vector<gid_t> groups);

   /// Whether the peer's user, its group, or one of its supplementary groups is listed.
   [[nodiscard]] bool allows(const Peer& peer) const noexcept;

private:
   std::vector<uid_t> _users;
   std::vector<gid_t> _groups;
};

} // namespace Nimbo
