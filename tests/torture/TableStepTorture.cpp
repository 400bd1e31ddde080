// One operation of each kind is run instruction by instruction. After every instruction that has
// changed the table's file, what is in it is what a writer leaves that is killed there: so that
// image is taken, mounted, put in order and verified. The work of putting in order, and of growing,
// is stepped through the same way. After that, processes are really killed after random numbers of
// instructions, with a reader asleep that has to hear of it.

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "tests/torture/Torture.h"
#include "tests/torture/Tracee.h"

namespace {

using namespace Torture;

constexpr std::uint32_t theKey = 1000;

TableShape smallShape() {
   TableShape result = shape();
   result.recordSize = 64;
   result.maxRecords = 1024;
   result.journalEntries = 64;
   return result;
}

TableMount::Options asWriter() {
   return {.role = TableRole::writer, .shape = smallShape(), .create = true};
}

// As recordOf(), of few bytes.
std::uint64_t numberOf(std::uint64_t n) {
   return n * 7 + 1 + n % 5;
}

std::vector<std::uint8_t> record(std::uint32_t key, std::uint64_t n) {
   return recordOf(key, numberOf(n));
}

void put(TableMount& table, std::uint32_t key, std::uint64_t n) {
   table.put(keyBytes(key), record(key, n));
}

void del(TableMount& table, std::uint32_t key) {
   std::vector<std::uint64_t> removed(table.recordWords());
   table.del(keyBytes(key), removed);
}

/// An operation on theKey, in a table of so many other records.
struct Operation {
   const char* name;
   std::uint32_t others;
   void (*prepare)(TableMount&);
   void (*run)(TableMount&);
   std::optional<std::uint64_t> before; // the number of theKey's record
   std::optional<std::uint64_t> after;
};

const std::vector<Operation>& operations() {
   static const std::vector<Operation> all = {
      {"replace", 20, [](TableMount& t) { put(t, theKey, 1); },
       [](TableMount& t) { put(t, theKey, 2); }, numberOf(1), numberOf(2)},
      {"insert in a new slot", 20, [](TableMount&) {}, [](TableMount& t) { put(t, theKey, 2); },
       std::nullopt, numberOf(2)},
      {"insert in a free slot", 20, [](TableMount& t) { del(t, 3); },
       [](TableMount& t) { put(t, theKey, 2); }, std::nullopt, numberOf(2)},
      {"insert with more memory for slots", 64, [](TableMount&) {},
       [](TableMount& t) { put(t, theKey, 2); }, std::nullopt, numberOf(2)},
      {"insert with a larger index", 384, [](TableMount&) {},
       [](TableMount& t) { put(t, theKey, 2); }, std::nullopt, numberOf(2)},
      {"remove", 20, [](TableMount& t) { put(t, theKey, 1); },
       [](TableMount& t) { del(t, theKey); }, numberOf(1), std::nullopt},
      {"remove from a full index", 380, [](TableMount& t) { put(t, theKey, 1); },
       [](TableMount& t) { del(t, theKey); }, numberOf(1), std::nullopt},
   };
   return all;
}

void fill(TableMount& table, const Operation& operation) {
   for (std::uint32_t key = 0; key < operation.others; ++key) {
      put(table, key, key);
   }
   operation.prepare(table);
}

struct Counts {
   std::uint64_t steps = 0;
   std::uint64_t images = 0;
   std::uint64_t kills = 0;
};

/// The contents of a table's file.
class Image {
public:
   explicit Image(const std::string& path) {
      const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
      struct stat status = {};
      check(fd >= 0 && ::fstat(fd, &status) == 0, "cannot open " + path);
      _size = static_cast<std::size_t>(status.st_size);
      _live =
         static_cast<const std::uint8_t*>(::mmap(nullptr, _size, PROT_READ, MAP_SHARED, fd, 0));
      check(_live != MAP_FAILED, "cannot map " + path);
      ::close(fd);
      _taken.assign(_live, _live + _size);
   }
   ~Image() { ::munmap(const_cast<std::uint8_t*>(_live), _size); }
   Image(const Image&) = delete;
   Image& operator=(const Image&) = delete;

