#include "tests/support/ScriptedNimbo.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace TestSupport {

namespace {

int listeningAt(const std::string& path) {
   const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   sockaddr_un address{};
   address.sun_family = AF_UNIX;
   std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof(address.sun_path) - 1));
   if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
       ::listen(fd, SOMAXCONN) != 0) {
      std::abort();
   }
   return fd;
}

/// Reads exactly so many bytes; false at the end of the connection.
bool readAll(int fd, std::string& bytes, std::size_t size) {
   bytes.resize(size);
   std::size_t done = 0;
   while (done < size) {
      const ssize_t result = ::read(fd, bytes.data() + done, size - done);
      if (result <= 0) {
         return false;
      }
      done += static_cast<std::size_t>(result);
   }
   return true;
}

/// Writes all of it, unless nobody is there any more.
void writeAll(int fd, std::string_view bytes) {
   while (!bytes.empty()) {
      iovec part{const_cast<char*>(bytes.data()), bytes.size()};
      msghdr message{};
      message.msg_iov = &part;
      message.msg_iovlen = 1;
      const ssize_t result = ::sendmsg(fd, &message, MSG_NOSIGNAL);
      if (result <= 0) {
         return;
      }
      bytes.remove_prefix(static_cast<std::size_t>(result));
   }
}

} // namespace

ScriptedNimbo::ScriptedNimbo(const std::string& socketPath)
   : _listener(listeningAt(socketPath)), _wake(::eventfd(0, EFD_CLOEXEC)),
     _script([](const Frame& frame) -> Answer {
        return {{ScriptedNimbo::frame(response(frame.request))}};
     }),
     _thread([this] { _run(); }) {}

ScriptedNimbo::~ScriptedNimbo() {
   {
      const std::lock_guard lock(_mutex);
      _stops = true;
      // It may be waiting for the rest of a frame.
      for (const int fd : _connections) {
         ::shutdown(fd, SHUT_RDWR);
      }
   }
   ::eventfd_write(_wake, 1);
   _thread.join();
   for (const int fd : _connections) {
      ::close(fd);
   }
   ::close(_listener);
   ::close(_wake);
}

void ScriptedNimbo::scriptIs(Script script) {
   const std::lock_guard lock(_mutex);
   _script = std::move(script);
}

std::vector<ScriptedNimbo::Frame> ScriptedNimbo::frames() const {
   const std::lock_guard lock(_mutex);
   return _frames;
}

void ScriptedNimbo::clear() {
   const std::lock_guard lock(_mutex);
   _frames.clear();
}

void ScriptedNimbo::connectionsAwait(std::size_t count) {
   std::unique_lock lock(_mutex);
   _changed.wait(lock, [&] { return _accepted >= count; });
}

std::size_t ScriptedNimbo::connections() const {
   const std::lock_guard lock(_mutex);
   return _connections.size();
}

void ScriptedNimbo::disconnect() {
   std::unique_lock lock(_mutex);
   _disconnects = true;
   ::eventfd_write(_wake, 1);
   _changed.wait(lock, [&] { return !_disconnects; });
}

Smbus::TransactionResponse ScriptedNimbo::response(const Smbus::TransactionRequest& request,
                                                   std::string_view data) {
   Smbus::TransactionResponse response;
   response.set_xid(request.xid());
   for (const Smbus::Request& each : request.requests()) {
      Smbus::Response& one = *response.add_responses();
      if (each.type() == Smbus::REQUEST_TYPE_READ) {
         one.set_data(std::string(data));
      }
   }
   return response;
}

std::string ScriptedNimbo::frame(std::uint8_t kind, std::uint32_t length,
                                 std::string_view payload) {
   std::string bytes(1, static_cast<char>(kind));
   for (int i = 0; i < 3; ++i) {
      bytes += static_cast<char>(length >> (8 * i));
   }
   return bytes.append(payload);
}

std::string ScriptedNimbo::frame(const Smbus::TransactionResponse& response) {
   const std::string payload = response.SerializeAsString();
   return frame(2, static_cast<std::uint32_t>(payload.size()), payload);
}

void ScriptedNimbo::_run() {
   for (;;) {
      std::vector<pollfd> fds{{_wake, POLLIN, 0}, {_listener, POLLIN, 0}};
      for (const int fd : _connections) {
         fds.push_back({fd, POLLIN, 0});
      }
      ::poll(fds.data(), fds.size(), -1);
      if (fds[0].revents != 0) {
         eventfd_t ignored = 0;
         ::eventfd_read(_wake, &ignored);
         const std::lock_guard lock(_mutex);
         if (_stops) {
            return;
         }
         if (_disconnects) {
            for (const int fd : std::exchange(_connections, {})) {
               ::close(fd);
            }
            _disconnects = false;
            _changed.notify_all();
         }
         continue;
      }
      for (std::size_t i = 2; i < fds.size(); ++i) {
         if (fds[i].revents != 0 && !_serve(fds[i].fd)) {
            const std::lock_guard lock(_mutex);
            std::erase(_connections, fds[i].fd);
            ::close(fds[i].fd);
         }
      }
      if (fds[1].revents != 0) {
         _accept();
      }
   }
}

void ScriptedNimbo::_accept() {
   const int fd = ::accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
   const std::lock_guard lock(_mutex);
   _connections.push_back(fd);
   ++_accepted;
   _changed.notify_all();
}

bool ScriptedNimbo::_serve(int fd) {
   Frame frame;
   if (!readAll(fd, frame.header, 4)) {
      return false;
   }
   std::size_t length = 0;
   for (std::size_t i = 3; i > 0; --i) {
      length = length << 8 | static_cast<std::uint8_t>(frame.header[i]);
   }
   if (!readAll(fd, frame.payload, length) || !frame.request.ParseFromString(frame.payload)) {
      return false;
   }
   Script script;
   {
      const std::lock_guard lock(_mutex);
      _frames.push_back(frame);
      script = _script;
   }
   const Answer answer = script(frame);
   for (const std::string& piece : answer.pieces) {
      writeAll(fd, piece);
   }
   return !answer.closes;
}

} // namespace TestSupport
