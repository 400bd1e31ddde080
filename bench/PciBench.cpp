// Registers of a memory-mapped device by name, beside the bare volatile loads that they come down
// to. The device is an ordinary file: what a real one adds, a microsecond or so for each read, is
// in both.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "platform/hardware/PciHwAccessImpl.h"
#include "TarnRegFile/PciTransportDescriptor.h"
#include "TarnRegFile/TransportMethod.h"

namespace {

constexpr std::uint32_t registers = 1000;
constexpr std::size_t bytes = registers * sizeof(std::uint32_t);

/// A register space, in memory.
class Space {
public:
   explicit Space(std::uint32_t count = registers)
      : _bytes(count * sizeof(std::uint32_t)), _fd(::memfd_create("bench", MFD_CLOEXEC)) {
      if (_fd < 0 || ::ftruncate(_fd, static_cast<off_t>(_bytes)) != 0) {
         std::abort();
      }
      _words = static_cast<volatile std::uint32_t*>(
         ::mmap(nullptr, _bytes, PROT_READ | PROT_WRITE, MAP_SHARED, _fd, 0));
      if (_words == MAP_FAILED) {
         std::abort();
      }
   }
   ~Space() {
      ::munmap(const_cast<std::uint32_t*>(_words), _bytes);
      ::close(_fd);
   }
   Space(const Space&) = delete;
   Space& operator=(const Space&) = delete;

   std::string path() const { return "/proc/self/fd/" + std::to_string(_fd); }
   volatile std::uint32_t* words() const { return _words; }

private:
   const std::size_t _bytes;
   const int _fd;
   volatile std::uint32_t* _words;
};

/// The space as a device, and its register names.
class Device {
public:
   explicit Device(bool guarded, std::uint32_t count = registers) : _space(count) {
      const auto model = Hardware::hardwareRegisterFileFactory("bench");
      model->addrBlockSizeIs(4);
      for (std::uint32_t i = 0; i < count; ++i) {
         Hardware::HardwareRegister record;
         record.name = "BLOCK" + std::to_string(i / 64) + "_REG" + std::to_string(i % 64);
         record.address = 4 * i;
         record.width = 32;
         record.arraySize = 1;
         model->nameToRegMapIs(record.name, record);
         names.push_back(record.name);
      }
      const auto access = Hardware::pciHwAccessImplFactory("bench", _space.path());
      access->busErrorFlagIs(!guarded);
      method->fullInit(TarnRegFile::pciTransportDescriptorFactory(access),
                       TarnRegFile::TransportMethodRegFile(model));
   }

   std::vector<std::string> names;
   TarnRegFile::Ptr<TarnRegFile::TransportMethod> method =
      TarnRegFile::transportMethodFactory("bench");

private:
   Space _space;
};

void rawLoad(benchmark::State& state) {
   const Space space;
   std::size_t i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(space.words()[i]);
      i = i + 1 == registers ? 0 : i + 1;
   }
}

void readByName(benchmark::State& state, bool guarded) {
   const Device device(guarded);
   std::size_t i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(device.method->regRead(device.names[i]));
      i = i + 1 == registers ? 0 : i + 1;
   }
}

void readByHandle(benchmark::State& state, bool guarded) {
   const Device device(guarded);
   std::vector<TarnRegFile::RegisterHandle> handles;
   for (const std::string& name : device.names) {
      handles.push_back(device.method->regHandle(name));
   }
   std::size_t i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(device.method->regReadByHandle(handles[i]));
      i = i + 1 == registers ? 0 : i + 1;
   }
}

void readByNameOf(benchmark::State& state) {
   const Device device(true, static_cast<std::uint32_t>(state.range(0)));
   std::size_t i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(device.method->regRead(device.names[i]));
      i = i + 1 == device.names.size() ? 0 : i + 1;
   }
}

void rawLoads(benchmark::State& state) {
   const Space space;
   TarnRegFile::Bytes buffer;
   for (auto _ : state) {
      buffer.assign(bytes, 0);
      for (std::uint32_t i = 0; i < registers; ++i) {
         const std::uint32_t word = space.words()[i];
         std::memcpy(buffer.data() + 4 * i, &word, sizeof(word));
      }
      benchmark::DoNotOptimize(buffer.data());
   }
}

void readBlock(benchmark::State& state, bool guarded) {
   const Device device(guarded);
   for (auto _ : state) {
      benchmark::DoNotOptimize(device.method->regReadArray(device.names[0], registers).data());
   }
}

BENCHMARK(rawLoad);
BENCHMARK_CAPTURE(readByName, guarded, true);
BENCHMARK_CAPTURE(readByName, plain, false);
BENCHMARK_CAPTURE(readByHandle, guarded, true);
BENCHMARK(readByNameOf)->Arg(100)->Arg(10000)->Arg(100000);
BENCHMARK(rawLoads);
BENCHMARK_CAPTURE(readBlock, guarded, true);
BENCHMARK_CAPTURE(readBlock, plain, false);

} // namespace

BENCHMARK_MAIN();