   /// Takes the contents as they are now. False: they are what they were.
   bool take() {
      if (std::memcmp(_taken.data(), _live, _size) == 0) {
         return false;
      }
      std::memcpy(_taken.data(), _live, _size);
      return true;
   }

   const std::vector<std::uint8_t>& bytes() const noexcept { return _taken; }

   static void write(const std::vector<std::uint8_t>& bytes, const std::string& path) {
      const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
      check(fd >= 0 &&
               ::pwrite(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
            "cannot write " + path);
      ::close(fd);
   }

private:
   const std::uint8_t* _live = nullptr;
   std::size_t _size = 0;
   std::vector<std::uint8_t> _taken;
};

std::string fileOf(const Torture::Directory& directory) {
   return directory.path() + "/table.tbl";
}

// All but theKey is as it was, and theKey is as before or after the operation. Which is returned.
bool isAfter(const TableMount& table, const Operation& operation) {
   for (std::uint32_t key = 0; key < operation.others; ++key) {
      const std::optional<std::uint64_t> number = numberAt(table, key);
      const bool removed = key == 3 && std::strcmp(operation.name, "insert in a free slot") == 0;
      check(removed ? !number : number == numberOf(key),
            std::string(operation.name) + ": another record is lost");
   }
   const std::optional<std::uint64_t> number = numberAt(table, theKey);
   check(number == operation.before || number == operation.after,
         std::string(operation.name) + ": the record is neither old nor new");
   return number == operation.after;
}

/// Verifies images of a table in a directory of its own.
class Verifier {
public:
   explicit Verifier(const Operation& operation) : _operation(operation) {
      TableMount(_directory.tables(), "table", asWriter());
   }

