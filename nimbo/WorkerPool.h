#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "TarnRegFile/Utils.h"

namespace Nimbo {

/// Threads that wait together for descriptors to become ready and for posted work, and take each
/// on one of them. With one thread more than there are things that can block, there is always one
/// that takes what comes next.
///
/// A descriptor is armed for one event at a time, so that whoever is called for it has it to
/// itself until arming it again.
class WorkerPool {
public:
   /// Events as epoll has them. Called on the pool's threads. Must not throw.
   using Handler = std::function<void(void* tag, std::uint32_t events)>;

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

   /// Waits once for `events` (EPOLLIN, EPOLLOUT) on a descriptor that the pool does not know yet.
   /// `tag`, not null, is what the handler is told. Any thread. Throws std::system_error.
   void add(int fd, void* tag, std::uint32_t events);

   /// The same for one that it knows. A descriptor that is closed is forgotten.
   void arm(int fd, void* tag, std::uint32_t events);

   /// Has `work`, which must not throw, called on one of the threads. Any thread.
   void post(std::function<void()> work);

private:
   void _run();
   bool _mayGoOn();
   void _takePosted();
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
