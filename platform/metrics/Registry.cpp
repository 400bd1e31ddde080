#include "platform/metrics/Registry.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

#include "platform/metrics/RegistrationGroup.h"
#include "platform/metrics/SeriesTable.h"

namespace Platform::Metrics {

namespace {

constexpr std::string_view ownPrefix = "tarn_metrics_";
constexpr std::string_view boundLabel = "le";
constexpr std::size_t leastLabelValueBytes = 3; // the ellipsis

Registry::Limits checked(const Registry::Limits& limits) {
   if (limits.labelValueBytes < leastLabelValueBytes) {
      throw std::invalid_argument(fmt::format("a limit of {} bytes for label values: at least {}",
                                              limits.labelValueBytes, leastLabelValueBytes));
   }
   return limits;
}

// As the exposition has it, on one line. The serializer escapes label values but not this.
std::string helpText(std::string_view help) {
   constexpr std::size_t maxBytes = 256;
   std::string text;
   for (const char character : boundedLabelValue(help, maxBytes)) {
      if (character == '\\') {
         text += "\\\\";
      } else if (character == '\n') {
         text += "\\n";
      } else {
         text += character;
      }
   }
   return text;
}

std::shared_ptr<const SeriesTable::Description> description(Registry::NamedMetric&& metric,
                                                            const std::vector<Label>& commonLabels,
                                                            const Registry::Limits& limits) {
   const std::string& name = metric.name;
   if (!isMetricName(name)) {
      throw std::invalid_argument(fmt::format("'{}' is not a metric name", name));
   }
   if (name.starts_with(ownPrefix)) {
      throw std::invalid_argument(
         fmt::format("metric {}: names that begin with {} are the registry's", name, ownPrefix));
   }
   if (metric.metric.isNull()) {
      throw std::invalid_argument(fmt::format("metric {}: there is none, but null", name));
   }
   std::vector<Label> labels = std::move(metric.labels);
   labels.insert(labels.end(), commonLabels.begin(), commonLabels.end());
   if (labels.size() > limits.labels) {
      throw std::invalid_argument(
         fmt::format("metric {}: {} labels are more than {}", name, labels.size(), limits.labels));
   }
   for (Label& label : labels) {
      if (!isLabelName(label.name)) {
         throw std::invalid_argument(
            fmt::format("metric {}: '{}' is not a label name", name, label.name));
      }
      if (metric.metric.histogram() && label.name == boundLabel) {
         throw std::invalid_argument(fmt::format(
            "metric {}: the label {} says the bounds of a histogram", name, boundLabel));
      }
      label.value = boundedLabelValue(label.value, limits.labelValueBytes);
   }
   std::sort(labels.begin(), labels.end());
   const auto twice =
      std::adjacent_find(labels.begin(), labels.end(), [](const Label& left, const Label& right) {
         return left.name == right.name;
      });
   if (twice != labels.end()) {
      throw std::invalid_argument(
         fmt::format("metric {}: the label {} is given twice", name, twice->name));
   }
   return std::make_shared<const SeriesTable::Description>(
      SeriesTable::Description{std::move(metric.name), helpText(metric.help), std::move(labels)});
}

} // namespace

Registry::Registry() : Registry(Limits{}) {}

Registry::Registry(Limits limits)
   : _limits(checked(limits)), _table(std::make_shared<SeriesTable>(limits.series)) {}

Registry::~Registry() = default;

Registration Registry::registrationNew(std::vector<NamedMetric> metrics,
                                       const std::vector<Label>& commonLabels) {
   auto group = std::make_unique<Registration::Group>(_table);
   std::vector<SeriesTable::Entry> entries;
   entries.reserve(metrics.size());
   for (NamedMetric& metric : metrics) {
      const MetricRef source = metric.metric;
      entries.push_back({description(std::move(metric), commonLabels, _limits), source});
   }
   if (!_table->entriesAdd(entries)) {
      return {};
   }
   group->entries = std::move(entries);
   return Registration(std::move(group));
}

Registry& processRegistry() {
   // Never destroyed: objects that register may outlive everything that is.
   static auto* const instance = new Registry;
   return *instance;
}

} // namespace Platform::Metrics
