#include "tests/support/SocketCalls.h"

#include <dlfcn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>

namespace TestSupport {

SocketCalls* SocketCalls::current = nullptr;

SocketCalls::SocketCalls() {
   current = this;
}

SocketCalls::~SocketCalls() {
   current = nullptr;
}

void SocketCalls::errorsAre(const std::string& name, std::deque<int> errors) {
   const std::lock_guard lock(_mutex);
   _errors[name] = std::move(errors);
}

void SocketCalls::mostAtOnceIs(std::size_t bytes) {
   const std::lock_guard lock(_mutex);
   _mostAtOnce = bytes;
}

std::vector<SocketCalls::Call> SocketCalls::calls() const {
   const std::lock_guard lock(_mutex);
   return _calls;
}

void SocketCalls::clear() {
   const std::lock_guard lock(_mutex);
   _calls.clear();
}

std::vector<std::string> SocketCalls::order() const {
   std::vector<std::string> names;
   for (const Call& call : calls()) {
      names.push_back(call.name + (call.result < 0 ? " " + std::to_string(call.error) : ""));
   }
   return names;
}

int SocketCalls::lastFd() const {
   const std::lock_guard lock(_mutex);
   return _ours.empty() ? -1 : _ours.back();
}

void SocketCalls::alsoIs(int fd) {
   const std::lock_guard lock(_mutex);
   _ours.push_back(fd);
}

bool SocketCalls::isOurs(int fd) const {
   const std::lock_guard lock(_mutex);
   return std::find(_ours.begin(), _ours.end(), fd) != _ours.end();
}

long SocketCalls::call(Call call, const std::function<long(std::size_t length)>& make) {
   std::size_t length = call.length;
   int error = 0;
   {
      const std::lock_guard lock(_mutex);
      if (call.name == "send" || call.name == "recv") {
         length = std::min(length, _mostAtOnce);
      }
      if (auto& errors = _errors[call.name]; !errors.empty()) {
         error = errors.front();
         errors.pop_front();
      }
   }
   if (error != 0) {
      call.result = -1;
      errno = error;
   } else {
      call.result = make(length);
   }
   call.error = call.result < 0 ? errno : 0;
   {
      const std::lock_guard lock(_mutex);
      if (call.name == "socket" && call.result >= 0) {
         _ours.push_back(static_cast<int>(call.result));
      }
      _calls.push_back(call);
   }
   if (onCall) {
      onCall(call);
   }
   errno = call.error != 0 ? call.error : errno;
   return call.result;
}

namespace {

template <typename Function>
Function next(const char* name) {
   return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

SocketCalls* watching(int fd) {
   SocketCalls* calls = SocketCalls::current;
   return calls && calls->isOurs(fd) ? calls : nullptr;
}

} // namespace

} // namespace TestSupport

using TestSupport::SocketCalls;

// The library's calls come here, since a program's own symbols go before those of its libraries.

#define REPLACES_THE_C_LIBRARYS extern "C" __attribute__((visibility("default")))

REPLACES_THE_C_LIBRARYS int socket(int domain, int type, int protocol) noexcept {
   static const auto original = TestSupport::next<int (*)(int, int, int)>("socket");
   SocketCalls* calls = SocketCalls::current;
   if (!calls) {
      return original(domain, type, protocol);
   }
   SocketCalls::Call call;
   call.name = "socket";
   call.address =
      std::to_string(domain) + " " + std::to_string(type) + " " + std::to_string(protocol);
   return static_cast<int>(
      calls->call(call, [&](std::size_t) { return original(domain, type, protocol); }));
}

REPLACES_THE_C_LIBRARYS int connect(int fd, const sockaddr* address, socklen_t length) {
   static const auto original =
      TestSupport::next<int (*)(int, const sockaddr*, socklen_t)>("connect");
   SocketCalls* calls = TestSupport::watching(fd);
   if (!calls) {
      return original(fd, address, length);
   }
   SocketCalls::Call call;
   call.name = "connect";
   call.fd = fd;
   call.length = length;
   call.address.assign(reinterpret_cast<const char*>(address), length);
   return static_cast<int>(
      calls->call(call, [&](std::size_t) { return original(fd, address, length); }));
}

REPLACES_THE_C_LIBRARYS ssize_t send(int fd, const void* data, size_t length, int flags) {
   static const auto original =
      TestSupport::next<ssize_t (*)(int, const void*, size_t, int)>("send");
   SocketCalls* calls = TestSupport::watching(fd);
   if (!calls) {
      return original(fd, data, length, flags);
   }
   SocketCalls::Call call;
   call.name = "send";
   call.fd = fd;
   call.length = length;
   call.flags = flags;
   return calls->call(call, [&](std::size_t most) { return original(fd, data, most, flags); });
}

REPLACES_THE_C_LIBRARYS ssize_t recv(int fd, void* data, size_t length, int flags) {
   static const auto original = TestSupport::next<ssize_t (*)(int, void*, size_t, int)>("recv");
   SocketCalls* calls = TestSupport::watching(fd);
   if (!calls) {
      return original(fd, data, length, flags);
   }
   SocketCalls::Call call;
   call.name = "recv";
   call.fd = fd;
   call.length = length;
   call.flags = flags;
   return calls->call(call, [&](std::size_t most) { return original(fd, data, most, flags); });
}

REPLACES_THE_C_LIBRARYS int fsync(int fd) {
   static const auto original = TestSupport::next<int (*)(int)>("fsync");
   SocketCalls* calls = TestSupport::watching(fd);
   if (!calls) {
      return original(fd);
   }
   SocketCalls::Call call;
   call.name = "fsync";
   call.fd = fd;
   return static_cast<int>(calls->call(call, [&](std::size_t) { return original(fd); }));
}

REPLACES_THE_C_LIBRARYS int close(int fd) {
   static const auto original = TestSupport::next<int (*)(int)>("close");
   SocketCalls* calls = TestSupport::watching(fd);
   if (!calls) {
      return original(fd);
   }
   SocketCalls::Call call;
   call.name = "close";
   call.fd = fd;
   return static_cast<int>(calls->call(call, [&](std::size_t) { return original(fd); }));
}
