#include "platform/metrics/Registry.h"

#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/metrics/Exposer.h"
#include "platform/trace/CaptureScope.h"
#include "tests/unit/platform/metrics/HttpGet.h"

namespace {

using Platform::Metrics::Counter;
using Platform::Metrics::Exposer;
using Platform::Metrics::Histogram;
using Platform::Metrics::Label;
using Platform::Metrics::Registration;
using Platform::Metrics::Registry;
using Platform::Metrics::SharedCounter;
using Platform::Metrics::Test::exposition;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using Counters = std::vector<Registry::NamedMetric>;

std::string shown(const Registry& registry) {
   const Exposer exposer(registry, "0");
   return exposition(exposer.port());
}

std::string ownMetrics(int cap, int duplicate, int series) {
   return "# HELP tarn_metrics_refused_registrations_total Groups of counters that the registry "
          "refused to show\n"
          "# TYPE tarn_metrics_refused_registrations_total counter\n"
          "tarn_metrics_refused_registrations_total{reason=\"cap\"} " +
          std::to_string(cap) +
          "\n"
          "tarn_metrics_refused_registrations_total{reason=\"duplicate\"} " +
          std::to_string(duplicate) +
          "\n"
          "# HELP tarn_metrics_series Series that the registry shows\n"
          "# TYPE tarn_metrics_series gauge\n"
          "tarn_metrics_series " +
          std::to_string(series) + "\n";
}

std::string refusal(const Counters& counters, const std::vector<Label>& labels = {}) {
   Registry registry;
   try {
      static_cast<void>(registry.registrationNew(counters, labels));
   } catch (const std::invalid_argument& error) {
      // What could not be done has left nothing behind.
      EXPECT_EQ(shown(registry), ownMetrics(0, 0, 0));
      return error.what();
   }
   return "accepted";
}

TEST(MetricsRegistry, EmptyOneShowsOnlyItself) {
   EXPECT_EQ(shown(Registry()), ownMetrics(0, 0, 0));
}

TEST(MetricsRegistry, ShowsFamiliesByNameAndTheirSeriesByLabels) {
   Registry registry;
   Counter reads;
   Counter writes;
   Counter failures;
   reads.Inc(3);
   writes.Inc(5);
   const Registration second =
      registry.registrationNew({{"tarn_ops_total", "Operations", &writes, {{"op", "write"}}},
                                {"tarn_ops_total", "Operations", &reads, {{"op", "read"}}}},
                               {{"type", "Sorn"}, {"entity", "b"}});
   const Registration first =
      registry.registrationNew({{"tarn_failures_total", "Failures", &failures}});
   EXPECT_EQ(shown(registry), "# HELP tarn_failures_total Failures\n"
                              "# TYPE tarn_failures_total counter\n"
                              "tarn_failures_total 0\n"
                              "# HELP tarn_ops_total Operations\n"
                              "# TYPE tarn_ops_total counter\n"
                              "tarn_ops_total{entity=\"b\",op=\"read\",type=\"Sorn\"} 3\n"
                              "tarn_ops_total{entity=\"b\",op=\"write\",type=\"Sorn\"} 5\n" +
                                 ownMetrics(0, 0, 3));
}

TEST(MetricsRegistry, ShowsTheValuesOfTheMoment) {
   Registry registry;
   Counter counter;
   const Registration registration = registry.registrationNew({{"a_total", "", &counter}});
   const Exposer exposer(registry, "0");
   EXPECT_THAT(exposition(exposer.port()), HasSubstr("\na_total 0\n"));
   counter.Inc(7);
   EXPECT_THAT(exposition(exposer.port()), HasSubstr("\na_total 7\n"));
}

TEST(MetricsRegistry, ValuesAreExactUpTo53Bits) {
   Registry registry;
   Counter counter;
   counter.Inc((std::uint64_t{1} << 53U) - 1);
   const Registration registration = registry.registrationNew({{"a_total", "", &counter}});
   EXPECT_THAT(shown(registry), HasSubstr("\na_total 9007199254740991\n"));
}

TEST(MetricsRegistry, ShowsACounterOfManyThreadsAsAnyOther) {
   Registry registry;
   SharedCounter counter;
   Counter other;
   counter.Inc(3);
   const Registration registration = registry.registrationNew(
      {{"a_total", "A", &counter, {{"x", "1"}}}, {"a_total", "A", &other, {{"x", "2"}}}});
   EXPECT_EQ(shown(registry), "# HELP a_total A\n"
                              "# TYPE a_total counter\n"
                              "a_total{x=\"1\"} 3\n"
                              "a_total{x=\"2\"} 0\n" +
                                 ownMetrics(0, 0, 2));
}

TEST(MetricsRegistry, ShowsAHistogramWithBucketsThatAddUp) {
   Registry registry;
   Histogram histogram({10, 20});
   for (const std::uint64_t value : {5, 15, 16, 1000}) {
      histogram.observe(value);
   }
   const Registration registration =
      registry.registrationNew({{"sizes", "Sizes", &histogram, {{"bus", "3"}}}});
   EXPECT_EQ(shown(registry), "# HELP sizes Sizes\n"
                              "# TYPE sizes histogram\n"
                              "sizes_count{bus=\"3\"} 4\n"
                              "sizes_sum{bus=\"3\"} 1036\n"
                              "sizes_bucket{bus=\"3\",le=\"10\"} 1\n"
                              "sizes_bucket{bus=\"3\",le=\"20\"} 3\n"
                              "sizes_bucket{bus=\"3\",le=\"+Inf\"} 4\n" +
                                 ownMetrics(0, 0, 5));
}

TEST(MetricsRegistry, ShowsAHistogramsValuesInItsShownUnit) {
   Registry registry;
   Histogram histogram({50'000, 1'000'000'000}, 1'000'000'000);
   histogram.observe(500'000'000);
   const Registration registration =
      registry.registrationNew({{"transfer_seconds", "", &histogram}});
   const std::string page = shown(registry);
   EXPECT_THAT(page, HasSubstr("transfer_seconds_sum 0.5\n"));
   EXPECT_THAT(page, HasSubstr("transfer_seconds_bucket{le=\"1\"} 1\n"));
   EXPECT_THAT(page, testing::ContainsRegex("transfer_seconds_bucket.le=.(5e-05|0.00005)"));
}

TEST(MetricsRegistry, HistogramCountsForTheLimitWithAllItsSeries) {
   Registry registry(Registry::Limits{.series = 5});
   const Histogram histogram({1, 2});
   Counter counter;
   Registration whole = registry.registrationNew({{"h", "", &histogram}});
   EXPECT_TRUE(whole.isRegistered());
   EXPECT_FALSE(registry.registrationNew({{"a_total", "", &counter}}).isRegistered());
   whole = Registration();
   const Registration one = registry.registrationNew({{"a_total", "", &counter}});
   EXPECT_TRUE(one.isRegistered());
   EXPECT_FALSE(registry.registrationNew({{"h", "", &histogram}}).isRegistered());
   EXPECT_THAT(shown(registry), HasSubstr(ownMetrics(2, 0, 1)));
}

TEST(MetricsRegistry, HistogramAndCounterOfOneNameAreRefused) {
   const std::string reason = "metric a: it cannot be a counter and a histogram";
   Counter counter;
   const Histogram histogram({1});
   EXPECT_EQ(refusal({{"a", "", &counter, {{"x", "1"}}}, {"a", "", &histogram, {{"x", "2"}}}}),
             reason);
   EXPECT_EQ(refusal({{"a", "", &counter, {{"x", "2"}}}, {"a", "", &histogram, {{"x", "1"}}}}),
             reason);
   Registry registry;
   const Registration kept = registry.registrationNew({{"a", "", &histogram}});
   EXPECT_THROW(
      static_cast<void>(registry.registrationNew(
         {{"b_total", "", &counter}, {"a", "", &counter, {{"x", "1"}}}, {"c", "", &counter}})),
      std::invalid_argument);
   EXPECT_THAT(shown(registry), HasSubstr(ownMetrics(0, 0, 4)));
   EXPECT_THAT(shown(registry), Not(HasSubstr("b_total")));
}

TEST(MetricsRegistry, TheLabelOfBoundsIsTheHistogramsOwn) {
   Counter counter;
   const Histogram histogram({1});
   EXPECT_EQ(refusal({{"a", "", &counter}}, {{"le", "1"}}), "accepted");
   EXPECT_EQ(refusal({{"a", "", &histogram}}, {{"le", "1"}}),
             "metric a: the label le says the bounds of a histogram");
}

TEST(MetricsRegistry, LabelValuesAreEscaped) {
   Registry registry;
   Counter counter;
   const Registration registration =
      registry.registrationNew({{"a_total", "", &counter, {{"name", "q\"b\\n\nx 1\xff\x1b"}}}});
   EXPECT_THAT(shown(registry), HasSubstr("\na_total{name=\"q\\\"b\\\\n\\nx 1??\"} 0\n"));
}

TEST(MetricsRegistry, HelpStaysOnItsLine) {
   Registry registry;
   Counter counter;
   const Registration registration =
      registry.registrationNew({{"a_total", "one\ntwo \\ \xff", &counter}});
   EXPECT_THAT(shown(registry), HasSubstr("# HELP a_total one\\ntwo \\\\ ?\n# TYPE a_total "));
}

TEST(MetricsRegistry, LongLabelValuesAreCut) {
   Registry registry;
   Counter counter;
   const Registration registration = registry.registrationNew(
      {{"a_total", "", &counter}}, {{"x", std::string(128, 'x')}, {"y", std::string(129, 'y')}});
   EXPECT_THAT(shown(registry), HasSubstr("\na_total{x=\"" + std::string(128, 'x') + "\",y=\"" +
                                          std::string(125, 'y') + "...\"} 0\n"));
}

TEST(MetricsRegistry, LimitsAreTheProgramsToSet) {
   Registry registry(Registry::Limits{.labels = 1, .labelValueBytes = 5});
   Counter counter;
   const Registration registration =
      registry.registrationNew({{"a_total", "", &counter}}, {{"x", "123456"}});
   EXPECT_THAT(shown(registry), HasSubstr("\na_total{x=\"12...\"} 0\n"));
   EXPECT_THROW(static_cast<void>(
                   registry.registrationNew({{"b_total", "", &counter}}, {{"x", "1"}, {"y", "2"}})),
                std::invalid_argument);
   EXPECT_THROW(Registry(Registry::Limits{.labelValueBytes = 2}), std::invalid_argument);
}

TEST(MetricsRegistry, BadNamesAreRefusedByText) {
   Counter counter;
   EXPECT_EQ(refusal({{"a-b", "", &counter}}), "'a-b' is not a metric name");
   EXPECT_EQ(refusal({{"good", "", &counter}, {"", "", &counter}}), "'' is not a metric name");
   EXPECT_EQ(refusal({{"a", "", &counter, {{"b:c", ""}}}}), "metric a: 'b:c' is not a label name");
   EXPECT_EQ(refusal({{"a", "", &counter}}, {{"__b", ""}}), "metric a: '__b' is not a label name");
}

TEST(MetricsRegistry, ItsOwnNamesAreRefused) {
   Counter counter;
   EXPECT_EQ(refusal({{"tarn_metrics_series", "", &counter}}),
             "metric tarn_metrics_series: names that begin with tarn_metrics_ are the registry's");
}

TEST(MetricsRegistry, NullIsRefused) {
   EXPECT_EQ(refusal({{"a", "", static_cast<const Histogram*>(nullptr)}}),
             "metric a: there is none, but null");
   EXPECT_EQ(refusal({{"a", "", static_cast<const SharedCounter*>(nullptr)}}),
             "metric a: there is none, but null");
   EXPECT_EQ(refusal({{"a", "", nullptr}}), "metric a: there is none, but null");
}

TEST(MetricsRegistry, LabelGivenTwiceIsRefused) {
   Counter counter;
   EXPECT_EQ(refusal({{"a", "", &counter, {{"x", "1"}}}}, {{"x", "2"}}),
             "metric a: the label x is given twice");
}

TEST(MetricsRegistry, TooManyLabelsAreRefused) {
   Counter counter;
   std::vector<Label> labels;
   for (int i = 0; i < 8; ++i) {
      labels.push_back({"l" + std::to_string(i), "x"});
   }
   EXPECT_EQ(refusal({{"a", "", &counter}}, labels), "accepted");
   EXPECT_EQ(refusal({{"a", "", &counter, {{"m", "x"}}}}, labels),
             "metric a: 9 labels are more than 8");
}

TEST(MetricsRegistry, FullOneRefusesAWholeGroupAndCountsIt) {
   Registry registry(Registry::Limits{.series = 3});
   Counter counter;
   const Registration two =
      registry.registrationNew({{"a_total", "", &counter}, {"b_total", "", &counter}});
   EXPECT_FALSE(registry.registrationNew({{"c_total", "", &counter}, {"d_total", "", &counter}})
                   .isRegistered());
   EXPECT_THAT(shown(registry), HasSubstr(ownMetrics(1, 0, 2)));
   EXPECT_THAT(shown(registry), Not(HasSubstr("c_total")));

   Registration last = registry.registrationNew({{"c_total", "", &counter}});
   EXPECT_TRUE(last.isRegistered());
   EXPECT_FALSE(registry.registrationNew({{"d_total", "", &counter}}).isRegistered());
   last = Registration();
   EXPECT_TRUE(registry.registrationNew({{"d_total", "", &counter}}).isRegistered());
   EXPECT_THAT(shown(registry), HasSubstr(ownMetrics(2, 0, 2)));
}

TEST(MetricsRegistry, SeriesThatThereIsAlreadyIsRefusedAndCountedWhateverTheOrderOfItsLabels) {
   Registry registry;
   Counter first;
   Counter second;
   first.Inc();
   const Registration kept =
      registry.registrationNew({{"a_total", "", &first, {{"x", "1"}, {"y", "2"}}}});
   EXPECT_FALSE(registry.registrationNew({{"a_total", "", &second, {{"y", "2"}, {"x", "1"}}}})
                   .isRegistered());
   EXPECT_TRUE(registry.registrationNew({{"a_total", "", &second, {{"y", "2"}, {"x", "2"}}}})
                  .isRegistered());
   EXPECT_EQ(shown(registry), "# TYPE a_total counter\n"
                              "a_total{x=\"1\",y=\"2\"} 1\n" +
                                 ownMetrics(0, 1, 1));
}

TEST(MetricsRegistry, SeriesTwiceInOneGroupIsRefused) {
   Registry registry;
   Counter counter;
   EXPECT_FALSE(registry.registrationNew({{"a_total", "", &counter}, {"a_total", "", &counter}})
                   .isRegistered());
   EXPECT_EQ(shown(registry), ownMetrics(0, 1, 0));
}

TEST(MetricsRegistry, EmptyGroupIsRegisteredEvenInAFullOne) {
   Registry registry(Registry::Limits{.series = 0});
   EXPECT_TRUE(registry.registrationNew({}).isRegistered());
   EXPECT_EQ(shown(registry), ownMetrics(0, 0, 0));
}

TEST(MetricsRegistry, RefusalsAreTracedButNotAsFailures) {
   Platform::Trace::CaptureScope trace("platform/metrics=1");
   Registry registry(Registry::Limits{.series = 1});
   Counter counter;
   const Registration kept =
      registry.registrationNew({{"a_total", "", &counter, {{"x", "1"}, {"y", "2"}}}});
   EXPECT_THAT(trace.records(), IsEmpty());
   static_cast<void>(registry.registrationNew({{"b_total", "", &counter}}));
   EXPECT_THAT(trace.texts(), ElementsAre("b_total{} is refused: there are too many series"));
   trace.clear();

   Registry roomy;
   const Registration first =
      roomy.registrationNew({{"a_total", "", &counter, {{"x", "1"}, {"y", "2"}}}});
   static_cast<void>(roomy.registrationNew({{"a_total", "", &counter, {{"x", "1"}, {"y", "2"}}}}));
   EXPECT_THAT(trace.records(),
               ElementsAre(Platform::Trace::CaptureSink::Entry{
                  "platform/metrics", "registrationNew", 1,
                  "a_total{x=\"1\",y=\"2\"} is refused: there is one with the same name and "
                  "labels"}));
}

} // namespace
