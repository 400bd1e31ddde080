#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "platform/entity/Export.h"
#include "platform/metrics/Counter.h"
#include "platform/metrics/Histogram.h"
#include "platform/metrics/Label.h"
#include "platform/metrics/MetricRef.h"
#include "platform/metrics/Registration.h"
#include "platform/metrics/SharedCounter.h"

namespace Platform::Metrics {

class SeriesTable;

/// The counters and histograms of a program, as they are shown to whoever collects them (Exposer).
///
/// A program that is to be watched makes one and passes it to the objects that count, or exposes
/// processRegistry(), in which those register that are made by their name alone. Any thread may
/// register, while others register, let go, or collect.
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
      std::size_t series = 10000;        ///< Lines of the whole registry; see NamedMetric.
   };

   /// A counter or histogram under the name that the collecting side knows it by. By custom a
   /// counter's name ends in `_total`, and a histogram's in the unit shown, `_seconds`. `help` says
   /// what is counted, in a line of up to 256 bytes, the same for all series of the name.
   ///
   /// A counter is one series. A histogram is as many as it has bounds and three more, which are
   /// shown as NAME_bucket, NAME_sum and NAME_count: those names are taken, then.
   struct NamedMetric {
      std::string name;
      std::string help;
      MetricRef metric;
      std::vector<Label> labels = {};
   };

   Registry();
   /// Throws std::invalid_argument if `labelValueBytes` is less than 3.
   explicit Registry(Limits limits);
   ~Registry();

   Registry(const Registry&) = delete;
   Registry& operator=(const Registry&) = delete;

   /// Shows `metrics`, each with its own labels and `commonLabels`, until the result is
   /// destroyed. They must live longer than the result.
   ///
   /// Throws std::invalid_argument, naming the text, for what no program should ask for: a name
   /// that isMetricName or isLabelName refuses or that begins with `tarn_metrics_`, a label given
   /// twice, too many labels, the label `le` at a histogram, a null pointer, and a histogram and a
   /// counter of one name. What depends on the data is refused without an
   /// exception, so that an object never fails for the sake of being watched: if the registry is
   /// full, or has a series of the same name and labels, none of `metrics` is shown and the
   /// result's isRegistered is false. Such refusals are counted and traced at level 1.
   [[nodiscard]] Registration registrationNew(std::vector<NamedMetric> metrics,
                                              const std::vector<Label>& commonLabels = {});

private:
   friend class Exposer;

   const Limits _limits;
   const std::shared_ptr<SeriesTable> _table;
};

/// The registry of objects that nobody passes one to: the tables' entities. Lives to the end of the
/// process. Any thread.
TARN_PLATFORM_API Registry& processRegistry();

} // namespace Platform::Metrics
