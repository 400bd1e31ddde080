#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/entity/Export.h"

namespace Platform::Metrics {

/// How often values of each size were observed: how long transfers took, how many requests came
/// at once. Values are whole numbers of a unit that the owner chooses, say nanoseconds.
///
/// A member of the object that observes, shown to the world through a Registration. Any thread may
/// call anything. Observing takes two atomic additions and a walk along the bounds, no lock; sum
/// and counts wrap around at 2^64.
class TARN_PLATFORM_API Histogram {
public:
   static constexpr std::size_t maxBounds = 64;

   /// What was observed so far. Observations that go on meanwhile are in it or not, each by
   /// itself: `count` is always the sum of `counts`, while `sum` may have a few of them that the
   /// counts have not, and the other way round. Once nobody observes all agree.
   struct Snapshot {
      std::vector<std::uint64_t> counts; ///< one a bound, and one of what is above the last
      std::uint64_t count = 0;
      std::uint64_t sum = 0; ///< in the unit observed
   };

   /// `upperBounds` ascend, 1 to 64 of them, in the unit that is observed: a value belongs to the
   /// first bound that is not less. Observers see values in another unit if `perShownUnit` is how
   /// many of the one make one of the other: 1,000,000,000 for nanoseconds that are shown as
   /// seconds. Throws std::invalid_argument for bounds that are none, too many or do not ascend,
   /// and for 0 in place of a unit.
   explicit Histogram(std::vector<std::uint64_t> upperBounds, std::uint64_t perShownUnit = 1);
   ~Histogram();

   Histogram(const Histogram&) = delete;
   Histogram& operator=(const Histogram&) = delete;

   void observe(std::uint64_t value) noexcept {
      // With so few, all of them in a line or two of the cache, a walk is quicker than a search.
      std::size_t bucket = 0;
      while (bucket < _bounds.size() && value > _bounds[bucket]) {
         ++bucket;
      }
      _counts[bucket].fetch_add(1, std::memory_order_relaxed);
      _sum.fetch_add(value, std::memory_order_relaxed);
   }

   [[nodiscard]] const std::vector<std::uint64_t>& upperBounds() const noexcept { return _bounds; }
   [[nodiscard]] std::uint64_t perShownUnit() const noexcept { return _perShownUnit; }

   /// Throws only std::bad_alloc.
   [[nodiscard]] Snapshot snapshot() const;

private:
   const std::vector<std::uint64_t> _bounds;
   const std::uint64_t _perShownUnit;
   const std::unique_ptr<std::atomic<std::uint64_t>[]> _counts; // one more than bounds
   std::atomic<std::uint64_t> _sum{0};
};

} // namespace Platform::Metrics
