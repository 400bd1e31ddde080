#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string>

#include <fmt/format.h>

namespace Nimbo {

/// The address of a Unix socket with a path. A plain value.
class UnixAddress {
public:
   static constexpr std::size_t longestPath = sizeof(sockaddr_un::sun_path) - 1;

   /// Throws std::invalid_argument for a path that is empty or too long.
   explicit UnixAddress(const std::string& path) {
      if (path.empty() || path.size() > longestPath) {
         throw std::invalid_argument(
            fmt::format("'{}' is no path for a socket: 1 to {} bytes", path, longestPath));
      }
      _address.sun_family = AF_UNIX;
      std::memcpy(static_cast<char*>(_address.sun_path), path.c_str(), path.size() + 1);
   }

   /// Of `file` in a directory that is open as `directory`. Where `path`, the whole of it, is too
   /// long for an address, the address goes by the descriptor.
   UnixAddress(int directory, const std::string& path, const std::string& file)
      : UnixAddress(path.size() <= longestPath
                       ? path
                       : fmt::format("/proc/self/fd/{}/{}", directory, file)) {}

   [[nodiscard]] const sockaddr* get() const noexcept {
      return reinterpret_cast<const sockaddr*>(&_address);
   }
   [[nodiscard]] static constexpr socklen_t size() noexcept { return sizeof(sockaddr_un); }

private:
   sockaddr_un _address{};
};

} // namespace Nimbo
