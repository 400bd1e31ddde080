#pragma once

#include <atomic>
#include <cstdint>

namespace Platform::Metrics {

/// A count of events that one object keeps: reads done, retries, failures. Costs its owner an
/// ordinary load, add and store.
///
/// A member of the object that counts, shown to the world through a Registration. Only one thread
/// may call Inc (with two, counts get lost, nothing worse); any thread may call value. Wraps
/// around at 2^64. Nothing throws.
class Counter {
public:
   constexpr Counter() noexcept = default;

   Counter(const Counter&) = delete;
   Counter& operator=(const Counter&) = delete;

   void Inc(std::uint64_t n = 1) noexcept {
      // Not fetch_add: with a single writer nothing can come between, and the locked instruction
      // would cost more than much of what is counted.
      _value.store(_value.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
   }

   [[nodiscard]] std::uint64_t value() const noexcept {
      return _value.load(std::memory_order_relaxed);
   }

private:
   std::atomic<std::uint64_t> _value{0};
};

} // namespace Platform::Metrics
