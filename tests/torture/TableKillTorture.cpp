// Writers of a table are killed at random moments, again and again, while others write and readers
// verify. Nothing torn, nothing acknowledged lost, no reader left without news, nobody hangs.
//
// Each writer has keys of its own. Before it changes one it notes what it is about to do, in memory
// that survives it, and afterwards that it is done. So of every key it is known what the table has
// to hold: what was done last, or, for the one change that was under way, either.

#include <poll.h>
#include <sys/inotify.h>

#include <atomic>
#include <map>
#include <thread>

#include "tests/torture/Torture.h"

namespace {

using namespace Torture;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t keys = 2000;
constexpr unsigned writers = 2;
constexpr unsigned readers = 4;

/// What a writer says of one of its keys: the number of its record, 0 if it has none.
struct State {
   std::atomic<std::uint64_t> done{0};
   std::atomic<std::uint64_t> intended{0};
   std::atomic<std::uint64_t> number{0}; // counted up with every change, removals too
};

struct Board {
   State states[keys];
   std::atomic<bool> stop{false};
   std::atomic<bool> writersGone{false};
   std::atomic<std::uint64_t> changes{0};
   std::atomic<std::uint64_t> reads{0};
   std::atomic<std::uint64_t> told{0};
   std::atomic<std::uint64_t> rescans{0};
   std::atomic<unsigned> readersDone{0};
};

// The tables are small at first and large later, so that kills meet growing as well.
std::uint32_t keyFor(std::mt19937& random, unsigned writer, std::uint64_t age) {
   const std::uint32_t span = age % 3 == 0 ? 40 : keys / writers;
   return static_cast<std::uint32_t>(random() % span) * writers + writer;
}

void write(const TableDirectory& directory, unsigned writer, Board& board, std::uint32_t seed) {
   std::mt19937 random(seed);
   TableMount table(directory, "table", Torture::writer());
   std::vector<std::uint64_t> removed(table.recordWords());
   const std::uint64_t age = random();
   while (!board.stop.load(std::memory_order_relaxed)) {
      const std::uint32_t key = keyFor(random, writer, age);
      State& state = board.states[key];
      const std::uint64_t number = state.number.load() + 1;
      state.number.store(number);
      if (random() % 4 != 0) {
         state.intended.store(number);
         table.put(keyBytes(key), recordOf(key, number));
         state.done.store(number);
      } else {
         state.intended.store(0);
         table.del(keyBytes(key), removed);
         state.done.store(0);
      }
      board.changes.fetch_add(1, std::memory_order_relaxed);
   }
}

// Reads all the time, and sees no key's number go back.
void readAlong(const TableDirectory& directory, Board& board, std::uint32_t seed) {
   std::mt19937 random(seed);
   const TableMount table(directory, "table", Torture::reader());
   std::vector<std::uint64_t> last(keys, 0);
   while (!board.writersGone.load(std::memory_order_relaxed)) {
      for (int i = 0; i < 1000; ++i) {
         const auto key = static_cast<std::uint32_t>(random() % keys);
         if (const std::optional<std::uint64_t> number = numberAt(table, key)) {
            check(*number >= last[key], "an older record came back: key " + std::to_string(key));
            last[key] = *number;
         }
      }
      board.reads.fetch_add(1000, std::memory_order_relaxed);
   }
   board.readersDone.fetch_add(1);
}

// Keeps a copy of the table by what it is told alone. It looks only when it has been woken.
void follow(const TableDirectory& directory, Board& board) {
   TableMount table(directory, "table", Torture::reader());
   std::map<std::uint32_t, std::uint64_t> copy;
   std::vector<std::uint64_t> key(table.keyWords());
   std::vector<std::uint64_t> record(table.recordWords());
   const auto look = [&](std::uint32_t which) {
      if (const std::optional<std::uint64_t> number = numberAt(table, which)) {
         copy[which] = *number;
      } else {
         copy.erase(which);
      }
      board.told.fetch_add(1, std::memory_order_relaxed);
   };
   const auto lookAtAll = [&] {
      copy.clear();
      for (std::uint32_t position = 0;;) {
         const std::optional<std::size_t> size = table.next(position, key, record);
         if (!size) {
            return;
         }
         const auto which = static_cast<std::uint32_t>(key[0]);
         copy[which] = numberIn(which, record.data(), *size);
      }
   };
   const int inotify = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
   const std::string bell = "/proc/self/fd/" + std::to_string(table.bellFd());
   check(::inotify_add_watch(inotify, bell.c_str(), IN_MODIFY | IN_CLOSE_WRITE) >= 0, "inotify");
   lookAtAll();
   bool woken = true;
   for (;;) {
      const bool last = board.writersGone.load();
      for (bool sleeps = false; woken && !sleeps;) {
         switch (table.nextChange(key)) {
         case TableMount::Change::changed:
            look(static_cast<std::uint32_t>(key[0]));
            break;
         case TableMount::Change::missed:
            board.rescans.fetch_add(1, std::memory_order_relaxed);
            lookAtAll();
            break;
         case TableMount::Change::none:
            if (table.preparedChange(key)) {
               look(static_cast<std::uint32_t>(key[0]));
            }
            sleeps = table.arm();
         }
      }
      pollfd ready = {.fd = inotify, .events = POLLIN, .revents = 0};
      // Everything has happened: what has not been rung for within this time never will be.
      woken = ::poll(&ready, 1, last ? 2000 : 50) > 0;
      if (woken) {
         char events[4096];
         [[maybe_unused]] const ssize_t size = ::read(inotify, events, sizeof events);
      } else if (last) {
         break;
      }
   }
   std::size_t live = 0;
   for (std::uint32_t which = 0; which < keys; ++which) {
      const std::optional<std::uint64_t> number = numberAt(table, which);
      const auto known = copy.find(which);
      check(number.has_value() == (known != copy.end()) && (!number || *number == known->second),
            "a reader was not told of a change: key " + std::to_string(which));
      live += number.has_value();
   }
   check(live == table.count(), "the number of records is wrong");
   board.readersDone.fetch_add(1);
}

// After a kill: what the table must hold of the dead writer's keys.
void verify(const TableMount& table, unsigned writer, Board& board) {
   for (std::uint32_t key = writer; key < keys; key += writers) {
      State& state = board.states[key];
      const std::uint64_t found = numberAt(table, key).value_or(0);
      const std::uint64_t done = state.done.load();
      const std::uint64_t intended = state.intended.load();
      check(found == done || found == intended,
            "an acknowledged change is lost: key " + std::to_string(key) + " holds " +
               std::to_string(found) + ", done was " + std::to_string(done) + ", under way " +
               std::to_string(intended));
      // What is there now is what it goes on from.
      state.done.store(found);
      state.intended.store(found);
   }
}

} // namespace

