#include "platform/metrics/SeriesTable.h"

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
            _series.erase(entries[--added].description);
         }
      };
      if (entries.size() <= _maxSeries - _series.size()) {
         try {
            for (const Entry& entry : entries) {
               if (!_series.emplace(entry.description, entry.counter).second) {
                  duplicate = entry.description;
                  break;
               }
               ++added;
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
   }
}

SeriesTable::Snapshot SeriesTable::snapshot() const {
   Snapshot snapshot;
   // Registering waits for this, so only pointers and numbers are copied; the texts are made of
   // them when the lock is gone.
   const std::lock_guard lock(_mutex);
   snapshot.samples.reserve(_series.size());
   for (const auto& [description, counter] : _series) {
      snapshot.samples.push_back({description, counter->value()});
   }
   snapshot.refusedForCap = _refusedForCap;
   snapshot.refusedAsDuplicate = _refusedAsDuplicate;
   return snapshot;
}

} // namespace Platform::Metrics
