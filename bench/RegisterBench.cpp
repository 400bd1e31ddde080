// The register path by name on the mock, and loading of register lists, each beside a baseline
// measured in the same run: a bare hash look-up, and a naive split and insert.

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>

#include "TarnRegFile/TransportMethod.h"

namespace {

/// A register list of `count` lines in a file of its own, and its names in random order.
class SampleList {
public:
   explicit SampleList(std::size_t count)
      : _path(std::filesystem::temp_directory_path() /
              ("tarn-bench-" + std::to_string(::getpid()) + "-" + std::to_string(count) + ".csv")) {
      std::ofstream out(_path);
      out << "number,name,type,writeable,width\n";
      for (std::size_t i = 0; i < count; ++i) {
         names.push_back("BLOCK" + std::to_string(i / 64) + "_REG" + std::to_string(i % 64));
         out << i << ',' << names.back() << ",status,true,32\n";
      }
      std::shuffle(names.begin(), names.end(), std::mt19937(1));
   }
   ~SampleList() { std::filesystem::remove(_path); }

   SampleList(const SampleList&) = delete;
   SampleList& operator=(const SampleList&) = delete;

   std::string path() const { return _path.string(); }

   std::vector<std::string> names;

private:
   std::filesystem::path _path;
};

const SampleList& sampleList(std::size_t count) {
   static std::map<std::size_t, std::unique_ptr<SampleList>> lists;
   auto& list = lists[count];
   if (!list) {
      list = std::make_unique<SampleList>(count);
   }
   return *list;
}

/// A mock device over the list, every register touched once.
TarnRegFile::Ptr<TarnRegFile::TransportMethod> openDevice(const SampleList& list) {
   auto device = TarnRegFile::transportMethodFactory("bench");
   device->init(TarnRegFile::mockTransportDescriptorFactory(), list.path());
   for (const std::string& name : list.names) {
      device->regWrite(name, 1);
   }
   return device;
}

void bareHashFind(benchmark::State& state) {
   const SampleList& list = sampleList(static_cast<std::size_t>(state.range(0)));
   absl::flat_hash_map<std::string, std::uint32_t> map;
   for (const std::string& name : list.names) {
      map.emplace(name, 1);
   }
   std::size_t i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(map.find(list.names[i])->second);
      i = i + 1 == list.names.size() ? 0 : i + 1;
   }
}

void readByName(benchmark::State& state) {
   const SampleList& list = sampleList(static_cast<std::size_t>(state.range(0)));
   const auto device = openDevice(list);
   std::size_t i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(device->regRead(list.names[i]));
      i = i + 1 == list.names.size() ? 0 : i + 1;
   }
}

std::vector<TarnRegFile::RegisterHandle> handles(const TarnRegFile::TransportMethod& device,
                                                 const SampleList& list) {
   std::vector<TarnRegFile::RegisterHandle> handles;
   for (const std::string& name : list.names) {
      handles.push_back(device.regHandle(name));
   }
   return handles;
}

void readByHandle(benchmark::State& state) {
   const SampleList& list = sampleList(static_cast<std::size_t>(state.range(0)));
   const auto device = openDevice(list);
   const auto registers = handles(*device, list);
   std::size_t i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(device->regReadByHandle(registers[i]));
      i = i + 1 == registers.size() ? 0 : i + 1;
   }
}

void writeByHandle(benchmark::State& state) {
   const SampleList& list = sampleList(static_cast<std::size_t>(state.range(0)));
   const auto device = openDevice(list);
   const auto registers = handles(*device, list);
   std::size_t i = 0;
   std::uint32_t value = 0;
   for (auto _ : state) {
      device->regWriteByHandle(registers[i], ++value);
      i = i + 1 == registers.size() ? 0 : i + 1;
   }
}

void writeByName(benchmark::State& state) {
   const SampleList& list = sampleList(static_cast<std::size_t>(state.range(0)));
   const auto device = openDevice(list);
   std::size_t i = 0;
   std::uint32_t value = 0;
   for (auto _ : state) {
      device->regWrite(list.names[i], ++value);
      i = i + 1 == list.names.size() ? 0 : i + 1;
   }
}

/// What a first attempt would do: split each line into strings, insert into a map.
void naiveLoad(benchmark::State& state) {
   const SampleList& list = sampleList(static_cast<std::size_t>(state.range(0)));
   for (auto _ : state) {
      std::ifstream in(list.path());
      std::unordered_map<std::string, std::vector<std::string>> byName;
      std::unordered_map<std::uint32_t, std::string> byAddress;
      std::string line;
      std::getline(in, line);
      while (std::getline(in, line)) {
         std::vector<std::string> fields;
         std::istringstream split(line);
         for (std::string field; std::getline(split, field, ',');) {
            fields.push_back(field);
         }
         byAddress.emplace(static_cast<std::uint32_t>(std::stoul(fields[0])) * 4, fields[1]);
         byName.emplace(fields[1], std::move(fields));
      }
      benchmark::DoNotOptimize(byName.size() + byAddress.size());
   }
}

void load(benchmark::State& state) {
   const SampleList& list = sampleList(static_cast<std::size_t>(state.range(0)));
   const auto helper = TarnRegFile::regFileHelperFactory("bench");
   for (auto _ : state) {
      benchmark::DoNotOptimize(helper->parseCsv(list.path(), 4));
   }
}

BENCHMARK(bareHashFind)->Arg(100)->Arg(10000)->Arg(100000);
BENCHMARK(readByName)->Arg(100)->Arg(10000)->Arg(100000);
BENCHMARK(writeByName)->Arg(100)->Arg(10000)->Arg(100000);
BENCHMARK(readByHandle)->Arg(100)->Arg(10000)->Arg(100000);
BENCHMARK(writeByHandle)->Arg(100)->Arg(10000)->Arg(100000);
BENCHMARK(naiveLoad)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(load)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
