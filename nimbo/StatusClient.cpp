#include "nimbo/StatusClient.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <stdexcept>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "nimbo/StatusDocument.h"
#include "nimbo/UnixAddress.h"
#include "platform/entity/Errors.h"
#include "TarnRegFile/Utils.h"

namespace Nimbo {

namespace {

using std::chrono::steady_clock;
using TarnRegFile::Utils::UnixFdRes;

constexpr std::size_t longestDocument = std::size_t{16} << 20;

[[noreturn]] void fail(const std::string& path, std::string_view why) {
   throw std::runtime_error(fmt::format("{}: {}", path, why));
}

UnixFdRes connected(const std::string& path) {
   const std::size_t slash = path.rfind('/');
   const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
   UnixFdRes socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
   if (socket.fd() < 0) {
      throw Platform::ErrnoException(errno, path);
   }
   // Left open as none, it fails like a directory without a socket.
   const UnixFdRes place(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
   if (place.fd() < 0 && errno != ENOENT) {
      throw Platform::ErrnoException(errno, path);
   }
   const UnixAddress address(place.fd(), path,
                             slash == std::string::npos ? path : path.substr(slash + 1));
   if (::connect(socket.fd(), address.get(), address.size()) != 0) {
      if (errno == ENOENT || errno == ECONNREFUSED) {
         fail(path, "no daemon is there");
      }
      throw Platform::ErrnoException(errno, path);
   }
   return socket;
}

std::string everything(const std::string& path, int socket, steady_clock::time_point end) {
   std::string text;
   std::array<char, 65536> buffer{};
   while (true) {
      const auto left =
         std::chrono::duration_cast<std::chrono::milliseconds>(end - steady_clock::now()).count();
      pollfd ready{socket, POLLIN, 0};
      if (left <= 0 || ::poll(&ready, 1, static_cast<int>(left)) == 0) {
         fail(path, "the daemon does not answer");
      }
      const ssize_t count = ::recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
      if (count == 0) {
         return text;
      }
      if (count > 0) {
         text.append(buffer.data(), static_cast<std::size_t>(count));
      } else if (errno != EINTR && errno != EAGAIN) {
         throw Platform::ErrnoException(errno, path);
      }
      if (text.size() > longestDocument) {
         fail(path, "what is there says more than a daemon would");
      }
   }
}

} // namespace

nlohmann::ordered_json statusFrom(const std::string& path, std::chrono::milliseconds patience) {
   const auto end = steady_clock::now() + patience;
   const UnixFdRes socket = connected(path);
   const std::string text = everything(path, socket.fd(), end);
   if (text.empty()) {
      fail(path, "the daemon says nothing: its log has the reason");
   }
   auto document = nlohmann::ordered_json::parse(text, nullptr, false);
   if (document.is_discarded() || !document.is_object()) {
      fail(path, "what is there does not speak as the daemon does");
   }
   if (const auto found = document.find("schema");
       found == document.end() || *found != StatusDocument::schema) {
      fail(path,
           fmt::format("the daemon's status is not of the schema {}", StatusDocument::schema));
   }
   return document;
}

} // namespace Nimbo
