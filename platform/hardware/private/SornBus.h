#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "platform/entity/EventLoop.h"
#include "platform/entity/Timer.h"
#include "platform/entity/Types.h"
#include "platform/hardware/private/SornJob.h"
#include "platform/hardware/SornBackend.h"

namespace Hardware {

using Platform::String;

/// One bus of the access manager: its clients' queues, its worker, and the way back to the event
/// loop.
///
/// The worker takes an operation of each client in turn. What it has done it puts on a list, which
/// is told on the loop, a batch at a time, so that neither waits for the other. Shared by the
/// manager, the handles, the requests and the worker; stop() ends the service. All calls on the
/// loop's thread.
class SornBus : public std::enable_shared_from_this<SornBus> {
public:
   SornBus(Platform::EventLoop& loop, String name, std::unique_ptr<SornBackend> backend);
   ~SornBus();
   SornBus(const SornBus&) = delete;
   SornBus& operator=(const SornBus&) = delete;

   const String& name() const noexcept { return _name; }

   /// Starts the worker. Throws std::system_error.
   void start();

   /// Tells all requests that have not ended that they are cancelled, and ends the worker, but does
   /// not wait for an operation that it is in.
   void stop();
   bool isStopped() const noexcept { return _isStopped; }

   /// Queues a job of `client`.
   void submit(const std::shared_ptr<SornClient>& client, const std::shared_ptr<SornJob>& job);

   /// Nobody waits for the job any more.
   void abandon(SornJob& job) noexcept;

private:
   using Deadline = std::pair<std::chrono::steady_clock::time_point, std::uint64_t>;

   static void _work(const std::shared_ptr<SornBus>& self);
   void _do(SornJob& job);
   std::shared_ptr<SornJob> _take();
   void _sweep();
   void _giveUp(SornJob& job) noexcept;
   void _forgetDeadline(const SornJob& job) noexcept;
   void _collect();
   void _deliver();
   void _end(const std::shared_ptr<SornJob>& job, SornStatus status, std::int32_t error,
             std::uint32_t value);
   void _expire();
   void _startTimer();
   void _postDeliver();

   Platform::EventLoop& _loop; // not after stop()
   const String _name;
   std::unique_ptr<SornBackend> _backend; // the worker's, and gone with it
   std::thread _worker;

   // The loop's thread's.
   bool _isStopped = false;
   std::uint64_t _latestSerial = 0;
   std::deque<std::shared_ptr<SornJob>> _delivering;
   std::map<Deadline, std::shared_ptr<SornJob>> _deadlines;
   std::unique_ptr<Platform::Timer> _timer;

   std::mutex _mutex; // of all below
   std::condition_variable _wake;
   bool _isStopping = false;
   bool _isAsleep = false;
   bool _isDelivering = false;                    // a delivery is posted or under way
   std::deque<std::shared_ptr<SornClient>> _ring; // those with jobs, the next one in front
   std::size_t _queued = 0;                       // jobs of all clients
   std::size_t _abandoned = 0;                    // those of them that are not worth beginning
   std::shared_ptr<SornJob> _current;
   std::vector<std::shared_ptr<SornJob>> _done;
};

} // namespace Hardware
