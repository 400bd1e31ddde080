#include "platform/metrics/SeriesTable.h"

#include <iterator>
#include <stdexcept>

#include <fmt/format.h>

#include "platform/trace/Trace.h"

namespace Platform::Metrics {

namespace {

TARN_TRACE_SOURCE(traceSource, "platform/metrics");

std::string labelText(const std::vector<Label>& labels) {
   std::string text;
   for (const Label& label : labels) {
      text += (text.empty() ? "" : ",") + label.name + "=\"" + label.value + '"';
   }
   return text;
}

void traceRefusal(const SeriesTable::Description& description, const char* reason) {
   TARN_TRACE(traceSource, 1, "registrationNew", "{}{{{}}} is refused: {}", description.name,
              labelText(description.labels), reason);
}

} // namespace

bool SeriesTable::entriesAdd(const std::vector<Entry>& entries) {
   std::shared_ptr<const Description> duplicate;
   {
      const std::lock_guard lock(_mutex);
      std::size_t added = 0;
      const auto undo = [&]() noexcept {
         while (added > 0) {
            --added;
            _series.erase(entries[added].description);
            _shown -= entries[added].metric.series();
         }
      };
      std::size_t wanted = 0;
      for (const Entry& entry : entries) {
         wanted += entry.metric.series();
      }
      if (wanted <= _maxSeries - _shown) {
         try {
            for (const Entry& entry : entries) {
               const auto [place, isNew] = _series.emplace(entry.description, entry.metric);
               if (!isNew) {
                  duplicate = entry.description;
                  break;
               }
               ++added;
               _shown += entry.metric.series();
               _checkKind(place);
            }
         } catch (...) {
            undo();
            throw;
         }
         if (!duplicate) {
            return true;
         }
         undo();
         ++_refusedAsDuplicate;
      } else {
         ++_refusedForCap;
      }
   }
   if (duplicate) {
      traceRefusal(*duplicate, "there is one with the same name and labels");
   } else {
      traceRefusal(*entries.front().description, "there are too many series");
   }
   return false;
}

void SeriesTable::entriesDel(const std::vector<Entry>& entries) noexcept {
   const std::lock_guard lock(_mutex);
   for (const Entry& entry : entries) {
      _series.erase(entry.description);
      _shown -= entry.metric.series();
   }
}

void SeriesTable::_checkKind(Series::const_iterator added) const {
   const auto check = [&](const Series::value_type& other) {
      if (other.first->name == added->first->name &&
          (other.second.histogram() == nullptr) != (added->second.histogram() == nullptr)) {
         throw std::invalid_argument(
            fmt::format("metric {}: it cannot be a counter and a histogram", added->first->name));
      }
   };
   // All of one name stand together, and are of one kind until now: one neighbour tells.
   if (added != _series.begin()) {
      check(*std::prev(added));
   }
   if (std::next(added) != _series.end()) {
      check(*std::next(added));
   }
}

SeriesTable::Snapshot SeriesTable::snapshot() const {
   Snapshot snapshot;
   // Registering waits for this, so only pointers and numbers are copied; the texts are made of
   // them when the lock is gone.
   const std::lock_guard lock(_mutex);
   snapshot.samples.reserve(_series.size());
   for (const auto& [description, metric] : _series) {
      Sample& sample = snapshot.samples.emplace_back();
      sample.description = description;
      if (const Histogram* histogram = metric.histogram()) {
         sample.histogram = histogram->snapshot();
         sample.upperBounds = histogram->upperBounds();
         sample.perShownUnit = histogram->perShownUnit();
      } else {
         sample.value = metric.value();
      }
   }
   snapshot.series = _shown;
   snapshot.refusedForCap = _refusedForCap;
   snapshot.refusedAsDuplicate = _refusedAsDuplicate;
   return snapshot;
}

} // namespace Platform::Metrics
