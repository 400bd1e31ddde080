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

/// Steps of one connection in a row.
constexpr int mostRounds = 64;

std::string errorText(int error) {
   return std::generic_category().message(error);
}

} // namespace

Server::Server(Platform::EventLoop& loop, std::size_t maxConnections, Admission admission)
   : _loop(loop), _life(std::make_shared<const bool>()), _maxConnections(maxConnections),
     _admission(std::move(admission)), _acceptAgain(loop,
                                                    [this] {
                                                       if (_listener) {
                                                          _listener->activeIs(true);
                                                       }
                                                    }),
     _buses(std::make_shared<const BusTable>(std::vector<std::shared_ptr<Bus>>())),
     _pool([this](std::span<const WorkerPool::Event> events) { _ready(events); }) {
   _pool.sizeIs(1);
}

Server::~Server() {
   // Who has a bus would else go on for as long as the clients do.
   _stopping = true;
}

void Server::busesAre(std::shared_ptr<const BusTable> buses) {
   // Those that go count until the last transaction with them is over: one may be hanging.
   _pool.sizeIs(Bus::alive() + 1);
   const std::scoped_lock lock(_busesMutex);
   _buses.swap(buses);
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
         if (!std::exchange(_isFull, true)) {
            TARN_TRACE(traceSource, 0, "accept", "No connection can be taken in: {}",
                       errorText(error));
         }
         _listener->activeIs(false);
         _acceptAgain.startIn(acceptPause);
      }
      return; // else the client went away, or another process took it
   }
   _isFull = false;
   std::string peer;
   if (!_admission(client.fd(), peer)) {
      _counters.refused.Inc();
      TARN_TRACE(traceSource, 0, "accept", "Refused {}: not on the list", peer);
      return;
   }
   std::shared_ptr<Connection> connection;
   {
      const std::scoped_lock lock(_connectionsMutex);
      if (_connections.size() < _maxConnections) {
         const std::uint64_t id = ++_latestId;
         connection = std::make_shared<Connection>(id, std::move(client), peer);
         _connections.emplace(id, connection);
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
      _pool.add(connection->fd(), connection->id(), EPOLLIN);
   } catch (const std::system_error& error) {
      _end(*connection, error.what());
   }
}

void Server::_ready(std::span<const WorkerPool::Event> events) noexcept {
   // First all are received from, which takes no time; then one bus is worked on, which may.
   Transaction* mine = nullptr;
   for (const WorkerPool::Event& event : events) {
      std::shared_ptr<Connection> connection;
      {
         const std::scoped_lock lock(_connectionsMutex);
         if (const auto entry = _connections.find(event.tag); entry != _connections.end()) {
            connection = entry->second;
         }
      }
      if (!connection || !connection->take(event.hangUp)) {
         continue;
      }
      if (Transaction* transaction = _serve(*connection)) {
         if (mine) {
            _workElsewhere(*transaction);
         } else {
            mine = transaction;
         }
      }
   }
   if (mine) {
      _work(*mine);
   }
}

/// For the connection's owner: takes it as far as it goes without waiting. Returns the transaction
/// for which the calling thread now has a bus, or null. In both cases the thread is the owner no
/// longer, but as the one who has the bus.
Transaction* Server::_serve(Connection& connection) {
   // One client's endless row of requests that need no bus must not hold up the others' here.
   for (int round = 0; round < mostRounds; ++round) {
      if (connection.isAnswering() && !_isOpenAfterSending(connection)) {
         return nullptr;
      }
      if (connection.isAnswering() || connection.isDrained()) {
         if (connection.release()) {
            return nullptr;
         }
         if (connection.isAnswering()) {
            continue;
         }
      }
      switch (connection.receive()) {
      case Connection::Received::nothing:
         continue;
      case Connection::Received::end:
         _end(connection, connection.reader().empty()
                             ? "the client has gone"
                             : "the client has gone in the middle of a frame");
         return nullptr;
      case Connection::Received::broken: {
         const FrameReader& reader = connection.reader();
         _endMalformed(connection,
                       reader.state() == FrameReader::State::wrongKind
                          ? fmt::format("a frame of kind {} instead of {}", reader.kind(),
                                        static_cast<int>(FrameKind::request))
                          : fmt::format("a frame of {} bytes; at most {} are possible",
                                        reader.length(), FrameReader::longestRequest));
         return nullptr;
      }
      case Connection::Received::frame:
         break;
      }
      Transaction& transaction = connection.transaction();
      _begun();
      if (_stopping) {
         _end(connection, "the daemon stops");
         _over();
         return nullptr;
      }
      const bool isMessage = transaction.parse(connection.reader().payload());
      connection.reader().next();
      if (!isMessage) {
         _endMalformed(connection, "a frame whose message cannot be read");
         _over();
         return nullptr;
      }
      transaction.plan(buses());
      if (Bus* const bus = transaction.bus()) {
         return bus->enter(transaction) ? &transaction : nullptr;
      }
      if (transaction.failed()) {
         TARN_TRACE(traceSource, 3, "serve", "Transaction {:#x}: {}", transaction.xid(),
                    transaction.error());
      }
      connection.answerIs();
   }
   _pool.post([this, &connection] {
      if (Transaction* transaction = _serve(connection)) {
         _work(*transaction);
      }
   });
   return nullptr;
}

