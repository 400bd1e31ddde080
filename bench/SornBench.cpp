// What a register read through the access manager costs, from TransportMethod to the helper, above
// the two bare transfers that it consists of; what a request in flight takes of memory; and for how
// much of the time a bus that is slow has nothing to do.
//
// In real time, since the bus has a thread of its own.

#include <malloc.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "platform/hardware/SimulatedSornBackend.h"
#include "platform/hardware/SmbusTransfer.h"
#include "platform/hardware/SornManager.h"
#include "TarnRegFile/I2cSornTransportDescriptor.h"
#include "TarnRegFile/TransportMethod.h"

namespace {

using Platform::Ptr;

constexpr std::uint8_t deviceAddress = 0x50;
constexpr std::uint32_t registers = 256;
constexpr auto forEver = std::chrono::hours(1);
constexpr std::chrono::microseconds slow(500);

std::shared_ptr<Hardware::SimulatedI2cBus> simulatedBus(std::chrono::microseconds delay) {
   auto bus = std::make_shared<Hardware::SimulatedI2cBus>();
   auto device = std::make_shared<Hardware::SimulatedI2cDevice>(Hardware::SimulatedI2cKind::block);
   device->faults().delayIs(delay);
   bus->deviceIs(deviceAddress, std::move(device));
   return bus;
}

/// Counts results.
class Counting : public TarnRegFile::AsyncHelperBase {
public:
   void handleReadResult(const TarnRegFile::String&, TarnRegFile::RegAccessResult result,
                         std::uint32_t) override {
      ++told;
      failed += result == TarnRegFile::RegAccessResult::Success ? 0 : 1;
   }
   void handleWriteResult(const TarnRegFile::String&, TarnRegFile::RegAccessResult) override {}

   std::int64_t told = 0;
   std::int64_t failed = 0;
};

/// A device on a bus of an access manager.
class Device {
public:
   explicit Device(std::unique_ptr<Hardware::SornBackend> backend) {
      const auto model = Hardware::hardwareRegisterFileFactory("bench");
      for (std::uint32_t i = 0; i < registers; ++i) {
         Hardware::HardwareRegister record;
         record.name = name(i);
         record.address = 4 * i;
         record.width = 32;
         model->nameToRegMapIs(record.name, record);
         _names.push_back(record.name);
      }
      _method->fullInit(TarnRegFile::i2cSornTransportDescriptorFactory(
                           deviceAddress, _manager.busNew("bus", std::move(backend))),
                        TarnRegFile::TransportMethodRegFile(model));
      _method->asyncHelperIs(_helper);
   }

   void submit(std::int64_t count) {
      for (std::int64_t i = 0; i < count; ++i) {
         _method->regRead(_names[static_cast<std::size_t>(i) % registers]);
      }
      _submitted += count;
   }

   /// Until no more than `left` are in flight. False if one failed.
   bool wait(std::int64_t left = 0) {
      _loop.runUntil([this, left] { return _helper->told + left >= _submitted; }, forEver);
      return _helper->failed == 0;
   }

private:
   static std::string name(std::uint32_t i) {
      return "BLOCK" + std::to_string(i / 64) + "_REG" + std::to_string(i % 64);
   }

