// A register write over SPI, which is the queueing of a request, beside a bare push of the same
// three bytes to a queue. What the device does with them is not measured.

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "platform/hardware/SpiHwAccess.h"
#include "TarnRegFile/SpiTransportDescriptor.h"
#include "TarnRegFile/TransportMethod.h"

namespace {

constexpr std::size_t registers = 256;
constexpr std::size_t queued = 16384; // between two times that the queue is emptied

std::vector<std::string> names() {
   std::vector<std::string> made;
   for (std::size_t i = 0; i < registers; ++i) {
      made.push_back("BLOCK" + std::to_string(i / 64) + "_REG" + std::to_string(i % 64));
   }
   return made;
}

void bareDequePush(benchmark::State& state) {
   std::deque<std::array<std::uint8_t, 3>> queue;
   std::uint32_t i = 0;
   for (auto _ : state) {
      queue.push_back({static_cast<std::uint8_t>(i), static_cast<std::uint8_t>(i >> 8),
                       static_cast<std::uint8_t>(i)});
      benchmark::DoNotOptimize(queue.back());
      if (++i % queued == 0) {
         state.PauseTiming();
         queue.clear();
         state.ResumeTiming();
      }
   }
}

void spiWriteByName(benchmark::State& state) {
   const std::vector<std::string> list = names();
   const auto model = Hardware::hardwareRegisterFileFactory("bench");
   for (std::size_t i = 0; i < registers; ++i) {
      Hardware::HardwareRegister record;
      record.name = list[i];
      record.address = static_cast<std::uint32_t>(i);
      record.width = 16;
      model->nameToRegMapIs(list[i], record);
   }
   const auto handle = Hardware::spiHwAccessFactory(
      "bench", Platform::make<Hardware::SimulatedSpiDevice>("simulated"));
   handle->readyIs(true);
   const auto device = TarnRegFile::transportMethodFactory("bench");
   device->fullInit(TarnRegFile::spiTransportDescriptorFactory(handle),
                    TarnRegFile::TransportMethodRegFile(model));
   std::uint32_t i = 0;
   for (auto _ : state) {
      device->regWrite(list[i % registers], i & 0xFFFF);
      if (++i % queued == 0) {
         state.PauseTiming();
         handle->drain();
         state.ResumeTiming();
      }
   }
   handle->drain();
}

BENCHMARK(bareDequePush);
BENCHMARK(spiWriteByName);

} // namespace

BENCHMARK_MAIN();