int main(int argc, char** argv) {
   const Options options = Options::of(argc, argv);
   const auto deadline = options.deadline();
   std::mt19937 random(options.seed);
   const Torture::Directory directory;
   const TableDirectory tables = directory.tables();
   const Shared<Board> board;
   const TableMount watching(tables, "table", Torture::reader());

   std::vector<pid_t> readerPids;
   for (unsigned i = 0; i < readers; ++i) {
      const std::uint32_t seed = random();
      readerPids.push_back(
         child([&, i, seed] { i % 2 ? readAlong(tables, *board, seed) : follow(tables, *board); }));
   }
   pid_t pids[writers] = {};
   std::uint64_t elsewhere = 0;
   const auto start = [&](unsigned writer) {
      const std::uint32_t seed = random();
      const auto work = [&, writer, seed] { write(tables, writer, *board, seed); };
      // Every second time as in a container, all of whose writers are called process 1.
      pids[writer] = random() % 2 ? childInNamespace(work) : -1;
      elsewhere += pids[writer] > 0;
      if (pids[writer] < 0) {
         pids[writer] = child(work);
      }
   };
   for (unsigned i = 0; i < writers; ++i) {
      start(i);
   }
   std::uint64_t kills = 0;
   std::uint64_t bothKilled = 0;
   while (Clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
      const auto victim = static_cast<unsigned>(random() % writers);
      // Now and then all at once, so that nobody is left to clean up after the first.
      const bool all = random() % 4 == 0;
      for (unsigned i = 0; i < writers; ++i) {
         if (all || i == victim) {
            ::kill(pids[i], SIGKILL);
         }
      }
      for (unsigned i = 0; i < writers; ++i) {
         if (all || i == victim) {
            const int status = ended(pids[i]);
            check(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL, "a writer ended by itself");
            ++kills;
            verify(watching, i, *board);
         }
      }
      bothKilled += all;
      for (unsigned i = 0; i < writers; ++i) {
         if (all || i == victim) {
            start(i);
         }
      }
   }
   board->stop.store(true);
   for (unsigned i = 0; i < writers; ++i) {
      check(ended(pids[i]) == 0, "a writer failed");
      verify(watching, i, *board);
   }
   board->writersGone.store(true);
   for (const pid_t pid : readerPids) {
      check(ended(pid) == 0, "a reader failed");
   }
   const TableMount last(tables, "table", Torture::writer());
   checkAudit(last, "at the end");
   std::printf("%llu of the writers were in process namespaces of their own\n",
               static_cast<unsigned long long>(elsewhere));
   std::printf(
      "%llu kills (%llu times all writers), %llu changes, %llu reads beside them, %llu "
      "changes told, %llu times through the table, %llu recoveries: none torn, none lost\n",
      static_cast<unsigned long long>(kills), static_cast<unsigned long long>(bothKilled),
      static_cast<unsigned long long>(board->changes.load()),
      static_cast<unsigned long long>(board->reads.load()),
      static_cast<unsigned long long>(board->told.load()),
      static_cast<unsigned long long>(board->rescans.load()),
      static_cast<unsigned long long>(last.audit().recoveries));
   return 0;
}