   Platform::EventLoop _loop;
   Hardware::SornManager _manager{_loop};
   std::vector<std::string> _names;
   Ptr<Counting> _helper = Platform::make<Counting>();
   Ptr<TarnRegFile::TransportMethod> _method = TarnRegFile::transportMethodFactory("bench");
   std::int64_t _submitted = 0;
};

void bareRead(Hardware::SimulatedI2cBus& bus) {
   i2c_smbus_data data = {};
   data.block[0] = 1;
   Hardware::smbusTransfer(bus, deviceAddress, I2C_SMBUS_WRITE, 0, I2C_SMBUS_I2C_BLOCK_DATA, &data);
   data.block[0] = 4;
   Hardware::smbusTransfer(bus, deviceAddress, I2C_SMBUS_READ, 0, I2C_SMBUS_I2C_BLOCK_DATA, &data);
   benchmark::DoNotOptimize(data);
}

void bareTransfers(benchmark::State& state) {
   const auto bus = simulatedBus({});
   for (auto _ : state) {
      bareRead(*bus);
   }
}

/// So many are submitted, and then waited for.
void readByName(benchmark::State& state) {
   Device device(std::make_unique<Hardware::SimulatedSornBackend>(simulatedBus({})));
   const std::int64_t count = state.range(0);
   while (state.KeepRunningBatch(count)) {
      device.submit(count);
      if (!device.wait()) {
         state.SkipWithError("a read failed");
         break;
      }
   }
   state.SetItemsProcessed(state.iterations());
}

void bareOnSlowBus(benchmark::State& state) {
   const auto bus = simulatedBus(slow);
   for (auto _ : state) {
      bareRead(*bus);
   }
}

/// A backend that knows for how long it was at work, and since when.
class Timed : public Hardware::SimulatedSornBackend {
public:
   using Clock = std::chrono::steady_clock;
   struct Times {
      std::atomic<Clock::rep> busy = 0;
      std::atomic<Clock::rep> first = 0;
      std::atomic<Clock::rep> last = 0;
   };

   Timed(std::shared_ptr<Hardware::SimulatedI2cBus> bus, std::shared_ptr<Times> times)
      : SimulatedSornBackend(std::move(bus)), _times(std::move(times)) {}

   int begin() noexcept override {
      _began = Clock::now();
      if (_times->first == 0) {
         _times->first = _began.time_since_epoch().count();
      }
      return SimulatedSornBackend::begin();
   }
   void end() noexcept override {
      SimulatedSornBackend::end();
      const Clock::time_point now = Clock::now();
      _times->busy += (now - _began).count();
      _times->last = now.time_since_epoch().count();
   }

private:
   const std::shared_ptr<Times> _times;
   Clock::time_point _began;
};

void readOnSlowBus(benchmark::State& state) {
   const auto times = std::make_shared<Timed::Times>();
   Device device(std::make_unique<Timed>(simulatedBus(slow), times));
   // As a client does that asks for another when it has been told of one.
   constexpr std::int64_t inFlight = 16;
   device.submit(inFlight);
   for (auto _ : state) {
      device.submit(1);
      device.wait(inFlight);
   }
   device.wait();
   state.counters["busy"] =
      static_cast<double>(times->busy) / static_cast<double>(times->last - times->first);
}

/// Stops at the first operation until it is let go.
class Held : public Hardware::SimulatedSornBackend {
public:
   Held(std::shared_ptr<Hardware::SimulatedI2cBus> bus, std::shared_ptr<std::mutex> gate)
      : SimulatedSornBackend(std::move(bus)), _gate(std::move(gate)) {}
   int begin() noexcept override {
      const std::scoped_lock wait(*_gate);
      return SimulatedSornBackend::begin();
   }

private:
   const std::shared_ptr<std::mutex> _gate;
};

void memoryInFlight(benchmark::State& state) {
   const auto gate = std::make_shared<std::mutex>();
   Device device(std::make_unique<Held>(simulatedBus({}), gate));
   const std::int64_t count = state.range(0);
   for (auto _ : state) {
      gate->lock();
      const std::size_t before = ::mallinfo2().uordblks;
      device.submit(count);
      state.counters["bytesEach"] =
         static_cast<double>(::mallinfo2().uordblks - before) / static_cast<double>(count);
      gate->unlock();
      device.wait();
   }
}

BENCHMARK(bareTransfers)->UseRealTime();
BENCHMARK(readByName)->Arg(1)->Arg(100)->Arg(1'000)->Arg(10'000)->UseRealTime();
BENCHMARK(bareOnSlowBus)->UseRealTime();
BENCHMARK(readOnSlowBus)->UseRealTime();
BENCHMARK(memoryInFlight)->Arg(10'000)->UseRealTime();

} // namespace
