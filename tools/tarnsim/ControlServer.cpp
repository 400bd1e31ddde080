#include "tools/tarnsim/ControlServer.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <utility>

#include <fmt/format.h>

#include "tools/tarnsim/SystemError.h"
#include "tools/tarnsim/UnixAddress.h"

namespace TarnSim {

using TarnRegFile::Utils::UnixFdRes;

namespace {

/// Answers that a client has not taken yet; with more, it gets no further ones.
constexpr std::size_t maxUnread = std::size_t{1} << 20;

const sockaddr* generic(const sockaddr_un& address) {
   return reinterpret_cast<const sockaddr*>(&address);
}

UnixFdRes newSocket(int flags) {
   UnixFdRes socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
   if (socket.fd() < 0) {
      failErrno("socket");
   }
   return socket;
}

} // namespace

ControlServer::ControlServer(const std::string& path, Simulation& simulation)
   : _commands(simulation), _socket(newSocket(SOCK_NONBLOCK)) {
   const sockaddr_un address = unixAddress(path);
   struct stat status {};
   if (::lstat(path.c_str(), &status) == 0) {
      if (!S_ISSOCK(status.st_mode)) {
         throw Failure(fmt::format("{}: exists and is no socket", path));
      }
      const UnixFdRes probe = newSocket(0);
      if (::connect(probe.fd(), generic(address), sizeof(address)) == 0) {
         throw Failure(fmt::format("{}: somebody is listening there", path));
      }
      ::unlink(path.c_str());
   }
   const mode_t mask = ::umask(0077);
   const int result = ::bind(_socket.fd(), generic(address), sizeof(address));
   const int error = errno;
   ::umask(mask);
   errno = error;
   if (result != 0 || ::listen(_socket.fd(), static_cast<int>(maxClients)) != 0) {
      failErrno(path);
   }
   _path = std::filesystem::absolute(path).string();
}

ControlServer::~ControlServer() {
   if (!_path.empty()) {
      ::unlink(_path.c_str());
   }
}

void ControlServer::pollOn(std::vector<pollfd>& events) const {
   // With all places taken, further clients wait in the queue of the socket.
   const bool room = _clients.size() < maxClients;
   events.push_back({room ? _socket.fd() : -1, POLLIN, 0});
   for (const Client& client : _clients) {
      events.push_back(
         {client.socket.fd(), static_cast<short>(client.out.empty() ? POLLIN : POLLOUT), 0});
   }
}

void ControlServer::work() {
   _accept();
   for (auto client = _clients.begin(); client != _clients.end();) {
      client = _serve(*client) ? std::next(client) : _clients.erase(client);
   }
}

void ControlServer::_accept() {
   while (_clients.size() < maxClients) {
      UnixFdRes socket(::accept4(_socket.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (socket.fd() < 0) {
         return;
      }
      _clients.push_back({std::move(socket), {}, {}});
   }
}

/// Returns whether the client stays.
bool ControlServer::_serve(Client& client) {
   if (!client.out.empty()) {
      return _flush(client);
   }
   std::array<char, maxLine> buffer{};
   const ssize_t got = ::recv(client.socket.fd(), buffer.data(), buffer.size(), 0);
   if (got < 0) {
      return errno == EAGAIN || errno == EINTR;
   }
   if (got == 0) {
      return false;
   }
   client.in.append(buffer.data(), static_cast<std::size_t>(got));
   std::size_t begin = 0;
   for (std::size_t end = 0; (end = client.in.find('\n', begin)) != std::string::npos;
        begin = end + 1) {
      _answer(client, std::string_view(client.in).substr(begin, end - begin));
      if (client.out.size() > maxUnread) {
         (void)_flush(client);
         if (client.out.size() > maxUnread) {
            return false;
         }
      }
   }
   client.in.erase(0, begin);
   if (client.in.size() > maxLine) {
      client.out += "error: the line is too long\n";
      (void)_flush(client);
      return false;
   }
   return _flush(client);
}

bool ControlServer::_flush(Client& client) {
   while (!client.out.empty()) {
      const ssize_t sent =
         ::send(client.socket.fd(), client.out.data(), client.out.size(), MSG_NOSIGNAL);
      if (sent < 0) {
         return errno == EAGAIN || errno == EINTR;
      }
      client.out.erase(0, static_cast<std::size_t>(sent));
   }
   return true;
}

void ControlServer::_answer(Client& client, std::string_view line) {
   const ControlCommands::Answer answer = _commands.run(line);
   if (!answer.ok) {
      client.out += fmt::format("error: {}\n", answer.lines.at(0));
      return;
   }
   for (const std::string& text : answer.lines) {
      client.out += fmt::format("= {}\n", text);
   }
   client.out += "ok\n";
}

} // namespace TarnSim
