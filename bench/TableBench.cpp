// What shared tables cost: reading, writing, inserting and removing a record, stepping through all,
// at several sizes; writing while readers sleep; until another process sees a write; the first
// write after a writer's death. Beside them LMDB, without synchronisation to disk, on the same file
// system: the packaged library that comes nearest.

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <lmdb.h>

#include "platform/entity/EventLoop.h"
#include "platform/tables/TableMount.h"
#include "platform/tables/TableService.h"

namespace {

using namespace Platform::Tables;
using Clock = std::chrono::steady_clock;

/// A directory in shared memory that is removed at the end.
class Directory {
public:
   Directory() {
      char path[] = "/dev/shm/tarn-bench-XXXXXX";
      if (!::mkdtemp(path)) {
         std::abort();
      }
      _path = path;
   }
   ~Directory() { std::filesystem::remove_all(_path); }
   Directory(const Directory&) = delete;
   Directory& operator=(const Directory&) = delete;
   const std::string& path() const noexcept { return _path; }

private:
   std::string _path;
};

TableShape shape(std::uint32_t recordSize) {
   TableShape result;
   result.keyType = "Key";
   result.recordType = "Record";
   result.keySize = 4;
   result.recordSize = recordSize;
   return result;
}

TableMount::Options writer(std::uint32_t recordSize) {
   return {.role = TableRole::writer, .shape = shape(recordSize), .create = true};
}

/// `count` keys as registers have them, in random order.
std::vector<std::uint32_t> shuffledKeys(std::int64_t count) {
   std::vector<std::uint32_t> keys(static_cast<std::size_t>(count));
   for (std::size_t i = 0; i < keys.size(); ++i) {
      keys[i] = static_cast<std::uint32_t>(i * 4);
   }
   std::mt19937 random(1);
   std::shuffle(keys.begin(), keys.end(), random);
   return keys;
}

std::span<const std::uint8_t> bytesOf(const std::uint32_t& key) {
   return {reinterpret_cast<const std::uint8_t*>(&key), sizeof key};
}

/// A table of so many records of so many bytes.
struct Filled {
   Filled(std::int64_t count, std::int64_t recordSize)
      : keys(shuffledKeys(count)), record(static_cast<std::size_t>(recordSize), 7),
        mount(TableDirectory(directory.path()), "table",
              writer(static_cast<std::uint32_t>(recordSize))),
        copy(mount.recordWords()) {
      for (const std::uint32_t key : keys) {
         mount.put(bytesOf(key), record);
      }
   }
   const Directory directory;
   const std::vector<std::uint32_t> keys;
   std::vector<std::uint8_t> record;
   TableMount mount;
   std::vector<std::uint64_t> copy;
};

void sizes(benchmark::internal::Benchmark* bench) {
   for (const std::int64_t count : {1000, 5000, 100000}) {
      for (const std::int64_t record : {8, 1040}) {
         bench->Args({count, record});
      }
   }
}

void get(benchmark::State& state) {
   Filled table(state.range(0), state.range(1));
   std::size_t next = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(table.mount.get(bytesOf(table.keys[next]), table.copy));
      next = next + 1 == table.keys.size() ? 0 : next + 1;
   }
}
BENCHMARK(get)->Apply(sizes);

void put(benchmark::State& state) {
   Filled table(state.range(0), state.range(1));
   std::size_t next = 0;
   for (auto _ : state) {
      ++table.record[0];
      table.mount.put(bytesOf(table.keys[next]), table.record);
      next = next + 1 == table.keys.size() ? 0 : next + 1;
   }
}
BENCHMARK(put)->Apply(sizes);

void delAndInsert(benchmark::State& state) {
   Filled table(state.range(0), state.range(1));
   std::size_t next = 0;
   for (auto _ : state) {
      table.mount.del(bytesOf(table.keys[next]), table.copy);
      table.mount.put(bytesOf(table.keys[next]), table.record);
      next = next + 1 == table.keys.size() ? 0 : next + 1;
   }
}
BENCHMARK(delAndInsert)->Apply(sizes);

