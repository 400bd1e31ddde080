// What shadow registers cost their owner, and the way of a wish from a client's process to the
// hardware: filling the shadow of a core of so many registers, one wish, many wishes, and looking
// at a register. Beside each the bare steps that it cannot do without.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>

#include "agent/CoreAgent.h"
#include "platform/entity/EventLoop.h"
#include "platform/hardware/PciHwAccessImpl.h"
#include "platform/metrics/Registry.h"
#include "platform/tables/CollectionControl.h"
#include "platform/tables/Table.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/PciTransportDescriptor.h"
#include "TarnRegFile/SableCore.h"
#include "TarnRegFile/SableCoreSm.h"
#include "TarnRegFile/ShadowClient.h"
#include "TarnRegFile/TransportMethod.h"

namespace {

using namespace TarnRegFile::Sable;
using Platform::Ptr;
using Platform::Tables::TableDirectory;
using Platform::Tables::TableRole;
using Platform::Tables::TableService;
using Clock = std::chrono::steady_clock;

[[noreturn]] void fail(const char* what) {
   std::fprintf(stderr, "bench: %s\n", what);
   std::abort();
}

/// A directory in shared memory that is removed at the end by who made it.
class Directory {
public:
   Directory() {
      if (!::mkdtemp(_path.data())) {
         fail("mkdtemp");
      }
   }
   ~Directory() { std::filesystem::remove_all(_path); }
   Directory(const Directory&) = delete;
   Directory& operator=(const Directory&) = delete;
   const std::string& path() const noexcept { return _path; }

private:
   std::string _path = "/dev/shm/tarn-bench-XXXXXX";
};

Ptr<Hardware::HardwareRegisterFile> registersOf(std::int64_t count) {
   auto registers = Hardware::hardwareRegisterFileFactory("core");
   registers->addrBlockSizeIs(4);
   for (std::uint32_t i = 0; i < static_cast<std::uint32_t>(count); ++i) {
      Hardware::HardwareRegister record;
      record.name = "PORT_STATISTICS_COUNTER[" + std::to_string(i) + "]";
      record.address = 4 * i;
      record.width = 32;
      record.accessWidth = 32;
      record.writable = true;
      registers->nameToRegMapIs(record.name, record);
      registers->addrToNameMapIs(record.address, record.name);
   }
   return registers;
}

std::vector<std::string> namesOf(std::int64_t count) {
   std::vector<std::string> names;
   for (std::int64_t i = 0; i < count; ++i) {
      names.push_back("PORT_STATISTICS_COUNTER[" + std::to_string(i) + "]");
   }
   return names;
}

/// Seconds that this thread has had the processor: others who want it too do not count.
double processorTime() {
   timespec now{};
   ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
   return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// A core on the mock, and its tables.
struct Owner {
   explicit Owner(std::int64_t count)
      : service(loop, TableDirectory(directory.path())), registers(registersOf(count)),
        names(namesOf(count)), config(shadowRegisterConfigFactory("core/config")),
        status(shadowRegisterStatusFactory("core/status")),
        model(sableCoreFactory("core", registers, TarnRegFile::mockTransportDescriptorFactory())) {
      for (auto* const control : {&configControl, &statusControl}) {
         *control =
            Platform::Tables::collectionControlFactory(service, {.role = TableRole::writer});
      }
      config->regMapControlIs(configControl);
      configControl->mount();
      status->regMapControlIs(statusControl);
      statusControl->mount();
      model->generationIs({0, false});
   }
   ~Owner() {
      configControl->unmount();
      statusControl->unmount();
   }
   Owner(const Owner&) = delete;
   Owner& operator=(const Owner&) = delete;

   const Directory directory;
   Platform::EventLoop loop;
   TableService service;
   Ptr<Platform::Tables::CollectionControl> configControl;
   Ptr<Platform::Tables::CollectionControl> statusControl;
   Ptr<Hardware::HardwareRegisterFile> registers;
   std::vector<std::string> names;
   Ptr<ShadowRegisterConfig> config;
   Ptr<ShadowRegisterStatus> status;
   Ptr<SableCoreBase> model;
};

/// The owner of a table that wants to know nothing of it.
struct Nobody : Platform::Tables::Table<CoreRegister>::Owner {
   virtual ~Nobody() = default;
   void tableChanged(const CoreRegisterKey&) override {}
   void tableMountStatusChanged() override {}
   void tableQuiescedChanged(bool) override {}
};

class Core : public CoreSmBase {
public:
   using CoreSmBase::CoreSmBase;
   void doOnReady(bool) override {}
};

// From a valid generation to its being ready, the table of status being empty at first.
void initialSync(benchmark::State& state) {
   Owner owner(state.range(0));
   const auto core = Platform::make<Core>(owner.model, owner.config, owner.status);
   std::uint32_t generation = 0;
   for (auto _ : state) {
      owner.model->generationIs({generation, false});
      owner.status->regMapDelAll();
      const double begin = processorTime();
      owner.model->generationIs({++generation, true});
      state.SetIterationTime(processorTime() - begin);
      if (!core->ready()) {
         fail("the core is not ready");
      }
   }
   core->teardown();
}
BENCHMARK(initialSync)
   ->Arg(1000)
   ->Arg(10000)
   ->Arg(100000)
   ->UseManualTime()
   ->Unit(benchmark::kMillisecond);

// The same as the agent has it, which taps every result.
void initialSyncByAgent(benchmark::State& state) {
   const Directory directory;
   Platform::EventLoop loop;
   TableService service(loop, TableDirectory(directory.path()));
   Platform::Metrics::Registry registry;
   const auto registers = registersOf(state.range(0));
   Agent::Settings settings;
   settings.checkInterval = {};
   double began = 0;
   Agent::CoreAgent agent(
      loop, service,
      {.name = "core",
       .registers = registers,
       .descriptor =
          [&] {
             began = processorTime(); // once for the probe, and once for the generation
             return TarnRegFile::mockTransportDescriptorFactory();
          },
       .reason = {},
       .alive = {}},
      settings, registry);
   for (auto _ : state) {
      if (agent.state().generation != 0) {
         agent.renew();
      }
      double took = 0;
      loop.runUntil(
         [&] {
            took = processorTime() - began;
            return agent.state().ready;
         },
         std::chrono::minutes(1));
      state.SetIterationTime(took);
   }
}
BENCHMARK(initialSyncByAgent)
   ->Arg(1000)
   ->Arg(10000)
   ->Arg(100000)
   ->UseManualTime()
   ->Unit(benchmark::kMillisecond);

// The baseline: so many reads of the mock, each put into a table.
void bareReadsAndPuts(benchmark::State& state) {
   Owner owner(state.range(0));
   const auto device = TarnRegFile::transportMethodFactory("core");
   device->fullInit(TarnRegFile::mockTransportDescriptorFactory(),
                    TarnRegFile::TransportMethodRegFile(owner.registers));
   Nobody nobody;
   Platform::Tables::Table<CoreRegister> table("core/status", nobody);
   table.mount(owner.service, {.role = TableRole::writer});
   for (auto _ : state) {
      owner.status->regMapDelAll();
      const double begin = processorTime();
      std::uint32_t address = 0;
      for (const std::string& name : owner.names) {
         table.put(CoreRegister(CoreRegisterKey(address), device->regRead(name)));
         address += 4;
      }
      state.SetIterationTime(processorTime() - begin);
   }
}
BENCHMARK(bareReadsAndPuts)
   ->Arg(1000)
   ->Arg(10000)
   ->Arg(100000)
   ->UseManualTime()
   ->Unit(benchmark::kMillisecond);

// -- a look at a register ------------------------------------------------------------------------

void ownerReadByName(benchmark::State& state) {
   Owner owner(state.range(0));
   const auto core = Platform::make<Core>(owner.model, owner.config, owner.status);
   owner.model->generationIs({1, true});
   std::size_t next = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(core->regRead(owner.names[next]));
      next = next + 1 == owner.names.size() ? 0 : next + 1;
   }
   core->teardown();
}
BENCHMARK(ownerReadByName)->Arg(1000)->Arg(10000)->Arg(100000);

void clientReadByName(benchmark::State& state) {
   Owner owner(state.range(0));
   const auto core = Platform::make<Core>(owner.model, owner.config, owner.status);
   owner.model->generationIs({1, true});
   const ShadowClient client(owner.loop, owner.service, "core", owner.registers);
   std::size_t next = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(client.read(owner.names[next]));
      next = next + 1 == owner.names.size() ? 0 : next + 1;
   }
   core->teardown();
}
BENCHMARK(clientReadByName)->Arg(1000)->Arg(10000);

