// What a client of another process's registers pays for a look at one: by name and by address.

#include <stdlib.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "platform/entity/EventLoop.h"
#include "platform/tables/CollectionControl.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/ShadowClient.h"
#include "TarnRegFile/ShadowRegisterStatus.h"

namespace {

using namespace TarnRegFile::Sable;
using Platform::Tables::TableDirectory;
using Platform::Tables::TableRole;
using Platform::Tables::TableService;

/// A directory in shared memory that is removed at the end.
class Directory {
public:
   Directory() {
      if (!::mkdtemp(_path.data())) {
         std::abort();
      }
   }
   ~Directory() { std::filesystem::remove_all(_path); }
   Directory(const Directory&) = delete;
   Directory& operator=(const Directory&) = delete;
   const std::string& path() const noexcept { return _path; }

private:
   std::string _path = "/dev/shm/tarn-bench-XXXXXX";
};

/// A core of so many registers, all of which hold something, and a client of it.
struct Core {
   explicit Core(std::int64_t count)
      : service(loop, TableDirectory(directory.path())),
        control(Platform::Tables::collectionControlFactory(service, {.role = TableRole::writer})),
        status(shadowRegisterStatusFactory("core/status")),
        registers(Hardware::hardwareRegisterFileFactory("core")) {
      status->regMapControlIs(control);
      control->mount();
      for (std::uint32_t i = 0; i < static_cast<std::uint32_t>(count); ++i) {
         Hardware::HardwareRegister record;
         record.name = "PORT_STATISTICS_COUNTER[" + std::to_string(i) + "]";
         record.address = 4 * i;
         record.width = 32;
         registers->nameToRegMapIs(record.name, record);
         registers->addrToNameMapIs(record.address, record.name);
         names.push_back(record.name);
         status->regMapIs(CoreRegister(CoreRegisterKey(record.address), i));
      }
   }
   ~Core() { control->unmount(); }
   Core(const Core&) = delete;
   Core& operator=(const Core&) = delete;

   const Directory directory;
   Platform::EventLoop loop;
   TableService service;
   Platform::Ptr<Platform::Tables::CollectionControl> control;
   Platform::Ptr<ShadowRegisterStatus> status;
   Platform::Ptr<Hardware::HardwareRegisterFile> registers;
   std::vector<std::string> names;
};

void readByName(benchmark::State& state) {
   Core core(state.range(0));
   const ShadowClient client(core.loop, core.service, "core", core.registers);
   std::size_t next = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(client.read(core.names[next]));
      next = next + 1 == core.names.size() ? 0 : next + 1;
   }
}
BENCHMARK(readByName)->Arg(100)->Arg(1000)->Arg(5000);

void readByAddress(benchmark::State& state) {
   Core core(state.range(0));
   const ShadowClient client(core.loop, core.service, "core", core.registers);
   std::uint32_t next = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(client.read(4 * next));
      next = next + 1 == core.names.size() ? 0 : next + 1;
   }
}
BENCHMARK(readByAddress)->Arg(1000);

} // namespace