void iterate(benchmark::State& state) {
   Filled table(state.range(0), state.range(1));
   std::vector<std::uint64_t> key(table.mount.keyWords());
   for (auto _ : state) {
      for (std::uint32_t position = 0; table.mount.next(position, key, table.copy);) {
      }
   }
   state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(iterate)->Apply(sizes);

// Filling an empty table, growth included.
void fill(benchmark::State& state) {
   for (auto _ : state) {
      Filled table(state.range(0), state.range(1));
      benchmark::DoNotOptimize(table.mount.count());
   }
   state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(fill)
   ->Args({1000, 8})
   ->Args({10000, 8})
   ->Args({100000, 8})
   ->Unit(benchmark::kMicrosecond);

template <typename T>
class Shared {
public:
   Shared()
      : _object(new (::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                            -1, 0)) T()) {}
   ~Shared() { ::munmap(_object, sizeof(T)); }
   T* operator->() const noexcept { return _object; }

private:
   T* const _object;
};

pid_t child(const std::function<void()>& work) {
   const pid_t pid = ::fork();
   if (pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      work();
      ::_exit(0);
   }
   return pid;
}

void end(pid_t pid) {
   ::kill(pid, SIGKILL);
   ::waitpid(pid, nullptr, 0);
}

struct Board {
   std::atomic<int> ready{0};
   std::atomic<std::uint64_t> seen{0};
};

// Reading while another process writes without pause.
void getBesideWriter(benchmark::State& state) {
   Filled table(5000, 8);
   const pid_t pid = child([&] {
      TableMount other(TableDirectory(table.directory.path()), "table", writer(8));
      for (std::size_t i = 0;; i = (i + 1) % table.keys.size()) {
         other.put(bytesOf(table.keys[i]), table.record);
      }
   });
   std::size_t next = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(table.mount.get(bytesOf(table.keys[next]), table.copy));
      next = next + 1 == table.keys.size() ? 0 : next + 1;
   }
   end(pid);
}
BENCHMARK(getBesideWriter);

/// Another process that sleeps until the table changes, and then notes the number that is in it.
void follow(const std::string& path, Board& board) {
   Platform::EventLoop loop;
   TableService service(loop, TableDirectory(path));
   TableMount mount(TableDirectory(path), "table", {.role = TableRole::reader, .shape = shape(8)});
   std::vector<std::uint64_t> key(mount.keyWords());
   std::vector<std::uint64_t> copy(mount.recordWords());
   const auto look = [&](bool) {
      do {
         while (mount.nextChange(key) != TableMount::Change::none) {
            mount.get({reinterpret_cast<const std::uint8_t*>(key.data()), 4}, copy);
            board.seen.store(copy[0]);
         }
      } while (!mount.arm());
   };
   TableService::Watch watch(service, mount, look);
   look(false);
   board.ready.fetch_add(1);
   loop.run();
}

// Writing while readers sleep that want to be woken: what each write costs the writer.
void putWithSleepers(benchmark::State& state) {
   Filled table(5000, 8);
   const Shared<Board> board;
   std::vector<pid_t> pids;
   for (std::int64_t i = 0; i < state.range(0); ++i) {
      pids.push_back(child([&] { follow(table.directory.path(), *board.operator->()); }));
   }
   while (board->ready.load() < state.range(0)) {
      ::usleep(1000);
   }
   std::size_t next = 0;
   for (auto _ : state) {
      table.mount.put(bytesOf(table.keys[next]), table.record);
      next = next + 1 == table.keys.size() ? 0 : next + 1;
   }
   std::for_each(pids.begin(), pids.end(), end);
}
BENCHMARK(putWithSleepers)->Arg(0)->Arg(1)->Arg(4);

// From a write to its being seen by a process that slept, on its event loop.
void writeToSeen(benchmark::State& state) {
   Filled table(5000, 8);
   const Shared<Board> board;
   const pid_t pid = child([&] { follow(table.directory.path(), *board.operator->()); });
   while (board->ready.load() == 0) {
      ::usleep(1000);
   }
   std::uint64_t number = 0;
   for (auto _ : state) {
      ++number;
      std::memcpy(table.record.data(), &number, sizeof number);
      const auto begin = Clock::now();
      table.mount.put(bytesOf(table.keys[0]), table.record);
      while (board->seen.load(std::memory_order_relaxed) != number) {
      }
      state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
      // It goes back to sleep.
      const auto asleep = Clock::now() + std::chrono::microseconds(50);
      while (Clock::now() < asleep) {
      }
   }
   end(pid);
}
BENCHMARK(writeToSeen)->UseManualTime()->Unit(benchmark::kMicrosecond);

// The baseline: a byte through a pipe to a process that polls, and its word in shared memory back.
void pipeToSeen(benchmark::State& state) {
   const Shared<Board> board;
   std::array<int, 2> ends = {};
   if (::pipe(ends.data()) != 0) {
      std::abort();
   }
   const pid_t pid = child([&] {
      std::uint64_t number = 0;
      while (::read(ends[0], &number, sizeof number) == sizeof number) {
         board->seen.store(number);
      }
   });
   std::uint64_t number = 0;
   for (auto _ : state) {
      ++number;
      const auto begin = Clock::now();
      if (::write(ends[1], &number, sizeof number) != sizeof number) {
         std::abort();
      }
      while (board->seen.load(std::memory_order_relaxed) != number) {
      }
      state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
      const auto asleep = Clock::now() + std::chrono::microseconds(50);
      while (Clock::now() < asleep) {
      }
   }
   end(pid);
   ::close(ends[0]);
   ::close(ends[1]);
}
BENCHMARK(pipeToSeen)->UseManualTime()->Unit(benchmark::kMicrosecond);

