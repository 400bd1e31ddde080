#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "nimbo/BusTable.h"
#include "nimbo/Connection.h"
#include "nimbo/WorkerPool.h"
#include "platform/entity/EventLoop.h"
#include "platform/entity/FdWatch.h"
#include "platform/entity/Timer.h"
#include "platform/metrics/Counter.h"
#include "platform/metrics/SharedCounter.h"

namespace Nimbo {

/// Serves clients: takes connections in on the event loop's thread, and transactions on a pool of
/// threads, one more than there are buses.
///
/// A transaction is done by the thread that received it if its bus is free, and otherwise waits
/// for its turn in the bus's queue. Its response is sent before the next frame of the connection
/// is looked at; so the transactions of a connection are answered in order, and those of different
/// connections take turns.
///
/// All calls on the event loop's thread, but for the status.
class Server {
public:
   /// Says whether a client may be served, by its socket, and fills in who it is.
   using Admission = std::function<bool(int fd, std::string& peer)>;

   struct ConnectionStatus {
      std::uint64_t id;
      std::string peer;
      pid_t pid;
      uid_t uid;
      gid_t gid;
      std::uint64_t transactions;
      std::uint64_t requests;
   };

   struct Counters {
      Platform::Metrics::Counter accepted;        ///< connections served
      Platform::Metrics::Counter refused;         ///< not admitted
      Platform::Metrics::Counter overLimit;       ///< turned away, as there were too many
      Platform::Metrics::SharedCounter malformed; ///< ended because what came was no request
   };

   Server(Platform::EventLoop& loop, std::size_t maxConnections, Admission admission);

   /// Ends all threads, waiting for those that have a bus and for what is queued at it.
   ~Server();
   Server(const Server&) = delete;
   Server& operator=(const Server&) = delete;

   /// The buses from now on. Transactions that have begun keep theirs. Throws std::system_error,
   /// and changes nothing, if there can be no more threads.
   void busesAre(std::shared_ptr<const BusTable> buses);
   std::shared_ptr<const BusTable> buses() const;

   /// Takes connections in at a listening socket, which stays the caller's and has to outlive the
   /// server or stop().
   void listenAt(int fd);

   /// Takes in no more connections and no more transactions, and calls `stopped`, once and on the
   /// loop, when those that have begun are answered.
   void stop(std::function<void()> stopped);

   // Any thread.

   std::vector<ConnectionStatus> connections() const;
   const Counters& counters() const noexcept { return _counters; }

private:
   void _accept();
   void _ready(std::span<const WorkerPool::Event> events) noexcept;
   Transaction* _serve(Connection& connection);
   bool _isOpenAfterSending(Connection& connection);
   void _work(Transaction& first);
   void _workElsewhere(Transaction& transaction);
   void _endMalformed(Connection& connection, const std::string& why);
   void _end(Connection& connection, const char* why);
   void _begun() noexcept { _active.fetch_add(1); }
   void _over();

   Platform::EventLoop& _loop;
   const std::shared_ptr<const bool> _life; // for what is posted to the loop
   const std::size_t _maxConnections;
   const Admission _admission;
   std::unique_ptr<Platform::FdWatch> _listener;
   Platform::Timer _acceptAgain;
   bool _isFull = false; // the system has nothing left for a connection, which has been said
   std::uint64_t _latestId = 0;
   std::function<void()> _stopped;
   Counters _counters;

   std::atomic<bool> _stopping = false;
   std::atomic<std::size_t> _active = 0; // transactions received and not answered

   mutable std::mutex _busesMutex;
   std::shared_ptr<const BusTable> _buses;

   mutable std::mutex _connectionsMutex;
   std::unordered_map<std::uint64_t, std::shared_ptr<Connection>> _connections;

   WorkerPool _pool; // its threads use all of the above
};

} // namespace Nimbo
