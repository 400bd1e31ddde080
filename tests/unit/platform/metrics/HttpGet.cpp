#include "tests/unit/platform/metrics/HttpGet.h"

#include <array>
#include <cerrno>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Platform::Metrics::Test {

namespace {

struct Socket {
   Socket() : fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
   ~Socket() { ::close(fd); }
   Socket(const Socket&) = delete;
   Socket& operator=(const Socket&) = delete;
   const int fd;
};

void check(bool good, const char* what) {
   if (!good) {
      throw std::system_error(errno, std::generic_category(), what);
   }
}

} // namespace

std::string httpGet(std::uint16_t port, const std::string& path) {
   const Socket socket;
   sockaddr_in address{};
   address.sin_family = AF_INET;
   address.sin_port = htons(port);
   address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
   check(::connect(socket.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
         "connect");
   const std::string request = "GET " + path + " HTTP/1.0\r\nHost: localhost\r\n\r\n";
   check(::send(socket.fd, request.data(), request.size(), MSG_NOSIGNAL) ==
            static_cast<ssize_t>(request.size()),
         "send");
   std::string answer;
   std::array<char, 4096> buffer{};
   for (;;) {
      const ssize_t got = ::recv(socket.fd, buffer.data(), buffer.size(), 0);
      check(got >= 0, "recv");
      if (got == 0) {
         return answer;
      }
      answer.append(buffer.data(), static_cast<std::size_t>(got));
   }
}

std::string exposition(std::uint16_t port) {
   const std::string answer = httpGet(port, "/metrics");
   if (!answer.starts_with("HTTP/1.1 200 OK\r\n")) {
      throw std::runtime_error("not served: " + answer);
   }
   std::istringstream body(answer.substr(answer.find("\r\n\r\n") + 4));
   std::string text;
   for (std::string line; std::getline(body, line);) {
      if (line.find("exposer_") == std::string::npos) {
         text += line + '\n';
      }
   }
   return text;
}

} // namespace Platform::Metrics::Test
