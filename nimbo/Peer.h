#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace Nimbo {

/// The process at the other end of a Unix socket, as the kernel knows it from the moment at which
/// that process connected: what it has become since does not show. A plain value.
struct Peer {
   pid_t pid = 0; ///< 0 for one in a process namespace that is not seen from here
   uid_t uid = 0;
   gid_t gid = 0;
   std::vector<gid_t> groups{}; ///< the supplementary ones

   /// Of a connected Unix socket. Throws Platform::ErrnoException for what is none.
   static Peer of(int socket);

   /// For logs: "uid 1000 gid 1000 pid 42".
   [[nodiscard]] std::string text() const;

   bool operator==(const Peer&) const = default;
};

} // namespace Nimbo