// The baseline: where the name's address is, and what the table has for it.
void bareFindAndGet(benchmark::State& state) {
   Owner owner(state.range(0));
   const auto core = Platform::make<Core>(owner.model, owner.config, owner.status);
   owner.model->generationIs({1, true});
   absl::flat_hash_map<std::string, std::uint32_t> addresses;
   for (const std::string& name : owner.names) {
      addresses.emplace(name, static_cast<std::uint32_t>(4 * addresses.size()));
   }
   const Platform::Tables::TableMount table(TableDirectory(owner.directory.path()), "core/status",
                                            {});
   std::vector<std::uint64_t> words(table.recordWords());
   std::size_t next = 0;
   for (auto _ : state) {
      std::array<std::uint8_t, CoreRegisterKey::serializedLen> key{};
      CoreRegisterKey(addresses.find(owner.names[next])->second).serialize(key.data());
      benchmark::DoNotOptimize(table.get(key, words));
      next = next + 1 == owner.names.size() ? 0 : next + 1;
   }
   core->teardown();
}
BENCHMARK(bareFindAndGet)->Arg(1000)->Arg(10000)->Arg(100000);

// -- from a client's process to the hardware -----------------------------------------------------

/// The agent in a process of its own, over a file that is mapped here as well.
class Agency {
public:
   explicit Agency(std::int64_t count)
      : _count(count), _path(_directory.path() + "/hardware"),
        _service(_loop, TableDirectory(_directory.path() + "/tables")),
        registers(registersOf(count)), names(namesOf(count)) {
      const int fd = ::open(_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
      if (fd < 0 || ::ftruncate(fd, 4 * count) != 0) {
         fail("hardware");
      }
      void* const at = ::mmap(nullptr, _bytes(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      if (at == MAP_FAILED) {
         fail("mmap");
      }
      _words = static_cast<std::uint32_t*>(at);
      ::close(fd);
      _pid = ::fork();
      if (_pid == 0) {
         ::prctl(PR_SET_PDEATHSIG, SIGKILL);
         _serve();
         ::_exit(0);
      }
      client.emplace(_loop, _service, "core", registers);
      _loop.runUntil(
         [this] { return client->value(4 * (static_cast<std::uint32_t>(_count) - 1)).has_value(); },
         std::chrono::minutes(1));
      ::usleep(50'000); // so that it is ready, and asleep
   }
   ~Agency() {
      ::kill(_pid, SIGKILL);
      ::waitpid(_pid, nullptr, 0);
      ::munmap(_words, _bytes());
   }
   Agency(const Agency&) = delete;
   Agency& operator=(const Agency&) = delete;

   std::uint32_t held(std::size_t number) const {
      return __atomic_load_n(_words + number, __ATOMIC_ACQUIRE);
   }

private:
   std::size_t _bytes() const { return 4 * static_cast<std::size_t>(_count); }

   void _serve() const {
      Platform::EventLoop loop;
      TableService service(loop, TableDirectory(_directory.path() + "/tables"));
      Platform::Metrics::Registry registry;
      Agent::Settings settings;
      settings.checkInterval = {};
      const Agent::CoreAgent agent(loop, service,
                                   {.name = "core",
                                    .registers = registersOf(_count),
                                    .descriptor =
                                       [this] {
                                          return TarnRegFile::pciTransportDescriptorFactory(
                                             Hardware::pciHwAccessImplFactory(_path, _path));
                                       },
                                    .reason = {},
                                    .alive = {}},
                                   settings, registry);
      loop.run();
   }

   const std::int64_t _count;
   const Directory _directory;
   const std::string _path;
   Platform::EventLoop _loop;
   TableService _service;
   std::uint32_t* _words = nullptr;
   pid_t _pid = 0;

public:
   Ptr<Hardware::HardwareRegisterFile> registers;
   std::vector<std::string> names;
   std::optional<ShadowClient> client;
};

/// The median of many times, each of `once`, after which the other side is let go to sleep.
template <typename Once>
double medianOf(const Once& once) {
   std::array<double, 101> times{};
   for (double& each : times) {
      const auto begin = Clock::now();
      once();
      each = std::chrono::duration<double>(Clock::now() - begin).count();
      const auto asleep = Clock::now() + std::chrono::microseconds(100);
      while (Clock::now() < asleep) {
      }
   }
   std::nth_element(times.begin(), times.begin() + times.size() / 2, times.end());
   return times[times.size() / 2];
}

void wishToBus(benchmark::State& state) {
   Agency agency(1000);
   std::uint32_t value = 0;
   for (auto _ : state) {
      state.SetIterationTime(medianOf([&] {
         agency.client->wishIs(agency.names[7], ++value);
         while (agency.held(7) != value) {
         }
      }));
   }
}
BENCHMARK(wishToBus)->Iterations(5)->UseManualTime()->Unit(benchmark::kMicrosecond);

/// Memory that both processes have.
template <typename T>
class Shared {
public:
   Shared()
      : _object(new (::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                            -1, 0)) T()) {}
   ~Shared() { ::munmap(_object, sizeof(T)); }
   Shared(const Shared&) = delete;
   Shared& operator=(const Shared&) = delete;
   T* operator->() const noexcept { return _object; }

private:
   T* const _object;
};

// The baseline: a number through a pipe to a process that sleeps in it, which stores it.
void pipeToStore(benchmark::State& state) {
   const Shared<std::atomic<std::uint32_t>> seen;
   std::array<int, 2> ends{};
   if (::pipe(ends.data()) != 0) {
      fail("pipe");
   }
   const pid_t pid = ::fork();
   if (pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (std::uint32_t number = 0; ::read(ends[0], &number, sizeof number) == sizeof number;) {
         seen->store(number);
      }
      ::_exit(0);
   }
   std::uint32_t value = 0;
   for (auto _ : state) {
      state.SetIterationTime(medianOf([&] {
         ++value;
         if (::write(ends[1], &value, sizeof value) != sizeof value) {
            fail("write");
         }
         while (seen->load(std::memory_order_relaxed) != value) {
         }
      }));
   }
   ::kill(pid, SIGKILL);
   ::waitpid(pid, nullptr, 0);
   ::close(ends[0]);
   ::close(ends[1]);
}
BENCHMARK(pipeToStore)->Iterations(5)->UseManualTime()->Unit(benchmark::kMicrosecond);

constexpr std::uint32_t burst = 100'000;

// A burst of wishes for so many registers, until all of them are in the hardware.
void wishesUntilHeld(benchmark::State& state) {
   Agency agency(state.range(0));
   std::uint32_t value = 0;
   for (auto _ : state) {
      const auto begin = Clock::now();
      for (std::uint32_t i = 0; i < burst; ++i) {
         agency.client->wishIs(agency.names[i % agency.names.size()], ++value);
      }
      const auto count = static_cast<std::uint32_t>(agency.names.size());
      for (std::uint32_t i = 0; i < count; ++i) {
         // The last wish for each.
         const std::uint32_t last = value - (burst - 1 - ((burst - 1 - i) / count * count + i));
         while (agency.held(i) != last) {
            ::usleep(20); // the processor is the agent's
         }
      }
      state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
   }
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * burst);
}
BENCHMARK(wishesUntilHeld)
   ->Arg(1000)
   ->Arg(10000)
   ->Arg(100000)
   ->UseManualTime()
   ->Unit(benchmark::kMillisecond);

// What the client alone has of it.
void wishes(benchmark::State& state) {
   Agency agency(state.range(0));
   std::uint32_t value = 0;
   for (auto _ : state) {
      const auto begin = Clock::now();
      for (std::uint32_t i = 0; i < burst; ++i) {
         agency.client->wishIs(agency.names[i % agency.names.size()], ++value);
      }
      state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
   }
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * burst);
}
BENCHMARK(wishes)->Arg(1000)->Arg(100000)->UseManualTime()->Unit(benchmark::kMillisecond);

// The baseline: as many puts into a table that nobody else has.
void barePuts(benchmark::State& state) {
   Owner owner(state.range(0));
   Nobody nobody;
   Platform::Tables::Table<CoreRegister> table("alone", nobody);
   table.mount(owner.service, {.role = TableRole::writer});
   std::uint32_t value = 0;
   const auto count = static_cast<std::uint32_t>(state.range(0));
   for (auto _ : state) {
      const auto begin = Clock::now();
      for (std::uint32_t i = 0; i < burst; ++i) {
         table.put(CoreRegister(CoreRegisterKey(4 * (i % count)), ++value));
      }
      state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
   }
}
BENCHMARK(barePuts)->Arg(1000)->Arg(100000)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace
