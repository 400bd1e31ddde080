#include "nimbo/Server.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "platform/trace/Trace.h"

namespace Nimbo {

namespace {

TARN_TRACE_SOURCE(traceSource, "nimbo/Server");

/// How long no connection is taken in after the system had nothing left for one.
constexpr auto acceptPause = std::chrono::milliseconds(100);

std::string errorText(int error) {
   return std::generic_category().message(error);
}

} // namespace

Server::Server(Platform::EventLoop& loop, std::size_t maxConnections, Admission admission)
   : _loop(loop), _maxConnections(maxConnections), _admission(std::move(admission)),
     _acceptAgain(loop,
                  [this] {
                     if (_listener) {
                        _listener->activeIs(true);
                     }
                  }),
     _buses(std::make_shared<const BusTable>(std::vector<std::shared_ptr<Bus>>())),
     _pool([this](void* tag, std::uint32_t events) {
        _ready(*static_cast<Connection*>(tag), events);
     }) {
   _pool.sizeIs(1);
}

Server::~Server() = default;

void Server::busesAre(std::shared_ptr<const BusTable> buses) {
   // Those that go count until the last transaction with them is over: one may be hanging.
   {
      const std::scoped_lock lock(_busesMutex);
      _buses.swap(buses);
   }
   _pool.sizeIs(Bus::alive() + 1);
}

std::shared_ptr<const BusTable> Server::buses() const {
   const std::scoped_lock lock(_busesMutex);
   return _buses;
}

void Server::listenAt(int fd) {
   _listener = std::make_unique<Platform::FdWatch>(
      _loop, fd, Platform::FdWatch::Events{.read = true}, [this](auto) { _accept(); });
}

void Server::_accept() {
   TarnRegFile::Utils::UnixFdRes client(
      ::accept4(_listener->fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
   if (client.fd() < 0) {
      const int error = errno;
      if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
         TARN_TRACE(traceSource, 0, "accept", "No connection can be taken in: {}",
                    errorText(error));
         _listener->activeIs(false);
         _acceptAgain.startIn(acceptPause);
      }
      return; // else the client went away, or another process took it
   }
   std::string peer;
   if (!_admission(client.fd(), peer)) {
      _counters.refused.Inc();
      TARN_TRACE(traceSource, 0, "accept", "Refused {}: not on the list", peer);
      return;
   }
   Connection* connection = nullptr;
   {
      const std::scoped_lock lock(_connectionsMutex);
      if (_connections.size() < _maxConnections) {
         const std::uint64_t id = ++_latestId;
         auto& entry = _connections[id];
         entry = std::make_unique<Connection>(id, std::move(client), peer);
         connection = entry.get();
      }
   }
   if (!connection) {
      _counters.overLimit.Inc();
      TARN_TRACE(traceSource, 0, "accept", "Refused {}: there are {} connections already", peer,
                 _maxConnections);
      return;
   }
   _counters.accepted.Inc();
   TARN_TRACE(traceSource, 3, "accept", "Connection {}: {}", connection->id(), peer);
   try {
      _pool.add(connection->fd(), connection, EPOLLIN);
   } catch (const std::system_error& error) {
      _end(*connection, error.what());
   }
}

void Server::_ready(Connection& connection, std::uint32_t) noexcept {
   // An error or a hang-up shows when the socket is used.
   if (connection.isAnswering()) {
      _answered(connection, connection.goOn());
      return;
   }
   _serve(connection);
}

void Server::_serve(Connection& connection) {
   switch (connection.receive()) {
   case Connection::Received::nothing:
      _arm(connection, EPOLLIN);
      return;
   case Connection::Received::end:
      _end(connection, connection.reader().empty()
                          ? "the client has gone"
                          : "the client has gone in the middle of a frame");
      return;
   case Connection::Received::broken: {
      const FrameReader& reader = connection.reader();
      _endMalformed(connection, reader.state() == FrameReader::State::wrongKind
                                   ? fmt::format("a frame of kind {} instead of {}", reader.kind(),
                                                 static_cast<int>(FrameKind::request))
                                   : fmt::format("a frame of {} bytes; at most {} are possible",
                                                 reader.length(), FrameReader::longestRequest));
      return;
   }
   case Connection::Received::frame:
      break;
   }

   _begun();
   if (_stopping) {
      _end(connection, "the daemon stops");
      _over();
      return;
   }
   Transaction& transaction = connection.transaction();
   const bool isMessage = transaction.parse(connection.reader().payload());
   connection.reader().next();
   if (!isMessage) {
      _endMalformed(connection, "a frame whose message cannot be read");
      _over();
      return;
   }
   transaction.plan(buses());
   Bus* const bus = transaction.bus();
   if (!bus) {
      if (transaction.failed()) {
         TARN_TRACE(traceSource, 3, "serve", "Transaction {:#x}: {}", transaction.xid(),
                    transaction.error());
      }
      _answer(transaction);
   } else if (bus->enter(transaction)) {
      _work(*bus, transaction);
   }
}

void Server::_work(Bus& bus, Transaction& first) {
   // The bus may go, with its last transaction, as soon as it is given back.
   const std::shared_ptr<const BusTable> keep = first.buses();
   for (Transaction* each = &first; each; each = bus.next()) {
      bus.run(*each);
      if (each->bus()) {
         // It goes on at another bus, which may be slow: not on the thread that has this one.
         _pool.post([this, each] { _carryOn(*each); });
      } else {
         _answer(*each);
      }
   }
}

void Server::_carryOn(Transaction& transaction) {
   Bus& bus = *transaction.bus();
   if (bus.enter(transaction)) {
      _work(bus, transaction);
   }
}

void Server::_answer(Transaction& transaction) {
   Connection& connection = transaction.connection();
   const Connection::Sent sent = connection.answer();
   transaction.over();
   _answered(connection, sent);
}

void Server::_answered(Connection& connection, Connection::Sent sent) {
   switch (sent) {
   case Connection::Sent::part:
      _arm(connection, EPOLLOUT);
      return;
   case Connection::Sent::gone:
      _end(connection, "the client has gone before its answer");
      _over();
      return;
   case Connection::Sent::all:
      break;
   }
   if (_stopping) {
      _end(connection, "the daemon stops");
   } else if (connection.reader().state() == FrameReader::State::partial) {
      _arm(connection, EPOLLIN);
   } else {
      // The next frame has come already. This thread may have a bus, on which others wait.
      _pool.post([this, &connection] { _serve(connection); });
   }
   _over();
}

void Server::_arm(Connection& connection, std::uint32_t events) {
   try {
      _pool.arm(connection.fd(), &connection, events);
   } catch (const std::system_error& error) {
      _end(connection, error.what());
   }
}

void Server::_endMalformed(Connection& connection, const std::string& why) {
   _malformed.fetch_add(1, std::memory_order_relaxed);
   TARN_TRACE(traceSource, 0, "serve", "Ended connection {} of {}: {}", connection.id(),
              connection.peer(), why);
   _end(connection, "what came was no request");
}

void Server::_end(Connection& connection, const char* why) {
   TARN_TRACE(traceSource, 3, "end", "Connection {} of {} is closed: {}", connection.id(),
              connection.peer(), why);
   const std::scoped_lock lock(_connectionsMutex);
   _connections.erase(connection.id());
}

void Server::_over() {
   if (_active.fetch_sub(1) == 1 && _stopping) {
      _loop.post([this] {
         if (_stopped && _active == 0) {
            std::exchange(_stopped, nullptr)();
         }
      });
   }
}

void Server::stop(std::function<void()> stopped) {
   _stopped = std::move(stopped);
   _listener.reset();
   _acceptAgain.cancel();
   _begun(); // so that even with nothing to do it is found out below, and only once
   _stopping = true;
   {
      // Each idle connection becomes ready, and is closed by the thread that finds it so.
      const std::scoped_lock lock(_connectionsMutex);
      for (const auto& [id, connection] : _connections) {
         ::shutdown(connection->fd(), SHUT_RD);
      }
   }
   _over();
}

std::vector<Server::ConnectionStatus> Server::connections() const {
   std::vector<ConnectionStatus> result;
   const std::scoped_lock lock(_connectionsMutex);
   result.reserve(_connections.size());
   for (const auto& [id, connection] : _connections) {
      result.push_back({id, connection->peer(), connection->transactions().value()});
   }
   return result;
}

} // namespace Nimbo
