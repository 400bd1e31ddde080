#include "platform/hardware/private/SornBus.h"

#include <cerrno>
#include <exception>
#include <iterator>
#include <optional>

#include "platform/entity/SignalsBlocked.h"
#include "platform/hardware/SornRequest.h"
#include "platform/trace/Trace.h"

namespace Hardware {

namespace {

TARN_TRACE_SOURCE(traceSource, "platform/hardware/Sorn");

/// Ends that are told in one go, before the loop's other work has its turn.
constexpr std::size_t batch = 256;

/// Abandoned jobs are swept out of the queues when there are that many, and no more others.
constexpr std::size_t worthSweeping = 256;

SornStatus statusOf(int error) noexcept {
   switch (error) {
   case 0:
      return SornStatus::success;
   case ETIMEDOUT:
      return SornStatus::timedOut;
   case ENXIO:
   case ENODEV:
   case EREMOTEIO:
      return SornStatus::noDevice;
   default:
      return SornStatus::busError;
   }
}

} // namespace

SornBus::SornBus(Platform::EventLoop& loop, String name, std::unique_ptr<SornBackend> backend)
   : _loop(loop), _name(std::move(name)), _backend(std::move(backend)),
     _timer(std::make_unique<Platform::Timer>(loop, [this] { _expire(); })) {}

SornBus::~SornBus() = default;

void SornBus::start() {
   const Platform::SignalsBlocked blocked;
   // The worker keeps the bus, as it may be left behind in an operation that never ends.
   _worker = std::thread([self = shared_from_this()] { _work(self); });
}

void SornBus::stop() {
   if (_isStopped) {
      return;
   }
   _isStopped = true;
   _timer.reset();
   std::vector<std::shared_ptr<SornJob>> cancelled;
   std::vector<std::shared_ptr<SornJob>> done;
   bool isWorking = false;
   {
      const std::scoped_lock lock(_mutex);
      _isStopping = true;
      isWorking = _current != nullptr;
      if (isWorking) {
         cancelled.push_back(_current);
      }
      for (const std::shared_ptr<SornClient>& client : _ring) {
         for (const std::shared_ptr<SornJob>& job : client->queue) {
            job->isQueued = false;
            cancelled.push_back(job);
         }
         client->queue.clear();
      }
      _ring.clear();
      _queued = 0;
      _abandoned = 0;
      done.swap(_done);
   }
   _wake.notify_one();
   if (_worker.joinable()) {
      if (isWorking) {
         _worker.detach();
      } else {
         _worker.join();
      }
   }
   _delivering.insert(_delivering.end(), done.begin(), done.end());
   const auto ended = std::move(_delivering);
   _delivering.clear();
   _deadlines.clear();
   // Nobody is left to throw to.
   const auto tell = [this](const std::shared_ptr<SornJob>& job, SornStatus status, int error,
                            std::uint32_t value) {
      try {
         _end(job, status, error, value);
      } catch (const std::exception& failure) {
         TARN_TRACE(traceSource, 0, "stop", "an observer failed: {}", failure.what());
      } catch (...) {
         TARN_TRACE(traceSource, 0, "stop", "an observer failed");
      }
   };
   for (const std::shared_ptr<SornJob>& job : ended) {
      tell(job, job->status, job->error, job->value);
   }
   for (const std::shared_ptr<SornJob>& job : cancelled) {
      tell(job, SornStatus::cancelled, ECANCELED, 0); // the worker may still be at its value
   }
}

void SornBus::submit(const std::shared_ptr<SornClient>& client,
                     const std::shared_ptr<SornJob>& job) {
   job->serial = ++_latestSerial;
   if (job->deadline) {
      _deadlines.emplace(Deadline(*job->deadline, job->serial), job);
      if (_deadlines.begin()->second == job) {
         _timer->startAt(*job->deadline);
      }
   }
   bool isAsleep = false;
   {
      const std::scoped_lock lock(_mutex);
      client->queue.push_back(job);
      if (client->queue.size() == 1) {
         _ring.push_back(client);
      }
      job->isQueued = true;
      ++_queued;
      isAsleep = std::exchange(_isAsleep, false);
   }
   if (isAsleep) {
      _wake.notify_one();
   }
}

void SornBus::abandon(SornJob& job) noexcept {
   job.request = nullptr;
   _forgetDeadline(job);
   _giveUp(job);
}

/// A bus that hangs takes nothing from the queues; what nobody waits for must not pile up there.
void SornBus::_giveUp(SornJob& job) noexcept {
   const std::scoped_lock lock(_mutex);
   const bool isNew = !std::exchange(job.isAbandoned, true);
   if (isNew && job.isQueued && ++_abandoned >= worthSweeping && 2 * _abandoned >= _queued) {
      _sweep();
   }
}

/// With the lock held.
void SornBus::_sweep() {
   for (const std::shared_ptr<SornClient>& client : _ring) {
      std::erase_if(client->queue, [](const std::shared_ptr<SornJob>& job) {
         job->isQueued = !job->isAbandoned;
         return job->isAbandoned;
      });
   }
   std::erase_if(_ring, [](const auto& client) { return client->queue.empty(); });
   _queued -= std::exchange(_abandoned, 0);
}

void SornBus::_forgetDeadline(const SornJob& job) noexcept {
   if (job.deadline && _deadlines.erase(Deadline(*job.deadline, job.serial)) != 0 &&
       _deadlines.empty()) {
      _timer->cancel(); // a timer keeps the loop running
   }
}

void SornBus::_work(const std::shared_ptr<SornBus>& self) {
   while (const std::shared_ptr<SornJob> job = self->_take()) {
      self->_do(*job);
   }
   // Handles and requests may keep the bus for long; what it holds open they need no more.
   self->_backend.reset();
}

/// Puts what was done last on the list, and waits for the next job. Null: there will be none.
std::shared_ptr<SornJob> SornBus::_take() {
   std::unique_lock lock(_mutex);
   if (_isStopping) {
      return nullptr; // what was done is nobody's business any more
   }
   if (_current) {
      _done.push_back(std::move(_current));
      _current.reset();
      _postDeliver();
   }
   while (!_isStopping) {
      if (_ring.empty()) {
         _isAsleep = true;
         _wake.wait(lock);
         _isAsleep = false;
         continue;
      }
      const std::shared_ptr<SornClient> client = std::move(_ring.front());
      _ring.pop_front();
      std::shared_ptr<SornJob> job;
      while (!job && !client->queue.empty()) { // what is abandoned costs its client no turn
         job = std::move(client->queue.front());
         client->queue.pop_front();
         job->isQueued = false;
         --_queued;
         if (job->isAbandoned) {
            --_abandoned;
            job.reset();
         }
      }
      if (!client->queue.empty()) {
         _ring.push_back(client);
      }
      if (job) {
         _current = job;
         return job;
      }
   }
   return nullptr;
}

/// With the lock held, so that there is a loop.
void SornBus::_postDeliver() {
   if (!std::exchange(_isDelivering, true)) {
      _loop.post([self = weak_from_this()] {
         if (const std::shared_ptr<SornBus> bus = self.lock()) {
            bus->_deliver();
         }
      });
   }
}

void SornBus::_do(SornJob& job) {
   if (job.deadline && std::chrono::steady_clock::now() >= *job.deadline) {
      job.status = SornStatus::timedOut;
      job.error = ETIMEDOUT;
      return;
   }
   if (const int error = _backend->begin(); error != 0) {
      job.status = SornStatus::failed;
      job.error = error;
      return;
   }
   // The high byte of the register's address is the command, the low one the first byte of data.
   const SornOp& op = job.op;
   const auto command = static_cast<std::uint8_t>(op.registerAddress >> 8);
   const bool isWrite = op.opcode == SornOp::Opcode::write;
   i2c_smbus_data data = {};
   data.block[0] = static_cast<std::uint8_t>(isWrite ? 1 + op.size : 1);
   data.block[1] = static_cast<std::uint8_t>(op.registerAddress);
   const auto shift = [&op](unsigned i) {
      return 8U * (op.mostSignificantFirst ? op.size - 1U - i : i);
   };
   for (unsigned i = 0; isWrite && i < op.size; ++i) {
      data.block[2 + i] = static_cast<std::uint8_t>(op.value >> shift(i));
   }
   job.error = _backend->transfer(op.device, I2C_SMBUS_WRITE, command, data);
   if (job.error == 0 && !isWrite) {
      data = {};
      data.block[0] = op.size;
      job.error = _backend->transfer(op.device, I2C_SMBUS_READ, command, data);
      if (job.error == 0 && data.block[0] < op.size) {
         job.error = EIO; // the device stopped early: what is missing is not zeros
      }
      for (unsigned i = 0; i < op.size; ++i) {
         job.value |= std::uint32_t{data.block[1 + i]} << shift(i);
      }
   }
   _backend->end();
   job.status = statusOf(job.error);
}

/// Takes over what the worker has done.
void SornBus::_collect() {
   std::vector<std::shared_ptr<SornJob>> done;
   {
      const std::scoped_lock lock(_mutex);
      done.swap(_done);
   }
   for (std::shared_ptr<SornJob>& job : done) {
      _forgetDeadline(*job);
      _delivering.push_back(std::move(job));
   }
}

void SornBus::_deliver() {
   const std::shared_ptr<SornBus> keep = shared_from_this();
   if (_isStopped) {
      return;
   }
   {
      const std::scoped_lock lock(_mutex);
      _isDelivering = false;
   }
   _collect();
   if (_delivering.size() > 1) {
      // For what this turn leaves: because there is too much, because somebody who is told throws,
      // or because he runs the loop and waits for one of the others.
      const std::scoped_lock lock(_mutex);
      _postDeliver();
   }
   for (std::size_t told = 0; told < batch && !_delivering.empty(); ++told) {
      const std::shared_ptr<SornJob> job = std::move(_delivering.front());
      _delivering.pop_front();
      _end(job, job->status, job->error, job->value);
   }
}

void SornBus::_end(const std::shared_ptr<SornJob>& job, SornStatus status, std::int32_t error,
                   std::uint32_t value) {
   SornRequest* const request = std::exchange(job->request, nullptr);
   if (request) {
      request->_ended(status, error, value);
   }
}

void SornBus::_expire() {
   const std::shared_ptr<SornBus> keep = shared_from_this();
   _collect(); // what was done in time has not timed out, however late the loop hears of it
   for (std::size_t told = 0; told < batch && !_isStopped && !_deadlines.empty(); ++told) {
      const auto first = _deadlines.begin();
      if (first->first.first > std::chrono::steady_clock::now()) {
         break;
      }
      const std::shared_ptr<SornJob> job = first->second;
      _forgetDeadline(*job);
      _giveUp(*job);
      _startTimer(); // for the others, before somebody who is told throws or runs the loop
      TARN_TRACE(traceSource, 3, "expire", "{}: device {:#04x}, register {:#06x} timed out", _name,
                 job->op.device, job->op.registerAddress);
      _end(job, SornStatus::timedOut, ETIMEDOUT, 0);
   }
   _startTimer();
}

void SornBus::_startTimer() {
   if (!_isStopped && !_deadlines.empty() && !_timer->active()) {
      _timer->startAt(_deadlines.begin()->first.first);
   }
}

} // namespace Hardware