   void verify(const std::vector<std::uint8_t>& image, std::uint64_t changesBefore) {
      Image::write(image, fileOf(_directory));
      bool seen = false;
      {
         // What readers see of it before anybody puts it in order.
         const TableMount reading(_directory.tables(), "table",
                                  {.role = TableRole::reader, .shape = smallShape()});
         seen = isAfter(reading, _operation);
         check(seen || !_committed, std::string(_operation.name) + ": a commit was taken back");
         _committed = seen;
      }
      TableMount table(_directory.tables(), "table", asWriter());
      check(isAfter(table, _operation) == seen,
            std::string(_operation.name) + ": recovery changed a record");
      checkAudit(table, _operation.name);
      check(!seen || table.audit().changes > changesBefore,
            std::string(_operation.name) + ": nobody is told of a committed change");
      // And it goes on working.
      put(table, theKey, 99);
      check(numberAt(table, theKey) == numberOf(99), "a put after recovery is lost");
      del(table, theKey);
      checkAudit(table, "after recovery and two changes");
   }

private:
   const Operation& _operation;
   const Torture::Directory _directory;
   bool _committed = false;
};

/// Steps through a recovery: a writer has `before` mounted when the other one's death leaves
/// `image`.
void stepThroughRecovery(const Operation& operation, const std::vector<std::uint8_t>& before,
                         const std::vector<std::uint8_t>& image, std::uint64_t changesBefore,
                         Counts& counts) {
   const Torture::Directory directory;
   TableMount(directory.tables(), "table", asWriter());
   Image::write(before, fileOf(directory));
   Image live(fileOf(directory));
   Verifier verifier(operation);
   std::unique_ptr<TableMount> table;
   Tracee tracee(
      [&] { table = std::make_unique<TableMount>(directory.tables(), "table", asWriter()); },
      [&] { put(*table, 0, 0); });
   Image::write(image, fileOf(directory));
   while (tracee.step()) {
      ++counts.steps;
      if (live.take()) {
         ++counts.images;
         verifier.verify(live.bytes(), changesBefore);
      }
   }
}

void stepThrough(const Operation& operation, std::chrono::steady_clock::time_point deadline,
                 Counts& counts) {
   const Torture::Directory directory;
   std::uint64_t changesBefore = 0;
   {
      TableMount table(directory.tables(), "table", asWriter());
      fill(table, operation);
      changesBefore = table.audit().changes;
   }
   Image live(fileOf(directory));
   const std::vector<std::uint8_t> before = live.bytes();
   Verifier verifier(operation);
   std::vector<std::vector<std::uint8_t>> images;
   {
      std::unique_ptr<TableMount> table;
      Tracee tracee(
         [&] { table = std::make_unique<TableMount>(directory.tables(), "table", asWriter()); },
         [&] { operation.run(*table); });
      live.take();
      while (tracee.step()) {
         ++counts.steps;
         if (live.take()) {
            ++counts.images;
            verifier.verify(live.bytes(), changesBefore);
            images.push_back(live.bytes());
         }
      }
   }
   // Recoveries from some of them: at least one, which is in the middle; with more time from
   // others, the first and the last among them.
   const std::size_t last = images.size() - 1;
   const std::size_t which[] = {last / 2, 0, last, last / 4, last - last / 4};
   for (std::size_t i = 0; i < std::size(which); ++i) {
      if ((i == 0 && operation.others <= 64) || std::chrono::steady_clock::now() < deadline) {
         stepThroughRecovery(operation, before, images[which[i]], changesBefore, counts);
      }
   }
}

/// Kills a process after `steps` instructions of the operation. False: it was done by then.
bool killAfter(const Operation& operation, std::uint64_t steps, Counts& counts) {
   const Torture::Directory directory;
   TableMount other(directory.tables(), "table", asWriter());
   fill(other, operation);
   TableMount sleeper(directory.tables(), "table",
                      {.role = TableRole::reader, .shape = smallShape()});
   const int inotify = ::inotify_init1(IN_CLOEXEC);
   const std::string bell = "/proc/self/fd/" + std::to_string(sleeper.bellFd());
   check(::inotify_add_watch(inotify, bell.c_str(), IN_MODIFY | IN_CLOSE_WRITE) >= 0, "inotify");
   check(sleeper.arm(), "a change before there is one");

   std::unique_ptr<TableMount> table;
   Tracee tracee(
      [&] { table = std::make_unique<TableMount>(directory.tables(), "table", asWriter()); },
      [&] { operation.run(*table); });
   bool running = true;
   for (std::uint64_t i = 0; running && i < steps; ++i) {
      running = tracee.step();
   }
   tracee.kill();
   ++counts.kills;

   pollfd ready = {.fd = inotify, .events = POLLIN, .revents = 0};
   check(::poll(&ready, 1, 10000) == 1, "a reader was not woken by the death of a writer");
   std::vector<std::uint64_t> key(sleeper.keyWords());
   const bool told =
      sleeper.nextChange(key) == TableMount::Change::changed || sleeper.preparedChange(key);
   ::close(inotify);
   const bool after = isAfter(other, operation);
   check(after ? told && key[0] == theKey : running || operation.before == operation.after,
         std::string(operation.name) + ": a reader was not told");
   put(other, 2000, 1);
   checkAudit(other, "after a kill");
   check(isAfter(other, operation) == after, "recovery changed a record");
   return running;
}

} // namespace

int main(int argc, char** argv) {
   const Options options = Options::of(argc, argv);
   const auto deadline = options.deadline();
   std::mt19937 random(options.seed);
   Counts counts;
   for (const Operation& operation : operations()) {
      const Counts before = counts;
      stepThrough(operation, deadline, counts);
      std::printf("%s: %llu instructions, %llu images\n", operation.name,
                  static_cast<unsigned long long>(counts.steps - before.steps),
                  static_cast<unsigned long long>(counts.images - before.images));
   }
   while (std::chrono::steady_clock::now() < deadline || counts.kills < 20) {
      const Operation& operation = operations()[random() % operations().size()];
      // Mostly in the middle of things, sometimes long after.
      const std::uint64_t most = random() % 8 == 0 ? 60000 : 900;
      killAfter(operation, random() % most, counts);
   }
   std::printf("%llu instructions stepped, %llu images put in order, %llu processes killed: none "
               "torn, none lost\n",
               static_cast<unsigned long long>(counts.steps),
               static_cast<unsigned long long>(counts.images),
               static_cast<unsigned long long>(counts.kills));
   return 0;
}
