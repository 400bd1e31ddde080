#include "nimbo/Bus.h"

#include <array>
#include <atomic>
#include <exception>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "nimbo/Transaction.h"
#include "platform/trace/Trace.h"

namespace Nimbo {

namespace {

TARN_TRACE_SOURCE(traceSource, "nimbo/Bus");

/// The time between a backend's begin() and end().
class Turn {
public:
   explicit Turn(BusBackend& backend) : _backend(backend) { _backend.begin(); }
   ~Turn() { _backend.end(); }
   Turn(const Turn&) = delete;
   Turn& operator=(const Turn&) = delete;

private:
   BusBackend& _backend;
};

/// Each bus of the process has its own: what a connection has had of one that went, at a reload,
/// must not count against it on another in the same memory.
std::uint64_t serialNew() noexcept {
   static std::atomic<std::uint64_t> latest = 0;
   return ++latest;
}

std::atomic<std::size_t> aliveCount = 0;

/// From what a simulated bus takes to what a controller's driver waits, in nanoseconds.
std::vector<std::uint64_t> latencyBounds() {
   return {10'000,        20'000,        50'000,        100'000,       200'000,
           500'000,       1'000'000,     2'000'000,     5'000'000,     10'000'000,
           20'000'000,    50'000'000,    100'000'000,   200'000'000,   500'000'000,
           1'000'000'000, 2'000'000'000, 5'000'000'000, 10'000'000'000};
}

constexpr std::uint64_t perSecond = 1'000'000'000;

} // namespace

Bus::Bus(BusConfig config, std::unique_ptr<BusBackend> backend)
   : _config(std::move(config)), _backend(std::move(backend)), _queue(serialNew()),
     _latency(latencyBounds(), perSecond) {
   ++aliveCount;
}

void Bus::showIn(Platform::Metrics::Registry& registry) {
   _registration = registry.registrationNew(
      {{"nimbod_bus_transactions_total", "Transactions begun on the bus", &_transactions},
       {"nimbod_bus_requests_total", "Requests of transactions", &_requests},
       {"nimbod_bus_failures_total", "Transactions that failed on the bus", &_failures},
       {"nimbod_bus_latency_seconds", "From a request's arrival to the end of its transaction",
        &_latency}},
      {{"bus", _config.name}});
}

void Bus::hide() noexcept {
   _registration = Platform::Metrics::Registration();
}

Bus::~Bus() {
   --aliveCount;
}

std::size_t Bus::alive() noexcept {
   return aliveCount;
}

bool Bus::enter(Transaction& transaction) {
   const std::scoped_lock lock(_mutex);
   if (_isBusy) {
      _queue.push(transaction, transaction.flow(), transaction.run());
      return false;
   }
   _queue.pass(transaction.flow(), transaction.run());
   _isBusy = true;
   // The time at which it came is as good as the present one, and known, unless it has been at
   // another bus before.
   _busySince = transaction.index() == 0 ? transaction.begin() : std::chrono::steady_clock::now();
   return true;
}

Transaction* Bus::next() {
   const std::scoped_lock lock(_mutex);
   if (_queue.empty()) {
      _isBusy = false;
      return nullptr;
   }
   _busySince = std::chrono::steady_clock::now();
   return &_queue.take();
}

void Bus::run(Transaction& transaction) {
   _transactions.Inc();
   _run(transaction);
   const auto took = std::chrono::steady_clock::now() - transaction.begin();
   _latency.observe(static_cast<std::uint64_t>(std::chrono::nanoseconds(took).count()));
}

void Bus::_run(Transaction& transaction) {
   int error = 0;
   try {
      const Turn turn(*_backend);
      for (std::size_t left = transaction.run(); left > 0; --left) {
         TARN_TRACE(traceSource, 9, "run", "Transaction {:#x}: {}, master type {}",
                    transaction.xid(), transaction.shown(),
                    static_cast<int>(transaction.request().mastertype()));
         _requests.Inc();
         error = _do(transaction);
         if (error != 0) {
            break;
         }
         transaction.done();
      }
   } catch (const std::exception& failure) {
      _failed(transaction, failure.what());
      return;
   }
   if (error != 0) {
      _failed(transaction, fmt::format("{} ({})", std::generic_category().message(error), error));
   }
}

int Bus::_do(Transaction& transaction) {
   const Smbus::Request& request = transaction.request();
   const AddressWord& where = transaction.where();
   std::array<std::uint8_t, 4> bytes = {};
   for (std::size_t i = 0; i < where.offsetBytes; ++i) {
      bytes[i] = static_cast<std::uint8_t>(where.offset >> (8 * (where.offsetBytes - 1 - i)));
   }
   const std::span offset = std::span(bytes).first(where.offsetBytes);
   if (request.type() == Smbus::REQUEST_TYPE_READ) {
      return _backend->read(where.device, offset, transaction.responseNew(request.length()));
   }
   transaction.responseNew(0);
   const std::string& data = request.data();
   return _backend->write(where.device, offset,
                          {reinterpret_cast<const std::uint8_t*>(data.data()), data.size()});
}

void Bus::_failed(Transaction& transaction, const std::string& reason) {
   _failures.Inc();
   transaction.fail(reason);
   TARN_TRACE(traceSource, 3, "run", "Transaction {:#x}: {}", transaction.xid(),
              transaction.error());
   const std::scoped_lock lock(_mutex);
   _lastFailure = Failure{transaction.error(), std::chrono::system_clock::now()};
}

std::size_t Bus::waiting() const {
   const std::scoped_lock lock(_mutex);
   return _queue.size();
}

std::optional<std::chrono::steady_clock::time_point> Bus::busySince() const {
   const std::scoped_lock lock(_mutex);
   return _isBusy ? std::optional(_busySince) : std::nullopt;
}

std::optional<Bus::Failure> Bus::lastFailure() const {
   const std::scoped_lock lock(_mutex);
   return _lastFailure;
}

} // namespace Nimbo
