#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

#include "TarnRegFile/Utils.h"

namespace Nimbo {

/// Threads that wait together for descriptors to become ready and for posted work, and take each
/// on one of them. With one thread more than there are things that can block, there is always one
/// that takes what comes next.
///
/// Descriptors are watched for changes, each of which is told once: whoever is told has to take all
/// that there is. Two threads may be told of the same descriptor, one after the other.
class WorkerPool {
public:
   /// A descriptor that has become ready.
   struct Event {
      std::uint64_t tag = 0;
      bool hangUp = false; ///< the other end sends nothing any more
   };

   /// Told of descriptors that have become ready. Called on the pool's threads. Must not throw, and
   /// not wait before it has dealt with all of them.
   using Handler = std::function<void(std::span<const Event> events)>;

   /// Throws std::system_error if the system gives no descriptors.
   explicit WorkerPool(Handler handler);

   /// Stops the threads; each ends when it comes back from what it is doing. Descriptors and work
   /// that are left are left alone.
   ~WorkerPool();
   WorkerPool(const WorkerPool&) = delete;
   WorkerPool& operator=(const WorkerPool&) = delete;

   /// How many threads there are to be, at least one. Those too many end once they have nothing to
   /// do. Their signals are blocked. Throws std::system_error if there can be no more threads, and
   /// then keeps those that there are. Not for the pool's own threads.
   void sizeIs(std::size_t size);
   std::size_t size() const;

   /// Watches for `events` (EPOLLIN, EPOLLOUT) on a descriptor until it is closed. `tag`, not 0, is
   /// what the handler is told. Any thread. Throws std::system_error.
   void add(int fd, std::uint64_t tag, std::uint32_t events);

   /// The same for one that is watched already. What is ready at the time is told anew.
   void eventsAre(int fd, std::uint64_t tag, std::uint32_t events);

   /// Has `work`, which must not throw, called on one of the threads. Any thread.
   void post(std::function<void()> work);

private:
   void _run();
   bool _mayGoOn();
   void _takePosted();
   void _control(int operation, int fd, std::uint64_t tag, std::uint32_t events);
   void _joinEnded();

   const Handler _handler;
   const TarnRegFile::Utils::UnixFdRes _epoll;
   const TarnRegFile::Utils::UnixFdRes _wake; // an eventfd: how many pieces of work are posted

   mutable std::mutex _mutex; // of all below
   std::deque<std::function<void()>> _posted;
   std::size_t _size = 0;
   bool _stopping = false;
   std::vector<std::thread> _threads;
   std::vector<std::thread> _ended; // to be joined
};

} // namespace Nimbo
