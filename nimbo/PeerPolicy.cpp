#include "nimbo/PeerPolicy.h"

#include <algorithm>
#include <utility>

namespace Nimbo {

namespace {

template <typename Id>
bool contains(const std::vector<Id>& ids, Id id) noexcept {
   return std::find(ids.begin(), ids.end(), id) != ids.end();
}

} // namespace

PeerPolicy::PeerPolicy(std::vector<uid_t> users, std::vector<gid_t> groups)
   : _users(std::move(users)), _groups(std::move(groups)) {}

bool PeerPolicy::allows(const Peer& peer) const noexcept {
   return (_users.empty() && _groups.empty()) || contains(_users, peer.uid) ||
          contains(_groups, peer.gid) ||
          std::any_of(peer.groups.begin(), peer.groups.end(),
                      [this](gid_t group) { return contains(_groups, group); });
}

} // namespace Nimbo
