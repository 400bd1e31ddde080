#pragma once

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "nimbo/smbus.pb.h"
#include "TarnRegFile/Utils.h"

namespace TestSupport {

/// A bare client of the SMBus daemon, which also does what no client should. Waits for a minute at
/// most, and then says that nothing came.
class SmbusClient {
public:
   /// Connects. Throws std::runtime_error.
   explicit SmbusClient(const std::string& path) {
      ::sockaddr_un address = {};
      address.sun_family = AF_UNIX;
      std::copy(path.begin(), path.end(), address.sun_path);
      if (::connect(fd(), reinterpret_cast<const ::sockaddr*>(&address), sizeof address) != 0) {
         throw std::runtime_error("cannot connect to " + path);
      }
      const ::timeval patience = {60, 0};
      ::setsockopt(fd(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
      ::setsockopt(fd(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
   }

   int fd() const { return _fd.fd(); }

   /// Sends all of it. False if the daemon takes no more.
   bool send(std::string_view bytes) {
      while (!bytes.empty()) {
         const ::ssize_t count = ::send(fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
         if (count <= 0) {
            return false;
         }
         bytes.remove_prefix(static_cast<std::size_t>(count));
      }
      return true;
   }

   /// Sends what goes without waiting, and says how much that was.
   std::size_t sendSome(std::string_view bytes) {
      const ::ssize_t count = ::send(fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      return count < 0 ? 0 : static_cast<std::size_t>(count);
   }

   /// No more will be sent. What comes can still be read.
   void halfClose() { ::shutdown(fd(), SHUT_WR); }
   void close() { _fd = TarnRegFile::Utils::UnixFdRes(-1); }

   /// The next response; none if the connection ends or nothing comes.
   std::optional<Smbus::TransactionResponse> response() {
      const std::optional<std::string> header = _take(4);
      if (!header || (*header)[0] != 2) {
         return std::nullopt;
      }
      const auto byte = [&](std::size_t at) {
         return static_cast<std::size_t>(static_cast<unsigned char>((*header)[at]));
      };
      const std::optional<std::string> payload = _take(byte(1) | byte(2) << 8 | byte(3) << 16);
      Smbus::TransactionResponse response;
      if (!payload || !response.ParseFromString(*payload)) {
         return std::nullopt;
      }
      return response;
   }

   /// Whether the daemon closes the connection, with nothing more to read.
   bool isEnded() {
      char byte = 0;
      const ::ssize_t count = ::recv(fd(), &byte, 1, 0);
      return count == 0 || (count < 0 && errno == ECONNRESET);
   }

   /// Whether there is something to read right now.
   bool hasInput() {
      char byte = 0;
      return ::recv(fd(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) > 0;
   }

private:
   std::optional<std::string> _take(std::size_t size) {
      std::string bytes(size, '\0');
      for (std::size_t have = 0; have < size;) {
         const ::ssize_t count = ::recv(fd(), bytes.data() + have, size - have, 0);
         if (count <= 0) {
            return std::nullopt;
         }
         have += static_cast<std::size_t>(count);
      }
      return bytes;
   }

   TarnRegFile::Utils::UnixFdRes _fd{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

} // namespace TestSupport
