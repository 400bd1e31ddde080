#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <string>

#include <fmt/format.h>

#include "tools/tarnsim/Failure.h"

namespace TarnSim {

/// The address of the Unix socket at `path`. Throws Failure when the path is too long for one.
inline sockaddr_un unixAddress(const std::string& path) {
   sockaddr_un address{};
   address.sun_family = AF_UNIX;
   if (path.empty() || path.size() >= sizeof(address.sun_path)) {
      throw Failure(fmt::format("'{}' is no path for a socket: 1 to {} bytes", path,
                                sizeof(address.sun_path) - 1));
   }
   std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
   return address;
}

} // namespace TarnSim
