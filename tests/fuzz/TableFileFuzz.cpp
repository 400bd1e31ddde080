// Overwrites parts of a table's file with any bytes, and has it mounted, read, stepped through,
// followed, audited, and written. Whatever the file holds, each of these ends: with what it is
// asked for, or with an exception that says what is wrong. The input is a list of patches: where (3
// bytes, least significant first), how many bytes (1), and the bytes.

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include "platform/tables/TableMount.h"
#include "tests/fuzz/Check.h"

namespace {

using namespace Platform::Tables;

constexpr std::uint32_t records = 20;

TableShape shape() {
   TableShape result;
   result.keyType = "Key";
   result.recordType = "Record";
   result.keySize = 4;
   result.recordSize = 24;
   result.maxRecords = 64;
   result.journalEntries = 16;
   return result;
}

std::span<const std::uint8_t> bytesOf(const std::uint32_t& key) {
   return {reinterpret_cast<const std::uint8_t*>(&key), sizeof key};
}

/// A table in shared memory, and the bytes of its file when it was whole.
class Table {
public:
   Table() {
      char path[] = "/dev/shm/tarn-fuzz-XXXXXX";
      FUZZ_CHECK(::mkdtemp(path));
      _path = path;
      {
         TableMount mount(directory(), "table",
                          {.role = TableRole::writer, .shape = shape(), .create = true});
         const std::vector<std::uint8_t> record(24, 0x5A);
         std::vector<std::uint64_t> removed(mount.recordWords());
         for (std::uint32_t key = 0; key < records + 5; ++key) {
            mount.put(bytesOf(key), std::span(record).first(key % 25));
         }
         for (std::uint32_t key = records; key < records + 5; ++key) {
            mount.del(bytesOf(key), removed);
         }
      }
      _fd = ::open((_path + "/table.tbl").c_str(), O_RDWR | O_CLOEXEC);
      struct stat status = {};
      FUZZ_CHECK(::fstat(_fd, &status) == 0);
      _whole.resize(static_cast<std::size_t>(status.st_size));
      FUZZ_CHECK(::pread(_fd, _whole.data(), _whole.size(), 0) ==
                 static_cast<ssize_t>(_whole.size()));
   }
   ~Table() {
      ::close(_fd);
      std::filesystem::remove_all(_path);
   }
   Table(const Table&) = delete;
   Table& operator=(const Table&) = delete;

   TableDirectory directory() const { return TableDirectory(_path); }
   const std::vector<std::uint8_t>& whole() const noexcept { return _whole; }

   void contentsAre(const std::vector<std::uint8_t>& bytes) const {
      FUZZ_CHECK(::ftruncate(_fd, static_cast<off_t>(bytes.size())) == 0);
      FUZZ_CHECK(::pwrite(_fd, bytes.data(), bytes.size(), 0) ==
                 static_cast<ssize_t>(bytes.size()));
   }

private:
   std::string _path;
   int _fd = -1;
   std::vector<std::uint8_t> _whole;
};

/// Runs `work`; that it throws what the interface says is as good as that it does not.
template <typename Work>
void attempt(const Work& work) {
   try {
      work();
   } catch (const CorruptionException&) {
   } catch (const std::system_error&) {
   }
}

void look(TableMount& mount) {
   std::vector<std::uint64_t> key(mount.keyWords());
   std::vector<std::uint64_t> record(mount.recordWords());
   attempt([&] {
      std::size_t found = 0;
      for (std::uint32_t position = 0;;) {
         const std::uint32_t before = position;
         const std::optional<std::size_t> size = mount.next(position, key, record);
         if (!size) {
            break;
         }
         FUZZ_CHECK(position > before && *size <= mount.shape().recordSize);
         FUZZ_CHECK(++found <= mount.shape().maxRecords);
      }
   });
   for (std::uint32_t wanted = 0; wanted < records + 10 && mount.shape().keySize == 4; ++wanted) {
      attempt([&] {
         const std::optional<std::size_t> size = mount.get(bytesOf(wanted), record);
         FUZZ_CHECK(!size || *size <= mount.shape().recordSize);
      });
   }
   attempt([&] { FUZZ_CHECK(mount.count() <= mount.shape().maxRecords); });
   attempt([&] { FUZZ_CHECK(mount.audit().problems.size() <= 100); });
   attempt([&] { mount.arm(); });
   attempt([&] {
      for (unsigned i = 0; i < 100 && mount.nextChange(key) != TableMount::Change::none; ++i) {
      }
   });
}

void write(const TableDirectory& directory) {
   attempt([&] {
      TableMount mount(directory, "table", {.role = TableRole::writer, .shape = shape()});
      const std::vector<std::uint8_t> record(24, 1);
      std::vector<std::uint64_t> removed(mount.recordWords());
      for (std::uint32_t key = 0; key < records + 10; key += 3) {
         attempt([&] { mount.put(bytesOf(key), record); });
         attempt([&] { mount.del(bytesOf(key + 1), removed); });
      }
      look(mount);
   });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   static const Table table;
   std::vector<std::uint8_t> bytes = table.whole();
   // Mounted while it is whole: the damage comes later.
   table.contentsAre(bytes);
   TableMount early(table.directory(), "table", {.role = TableRole::reader, .shape = shape()});
   for (std::size_t at = 0; at + 4 <= size;) {
      const std::size_t where = data[at] | data[at + 1] << 8 | data[at + 2] << 16;
      std::size_t length = data[at + 3];
      at += 4;
      length = std::min({length, size - at, where < bytes.size() ? bytes.size() - where : 0});
      std::copy_n(data + at, length, bytes.data() + std::min(where, bytes.size()));
      at += length;
   }
   // Who holds the lock is a matter of waiting for it, which the unit tests do.
   std::memset(bytes.data() + 4096, 0, 4);
   table.contentsAre(bytes);
   look(early);
   attempt([&] {
      TableMount late(table.directory(), "table", {.role = TableRole::reader});
      look(late);
   });
   write(table.directory());
   look(early);
   return 0;
}
