#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "platform/entity/Export.h"
#include "platform/metrics/Counter.h"
#include "platform/metrics/Label.h"
#include "platform/metrics/Registration.h"

namespace Platform::Metrics {

class SeriesTable;

/// The counters of a program, as they are shown to whoever collects them (Exposer).
///
/// A program that is to be watched makes one and passes it to the objects that count; there is
/// no global one. Any thread may register, while others register, let go, or collect.
///
///     struct Bus {
///        Counter reads;
///        Counter failures;
///        Registration registration;
///     };
///     bus.registration = registry.registrationNew(
///        {{"tarn_bus_reads_total", "Reads done", &bus.reads},
///         {"tarn_bus_failures_total", "Operations that failed", &bus.failures}},
///        {{"bus", "3"}});
///
/// Shows its own state as tarn_metrics_series and tarn_metrics_refused_registrations_total.
class TARN_PLATFORM_API Registry {
public:
   /// What keeps a program's metrics from growing without bound.
   struct Limits {
      std::size_t labels = 8;            ///< Labels of one series.
      std::size_t labelValueBytes = 128; ///< Longer values are cut: see boundedLabelValue.
      std::size_t series = 10000;        ///< Series of the whole registry.
   };

   /// A counter under the name that the collecting side knows it by. By custom the name ends in
   /// `_total`. `help` says what is counted, in a line of up to 256 bytes, the same for all series
   /// of the name.
   struct NamedCounter {
      std::string name;
      std::string help;
      const Counter* counter;
      std::vector<Label> labels = {};
   };

   Registry();
   /// Throws std::invalid_argument if `labelValueBytes` is less than 3.
   explicit Registry(Limits limits);
   ~Registry();

   Registry(const Registry&) = delete;
   Registry& operator=(const Registry&) = delete;

   /// Shows `counters`, each with its own labels and `commonLabels`, until the result is
   /// destroyed. The counters must live longer than the result.
   ///
   /// Throws std::invalid_argument, naming the text, for what no program should ask for: a name
   /// that isMetricName or isLabelName refuses or that begins with `tarn_metrics_`, a label given
   /// twice, too many labels, a null counter. What depends on the data is refused without an
   /// exception, so that an object never fails for the sake of being watched: if the registry is
   /// full, or has a series of the same name and labels, none of `counters` is shown and the
   /// result's isRegistered is false. Such refusals are counted and traced at level 1.
   [[nodiscard]] Registration registrationNew(std::vector<NamedCounter> counters,
                                              const std::vector<Label>& commonLabels = {});

private:
   friend class Exposer;

   const Limits _limits;
   const std::shared_ptr<SeriesTable> _table;
};

} // namespace Platform::Metrics