// The first write after a writer died while it had the table: the killed one writes all the time,
// so most times it has.
void putAfterDeath(benchmark::State& state) {
   Filled table(state.range(0), 8);
   std::uint64_t recovered = table.mount.audit().recoveries;
   for (auto _ : state) {
      Clock::duration took{};
      for (;;) {
         const Shared<Board> board;
         const pid_t pid = child([&] {
            TableMount other(TableDirectory(table.directory.path()), "table", writer(8));
            board->ready.store(1);
            for (;;) {
               other.put(bytesOf(table.keys[0]), table.record);
            }
         });
         while (board->ready.load() == 0) {
            ::usleep(100);
         }
         ::usleep(500);
         end(pid);
         const auto begin = Clock::now();
         table.mount.put(bytesOf(table.keys[0]), table.record);
         took = Clock::now() - begin;
         const std::uint64_t now = table.mount.audit().recoveries;
         if (now != std::exchange(recovered, now)) {
            break; // it had the table
         }
      }
      state.SetIterationTime(std::chrono::duration<double>(took).count());
   }
}
BENCHMARK(putAfterDeath)
   ->Arg(1000)
   ->Arg(5000)
   ->Arg(100000)
   ->UseManualTime()
   ->Iterations(10)
   ->Unit(benchmark::kMicrosecond);

void checked(int code) {
   if (code != MDB_SUCCESS) {
      std::abort();
   }
}

/// The same records in LMDB.
struct Lmdb {
   Lmdb(std::int64_t count, std::int64_t recordSize)
      : keys(shuffledKeys(count)), record(static_cast<std::size_t>(recordSize), 7) {
      checked(mdb_env_create(&environment));
      checked(mdb_env_set_mapsize(environment, std::size_t{1} << 31));
      checked(
         mdb_env_open(environment, directory.path().c_str(), MDB_NOSYNC | MDB_NOMETASYNC, 0600));
      MDB_txn* transaction = nullptr;
      checked(mdb_txn_begin(environment, nullptr, 0, &transaction));
      checked(mdb_dbi_open(transaction, nullptr, MDB_INTEGERKEY, &database));
      for (std::uint32_t& key : keys) {
         put(transaction, key);
      }
      checked(mdb_txn_commit(transaction));
   }
   ~Lmdb() { mdb_env_close(environment); }

   void put(MDB_txn* transaction, std::uint32_t& key) {
      MDB_val name{sizeof key, &key};
      MDB_val value{record.size(), record.data()};
      checked(mdb_put(transaction, database, &name, &value, 0));
   }

   const Directory directory;
   std::vector<std::uint32_t> keys;
   std::vector<std::uint8_t> record;
   MDB_env* environment = nullptr;
   MDB_dbi database = 0;
};

void lmdbGet(benchmark::State& state) {
   Lmdb table(state.range(0), state.range(1));
   std::vector<std::uint8_t> copy(table.record.size());
   MDB_txn* transaction = nullptr;
   checked(mdb_txn_begin(table.environment, nullptr, MDB_RDONLY, &transaction));
   mdb_txn_reset(transaction);
   std::size_t next = 0;
   for (auto _ : state) {
      // A transaction each, as what others have written since is to be seen.
      checked(mdb_txn_renew(transaction));
      MDB_val name{sizeof(std::uint32_t), &table.keys[next]};
      MDB_val value{};
      checked(mdb_get(transaction, table.database, &name, &value));
      std::memcpy(copy.data(), value.mv_data, value.mv_size);
      mdb_txn_reset(transaction);
      benchmark::DoNotOptimize(copy.data());
      next = next + 1 == table.keys.size() ? 0 : next + 1;
   }
   mdb_txn_abort(transaction);
}
BENCHMARK(lmdbGet)->Apply(sizes);

void lmdbPut(benchmark::State& state) {
   Lmdb table(state.range(0), state.range(1));
   std::size_t next = 0;
   for (auto _ : state) {
      ++table.record[0];
      MDB_txn* transaction = nullptr;
      checked(mdb_txn_begin(table.environment, nullptr, 0, &transaction));
      table.put(transaction, table.keys[next]);
      checked(mdb_txn_commit(transaction));
      next = next + 1 == table.keys.size() ? 0 : next + 1;
   }
}
BENCHMARK(lmdbPut)->Apply(sizes);

// The lock of a table, and what it would cost to use the C library's for it.
void robustMutex(benchmark::State& state) {
   pthread_mutexattr_t attributes;
   pthread_mutexattr_init(&attributes);
   pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
   pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
   pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
   pthread_mutex_t mutex;
   pthread_mutex_init(&mutex, &attributes);
   for (auto _ : state) {
      pthread_mutex_lock(&mutex);
      pthread_mutex_unlock(&mutex);
   }
   pthread_mutex_destroy(&mutex);
   pthread_mutexattr_destroy(&attributes);
}
BENCHMARK(robustMutex);

void wordLock(benchmark::State& state) {
   std::uint32_t word = 0;
   for (auto _ : state) {
      std::uint32_t free = 0;
      __atomic_compare_exchange_n(&word, &free, 5, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
      benchmark::DoNotOptimize(__atomic_exchange_n(&word, 0, __ATOMIC_RELEASE));
   }
}
BENCHMARK(wordLock);

} // namespace
