#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/metrics/Histogram.h"
#include "platform/metrics/Label.h"
#include "platform/metrics/MetricRef.h"

namespace Platform::Metrics {

/// What a Registry, its registrations and its exposers share: the series there are. Internal.
/// Any thread.
class SeriesTable {
public:
   struct Description {
      std::string name;
      std::string help;
      std::vector<Label> labels; // sorted
   };

   struct Sample {
      std::shared_ptr<const Description> description;
      std::uint64_t value = 0;       // of a counter
      Histogram::Snapshot histogram; // empty for a counter
      std::vector<std::uint64_t> upperBounds;
      std::uint64_t perShownUnit = 1;
   };

   struct Snapshot {
      std::vector<Sample> samples; // sorted by name, then labels
      std::size_t series;
      std::uint64_t refusedForCap;
      std::uint64_t refusedAsDuplicate;
   };

   struct Entry {
      std::shared_ptr<const Description> description;
      MetricRef metric;
   };

   explicit SeriesTable(std::size_t maxSeries) : _maxSeries(maxSeries) {}

   /// Adds all entries or, counting the refusal, none; tells which. Throws std::invalid_argument,
   /// and has added none, if a histogram and a counter would have one name.
   bool entriesAdd(const std::vector<Entry>& entries);

   /// Takes out what entriesAdd added. Once this returns nothing of `entries` is read again.
   void entriesDel(const std::vector<Entry>& entries) noexcept;

   [[nodiscard]] Snapshot snapshot() const;

private:
   struct Before {
      bool operator()(const std::shared_ptr<const Description>& left,
                      const std::shared_ptr<const Description>& right) const noexcept {
         const int order = left->name.compare(right->name);
         return order != 0 ? order < 0 : left->labels < right->labels;
      }
   };

   using Series = std::map<std::shared_ptr<const Description>, MetricRef, Before>;

   void _checkKind(Series::const_iterator added) const;

   const std::size_t _maxSeries;
   mutable std::mutex _mutex;
   Series _series;
   std::size_t _shown = 0; // series that these make
   std::uint64_t _refusedForCap = 0;
   std::uint64_t _refusedAsDuplicate = 0;
};

} // namespace Platform::Metrics
