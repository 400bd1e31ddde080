#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "nimbo/BusBackend.h"
#include "nimbo/BusConfig.h"
#include "nimbo/FairQueue.h"
#include "platform/metrics/Counter.h"
#include "platform/metrics/Histogram.h"
#include "platform/metrics/Registration.h"
#include "platform/metrics/Registry.h"

namespace Nimbo {

class Transaction;

/// One bus: who has it, who waits for it, and how it goes.
///
/// At any time one thread at most works on the bus. A thread that finds it free takes it, and
/// before it gives it back it does what others have queued meanwhile:
///
///     if (bus.enter(transaction)) {
///        for (Transaction* each = &transaction; each; each = bus.next()) {
///           bus.run(*each);
///           ...
///        }
///     } // else whoever has the bus will do it
///
/// So nothing is handed from thread to thread as long as the bus keeps up, and a bus that hangs
/// holds one thread and nobody else. Any thread.
class Bus {
public:
   struct Failure {
      std::string text;
      std::chrono::system_clock::time_point when;
   };

   Bus(BusConfig config, std::unique_ptr<BusBackend> backend);
   ~Bus();

   /// Shows the counters in `registry` until the bus goes or is hidden. One thread at a time.
   void showIn(Platform::Metrics::Registry& registry);
   void hide() noexcept;

   /// How many there are in the process: at most so many threads can be held up by them.
   static std::size_t alive() noexcept;

   const BusConfig& config() const noexcept { return _config; }
   const std::string& name() const noexcept { return _config.name; }

   /// True: the calling thread has the bus now, for `transaction`. False: the transaction waits.
   [[nodiscard]] bool enter(Transaction& transaction);

   /// Does the transaction's next requests, as far as they are for this bus or until one fails.
   /// Only for the thread that has the bus.
   void run(Transaction& transaction);

   /// Whose turn it is, for the thread that has the bus; null: nobody waits, and the thread has it
   /// no longer.
   [[nodiscard]] Transaction* next();

   const Platform::Metrics::Counter& transactions() const noexcept { return _transactions; }
   const Platform::Metrics::Counter& requests() const noexcept { return _requests; }
   const Platform::Metrics::Counter& failures() const noexcept { return _failures; }

   /// How long transactions took, from when the request had come, in nanoseconds.
   const Platform::Metrics::Histogram& latency() const noexcept { return _latency; }
   std::size_t waiting() const;

   /// Since when a thread has had the bus for the transaction under way, if there is one.
   std::optional<std::chrono::steady_clock::time_point> busySince() const;
   std::optional<Failure> lastFailure() const;

private:
   void _run(Transaction& transaction);
   void _failed(Transaction& transaction, const std::string& reason);
   int _do(Transaction& transaction);

   const BusConfig _config;
   const std::unique_ptr<BusBackend> _backend;

   mutable std::mutex _mutex; // of all below
   bool _isBusy = false;
   FairQueue _queue;
   std::chrono::steady_clock::time_point _busySince;
   std::optional<Failure> _lastFailure;

   // Only the thread that has the bus counts.
   Platform::Metrics::Counter _transactions;
   Platform::Metrics::Counter _requests;
   Platform::Metrics::Counter _failures;
   Platform::Metrics::Histogram _latency;
   Platform::Metrics::Registration _registration;
};

} // namespace Nimbo
