#pragma once

#include <atomic>
#include <cstdint>

namespace Platform::Metrics {

/// A count of events that several threads keep together: requests of all connections, failures
/// of all workers. Costs an atomic addition; where one thread does the counting, Counter is
/// cheaper.
///
/// A member of what counts, shown to the world through a Registration. Any thread may call
/// anything; no count gets lost. Wraps around at 2^64. Nothing throws.
class SharedCounter {
public:
   constexpr SharedCounter() noexcept = default;

   SharedCounter(const SharedCounter&) = delete;
   SharedCounter& operator=(const SharedCounter&) = delete;

   void Inc(std::uint64_t n = 1) noexcept { _value.fetch_add(n, std::memory_order_relaxed); }

   [[nodiscard]] std::uint64_t value() const noexcept {
      return _value.load(std::memory_order_relaxed);
   }

private:
   std::atomic<std::uint64_t> _value{0};
};

} // namespace Platform::Metrics
