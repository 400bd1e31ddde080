#include "platform/metrics/Histogram.h"

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace Platform::Metrics {

namespace {

std::vector<std::uint64_t> checked(std::vector<std::uint64_t> bounds) {
   if (bounds.empty() || bounds.size() > Histogram::maxBounds) {
      throw std::invalid_argument(fmt::format("a histogram of {} bounds: 1 to {} are possible",
                                              bounds.size(), Histogram::maxBounds));
   }
   const auto stop = std::adjacent_find(bounds.begin(), bounds.end(), std::greater_equal<>());
   if (stop != bounds.end()) {
      throw std::invalid_argument(
         fmt::format("the bounds of a histogram must ascend: {}, {}", stop[0], stop[1]));
   }
   return bounds;
}

std::uint64_t checkedUnit(std::uint64_t perShownUnit) {
   if (perShownUnit == 0) {
      throw std::invalid_argument("a histogram's values are shown in a unit of 0");
   }
   return perShownUnit;
}

} // namespace

Histogram::Histogram(std::vector<std::uint64_t> upperBounds, std::uint64_t perShownUnit)
   : _bounds(checked(std::move(upperBounds))), _perShownUnit(checkedUnit(perShownUnit)),
     _counts(std::make_unique<std::atomic<std::uint64_t>[]>(_bounds.size() + 1)) {}

Histogram::~Histogram() = default;

Histogram::Snapshot Histogram::snapshot() const {
   Snapshot snapshot;
   snapshot.counts.reserve(_bounds.size() + 1);
   for (std::size_t bucket = 0; bucket <= _bounds.size(); ++bucket) {
      snapshot.counts.push_back(_counts[bucket].load(std::memory_order_relaxed));
      // Not a count of its own: it could differ from what the buckets add up to.
      snapshot.count += snapshot.counts.back();
   }
   snapshot.sum = _sum.load(std::memory_order_relaxed);
   return snapshot;
}

} // namespace Platform::Metrics