/// Sends what there is to send. False: the connection is no more.
bool Server::_isOpenAfterSending(Connection& connection) {
   const Connection::Sent sent = connection.send();
   const char* end = nullptr;
   if (sent == Connection::Sent::gone) {
      end = "the client has gone before its answer";
   } else if (sent == Connection::Sent::all && _stopping) {
      end = "the daemon stops";
   } else if (const bool isPart = sent == Connection::Sent::part;
              connection.awaitsRoom() != isPart) {
      try {
         _pool.eventsAre(connection.fd(), connection.id(), isPart ? EPOLLIN | EPOLLOUT : EPOLLIN);
         connection.awaitsRoomIs(isPart);
      } catch (const std::system_error&) {
         end = "the system has no memory for it";
      }
   }
   if (end) {
      _end(connection, end);
   }
   if (end || sent == Connection::Sent::all) {
      _over();
   }
   return !end;
}

/// For the thread that has the bus which `first` is for: does it and all that wait for the bus.
void Server::_work(Transaction& first) {
   Bus& bus = *first.bus();
   // The bus may go, with its last transaction, as soon as it is given back.
   const std::shared_ptr<const BusTable> keep = first.buses();
   for (Transaction* each = &first; each; each = bus.next()) {
      bus.run(*each);
      if (each->bus()) {
         // It goes on at another bus, which may be slow: not on the thread that has this one.
         _pool.post([this, each] {
            if (each->bus()->enter(*each)) {
               _work(*each);
            }
         });
         continue;
      }
      Connection& connection = each->connection();
      connection.answerIs();
      if (Transaction* next = _serve(connection)) {
         _workElsewhere(*next);
      }
   }
}

/// Has another thread do what this one has a bus for.
void Server::_workElsewhere(Transaction& transaction) {
   _pool.post([this, &transaction] { _work(transaction); });
}

void Server::_endMalformed(Connection& connection, const std::string& why) {
   _counters.malformed.Inc();
   TARN_TRACE(traceSource, 0, "serve", "Ended connection {} of {}: {}", connection.id(),
              connection.peer(), why);
   _end(connection, "what came was no request");
}

void Server::_end(Connection& connection, const char* why) {
   TARN_TRACE(traceSource, 3, "end", "Connection {} of {} is closed: {}", connection.id(),
              connection.peer(), why);
   // It stays taken, so that a thread that is only just told of an event leaves it alone.
   std::shared_ptr<Connection> last;
   const std::scoped_lock lock(_connectionsMutex);
   if (const auto entry = _connections.find(connection.id()); entry != _connections.end()) {
      last = std::move(entry->second);
      _connections.erase(entry);
   }
}

void Server::_over() {
   if (_active.fetch_sub(1) == 1 && _stopping) {
      // With several of them on the way, the server may go in the first.
      _loop.post([this, life = std::weak_ptr(_life)] {
         if (!life.expired() && _stopped && _active == 0) {
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
      ucred peer{};
      socklen_t size = sizeof peer;
      ::getsockopt(connection->fd(), SOL_SOCKET, SO_PEERCRED, &peer, &size);
      result.push_back({id, connection->peer(), peer.pid, peer.uid, peer.gid,
                        connection->transactions().value(), connection->requests().value()});
   }
   return result;
}

} // namespace Nimbo
