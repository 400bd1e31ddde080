// What a trace point costs: nothing (the loop itself), switched off, and switched on into a sink
// that does nothing.

#include <cstdint>
#include <memory>

#include <benchmark/benchmark.h>

#include "platform/trace/Sink.h"
#include "platform/trace/Trace.h"

namespace Trace = Platform::Trace;

namespace {

TARN_TRACE_SOURCE(traceSource, "bench/trace");

class NullSink : public Trace::Sink {
public:
   void write(const Trace::Record& record) override {
      benchmark::DoNotOptimize(record.text.data());
   }
};

void Baseline_EmptyLoop(benchmark::State& state) {
   std::uint32_t value = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(++value);
   }
}
BENCHMARK(Baseline_EmptyLoop);

void Trace_Disabled(benchmark::State& state) {
   Trace::levelsAre("bench/trace=7");
   std::uint32_t value = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(++value);
      TARN_TRACE(traceSource, 8, "run", "{} is {:#x}", "ctrl", value);
   }
}
BENCHMARK(Trace_Disabled);

void Trace_EnabledIntoNullSink(benchmark::State& state) {
   Trace::levelsAre("bench/trace=8");
   const std::shared_ptr<Trace::Sink> previous = Trace::sinkIs(std::make_shared<NullSink>());
   std::uint32_t value = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(++value);
      TARN_TRACE(traceSource, 8, "run", "{} is {:#x}", "ctrl", value);
   }
   Trace::sinkIs(previous);
}
BENCHMARK(Trace_EnabledIntoNullSink);

} // namespace
