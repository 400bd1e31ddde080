#include "nimbo/StatusSocket.h"

#include <sys/socket.h>

#include <cerrno>
#include <exception>
#include <iterator>
#include <system_error>
#include <utility>

#include "nimbo/Peer.h"
#include "platform/trace/Trace.h"

namespace Nimbo {

namespace {

TARN_TRACE_SOURCE(traceSource, "nimbo/StatusSocket");

/// How long no connection is taken in after the system had nothing left for one.
constexpr auto acceptPause = std::chrono::milliseconds(100);

} // namespace

StatusSocket::StatusSocket(Platform::EventLoop& loop, int fd, PeerPolicy policy, Document document,
                           std::chrono::nanoseconds clientTime)
   : _loop(loop), _policy(std::move(policy)), _document(std::move(document)),
     _clientTime(clientTime),
     _listener(loop, fd, {.read = true}, [this](Platform::FdWatch::Events) { _accept(); }),
     _acceptAgain(loop, [this] { _listener.activeIs(true); }) {}

StatusSocket::~StatusSocket() = default;

void StatusSocket::_accept() {
   TarnRegFile::Utils::UnixFdRes client(
      ::accept4(_listener.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
   if (client.fd() < 0) {
      const int error = errno;
      if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
         TARN_TRACE(traceSource, 0, "accept", "No connection can be taken in: {}",
                    std::generic_category().message(error));
         _listener.activeIs(false);
         _acceptAgain.startIn(acceptPause);
      }
      return; // else the client went away
   }
   try {
      const Peer peer = Peer::of(client.fd());
      if (!_policy.allows(peer)) {
         TARN_TRACE(traceSource, 0, "accept", "Refused {}: not on the list", peer.text());
      } else if (_clients.size() == mostClients) {
         TARN_TRACE(traceSource, 0, "accept", "Refused {}: {} clients do not read", peer.text(),
                    mostClients);
      } else {
         TARN_TRACE(traceSource, 3, "accept", "Status for {}", peer.text());
         _serve(std::move(client));
      }
   } catch (const std::exception& error) {
      TARN_TRACE(traceSource, 0, "accept", "No status for a client: {}", error.what());
   }
}

void StatusSocket::_serve(TarnRegFile::Utils::UnixFdRes fd) {
   Client first;
   first.fd = std::move(fd);
   first.text = _document();
   // Nearly always all of it fits.
   if (_isOver(first)) {
      return;
   }
   const auto place = _clients.insert(_clients.end(), std::move(first));
   try {
      place->watch = std::make_unique<Platform::FdWatch>(_loop, place->fd.fd(),
                                                         Platform::FdWatch::Events{.write = true},
                                                         [this, place](Platform::FdWatch::Events) {
                                                            if (_isOver(*place)) {
                                                               _clients.erase(place);
                                                            }
                                                         });
      place->end = std::make_unique<Platform::Timer>(_loop, [this, place] {
         TARN_TRACE(traceSource, 0, "serve", "Gave up a client that does not read its status");
         _clients.erase(place);
      });
      place->end->startIn(_clientTime);
   } catch (...) {
      _clients.erase(place);
      throw;
   }
}

/// Sends what goes. True when there is nothing left to do, as all is sent or the client has gone.
bool StatusSocket::_isOver(Client& client) noexcept {
   while (client.sent < client.text.size()) {
      const ssize_t count = ::send(client.fd.fd(), client.text.data() + client.sent,
                                   client.text.size() - client.sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (count > 0) {
         client.sent += static_cast<std::size_t>(count);
      } else if (count == 0 || errno != EINTR) {
         return errno != EAGAIN;
      }
   }
   return true;
}

} // namespace Nimbo
