#pragma once

#include <cstddef>
#include <variant>

#include "platform/metrics/Counter.h"
#include "platform/metrics/Histogram.h"
#include "platform/metrics/SharedCounter.h"

namespace Platform::Metrics {

/// Points to what a Registry shows under one name: a counter of either kind, or a histogram. Made
/// from a pointer to it without further ado. A plain value; owns nothing.
class MetricRef {
public:
   constexpr MetricRef(std::nullptr_t /*null*/) noexcept {}
   constexpr MetricRef(const Counter* counter) noexcept : _metric(counter) {}
   constexpr MetricRef(const SharedCounter* counter) noexcept : _metric(counter) {}
   constexpr MetricRef(const Histogram* histogram) noexcept : _metric(histogram) {}

   [[nodiscard]] bool isNull() const noexcept {
      return std::visit([](const auto* metric) { return metric == nullptr; }, _metric);
   }

   /// The histogram, or null if it is none.
   [[nodiscard]] const Histogram* histogram() const noexcept {
      const auto* found = std::get_if<const Histogram*>(&_metric);
      return found ? *found : nullptr;
   }

   /// Of a counter; 0 for a histogram.
   [[nodiscard]] std::uint64_t value() const noexcept {
      if (const auto* counter = std::get_if<const Counter*>(&_metric)) {
         return (*counter)->value();
      }
      const auto* shared = std::get_if<const SharedCounter*>(&_metric);
      return shared ? (*shared)->value() : 0;
   }

   /// Lines that it takes on the page.
   [[nodiscard]] std::size_t series() const noexcept {
      // The bounds, the bucket of all, sum and count.
      return histogram() ? histogram()->upperBounds().size() + 3 : 1;
   }

private:
   std::variant<const Counter*, const SharedCounter*, const Histogram*> _metric{
      static_cast<const Counter*>(nullptr)};
};

} // namespace Platform::Metrics
