#include "agent/DamagedTable.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <set>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/tables/TableMount.h"
#include "platform/trace/Trace.h"
#include "TarnRegFile/Utils.h"

namespace Agent {

namespace {

TARN_TRACE_SOURCE(traceSource, "agent/DamagedTable");

using Platform::Tables::CorruptionException;
using Platform::Tables::TableMount;
using Platform::Tables::TableRole;
using TarnRegFile::Utils::UnixFdRes;

using Bytes = std::vector<std::uint8_t>;
using Words = std::vector<std::uint64_t>;

constexpr int safely = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;

Bytes bytesOf(const Words& words, std::size_t size) {
   const auto* const begin = reinterpret_cast<const std::uint8_t*>(words.data());
   return Bytes(begin, begin + size);
}

/// Copies what a file holds, and leaves its holes out. False if that does not work.
bool copied(int from, int to) {
   struct stat status = {};
   if (::fstat(from, &status) != 0 || ::ftruncate(to, status.st_size) != 0) {
      return false;
   }
   std::array<char, 65536> buffer;
   for (off_t at = 0; at < status.st_size;) {
      at = ::lseek(from, at, SEEK_DATA);
      if (at < 0) {
         return errno == ENXIO; // only a hole is left
      }
      const off_t end = ::lseek(from, at, SEEK_HOLE);
      while (at < end) {
         const auto wanted = std::min(buffer.size(), static_cast<std::size_t>(end - at));
         const ssize_t size = ::pread(from, buffer.data(), wanted, at);
         if (size <= 0 || ::pwrite(to, buffer.data(), static_cast<std::size_t>(size), at) != size) {
            return false;
         }
         at += size;
      }
   }
   return true;
}

struct Salvage {
   std::vector<std::pair<Bytes, Bytes>> records;
   std::size_t lost = 0;
   bool isKnown = false;
};

/// Whether somebody has put there what is no such table, or one that is not to be written.
bool isOther(const std::error_code& code) {
   return code == std::errc::invalid_argument || code == std::errc::too_many_symbolic_link_levels ||
          code == std::errc::too_many_links || code == std::errc::permission_denied ||
          code == std::errc::operation_not_permitted;
}

Salvage salvaged(const Platform::Tables::TableDirectory& directory, const std::string& name,
                 const DamagedTable::IsRecord& isRecord) {
   Salvage salvage;
   try {
      // As a reader, who need not find everything in order.
      const TableMount mount(directory, name, {});
      Words key(mount.keyWords());
      Words record(mount.recordWords());
      for (std::uint32_t position = 0;;) {
         const std::uint32_t before = position;
         try {
            const std::optional<std::size_t> size = mount.next(position, key, record);
            if (!size) {
               salvage.isKnown = true;
               break;
            }
            std::pair<Bytes, Bytes> found(bytesOf(key, mount.shape().keySize),
                                          bytesOf(record, *size));
            if (isRecord(found.first, found.second)) {
               salvage.records.push_back(std::move(found));
            } else {
               ++salvage.lost;
            }
         } catch (const CorruptionException&) {
            if (position == before) {
               break; // it is not known how many there are
            }
            ++salvage.lost;
         }
      }
   } catch (const CorruptionException&) {
      // Nothing of it can be read.
   }
   return salvage;
}

/// What is left from an earlier time, of which `salvage` has nothing newer, is added.
void added(const Salvage& older, Salvage& salvage) {
   // As texts: optimising, GCC 12 takes the comparison of byte vectors for one that overruns.
   const auto textOf = [](const Bytes& key) { return std::string(key.begin(), key.end()); };
   std::set<std::string> keys;
   for (const auto& [key, record] : salvage.records) {
      keys.insert(textOf(key));
   }
   for (const auto& entry : older.records) {
      if (!keys.contains(textOf(entry.first))) {
         salvage.records.push_back(entry);
      }
   }
   salvage.lost += older.lost;
   salvage.isKnown = false; // who left it may have lost more
}

void deleted(const Platform::Tables::TableDirectory& directory, const std::string& name) {
   try {
      directory.tableDel(name, true);
   } catch (const std::system_error& error) {
      if (error.code().value() != ENOENT) {
         throw;
      }
   }
}

TableMount::Options mountOptions(const Platform::Tables::TableShape& shape,
                                 const Platform::Tables::TableBase::MountOptions& options) {
   return {.role = TableRole::writer,
           .shape = shape,
           .create = true,
           .mode = options.mode,
           .group = options.group};
}

void putAll(const Platform::Tables::TableDirectory& directory, const std::string& name,
            const TableMount::Options& options, const Salvage& salvage) {
   TableMount mount(directory, name, options);
   for (const auto& [key, record] : salvage.records) {
      mount.put(key, record);
   }
}

/// Puts what was salvaged where it survives the process.
void saved(const Platform::Tables::TableDirectory& directory, const std::string& name,
           const TableMount::Options& options, const Salvage& salvage) {
   try {
      putAll(directory, name, options, salvage);
      return;
   } catch (const CorruptionException&) {
      // It was looked through already.
   } catch (const std::system_error& error) {
      if (!isOther(error.code())) {
         throw;
      }
   }
   deleted(directory, name);
   putAll(directory, name, options, salvage);
}

} // namespace

std::string DamagedTable::_path(const std::string& suffix) const {
   return _directory.path() + '/' + Platform::Tables::TableDirectory::fileName(_name) + suffix;
}

/// Copies the table's file; empty if it cannot be kept.
std::string DamagedTable::_keep() const {
   std::string kept = _path(".damaged");
   const UnixFdRes from(::open(_path(".tbl").c_str(), O_RDONLY | safely));
   if (from.fd() < 0) {
      return "";
   }
   std::rename(kept.c_str(), (kept + ".old").c_str());
   const UnixFdRes to(::open(kept.c_str(), O_WRONLY | O_CREAT | O_EXCL | safely, 0600));
   if (to.fd() < 0 || !copied(from.fd(), to.fd())) {
      ::unlink(kept.c_str());
      return "";
   }
   return kept;
}

/// Removes the table, and cuts it off under who has it mounted: first, as nobody finds the file
/// again once its name has gone.
void DamagedTable::_remove() const {
   const UnixFdRes old(::open(_path(".tbl").c_str(), O_WRONLY | safely));
   const UnixFdRes bell(::open(_path(".bell").c_str(), O_WRONLY | safely));
   // Closing the bell wakes who sleeps; that nothing more can be done for them is no failure.
   static_cast<void>(old.fd() >= 0 && ::ftruncate(old.fd(), 0) == 0);
   deleted(_directory, _name);
}

/// Nobody writes the table any more.
void DamagedTable::_close() const {
   try {
      _directory.tableSpoil(_name);
   } catch (const std::system_error& error) {
      // One that only another user may write is replaced as it is.
      TARN_TRACE(traceSource, 1, "close", "{}", error.what());
   }
}

bool DamagedTable::isInterrupted() const {
   struct stat status;
   const std::string spare = Platform::Tables::TableDirectory::fileName(_spareName()) + ".tbl";
   return ::lstat((_directory.path() + '/' + spare).c_str(), &status) == 0;
}

DamagedTable::Outcome DamagedTable::finish(const Platform::Tables::TableShape& shape,
                                           const Platform::Tables::TableBase::MountOptions& options,
                                           const IsRecord& isRecord) const {
   Salvage salvage;
   try {
      salvage = salvaged(_directory, _spareName(), isRecord);
   } catch (const std::system_error& error) {
      if (!isOther(error.code()) || error.code() == std::errc::permission_denied) {
         throw; // its records may be readable for somebody else
      }
   }
   Outcome outcome;
   outcome.lost = salvage.lost;
   {
      TableMount mount(_directory, _name, mountOptions(shape, options));
      std::vector<std::uint64_t> record(mount.recordWords());
      for (const auto& [key, saved] : salvage.records) {
         if (!mount.get(key, record)) {
            mount.put(key, saved);
            ++outcome.kept;
         }
      }
   }
   return outcome;
}

void DamagedTable::settle() const {
   deleted(_directory, _spareName());
}

DamagedTable::Outcome
DamagedTable::replace(const Platform::Tables::TableShape& shape,
                      const Platform::Tables::TableBase::MountOptions& options,
                      const IsRecord& isRecord) const {
   Salvage salvage;
   if (isRecord) {
      _close();
      salvage = salvaged(_directory, _name, isRecord);
      if (isInterrupted()) {
         Salvage older;
         try {
            older = salvaged(_directory, _spareName(), isRecord);
         } catch (const std::system_error& error) {
            if (!isOther(error.code())) {
               throw;
            }
         }
         added(older, salvage);
      }
      saved(_directory, _spareName(), mountOptions(shape, options), salvage);
   }
   const std::string file = _keep();
   _remove();
   Outcome outcome;
   if (isRecord) {
      outcome = finish(shape, options, isRecord);
   } else {
      static_cast<void>(TableMount(_directory, _name, mountOptions(shape, options)));
   }
   outcome.file = file;
   outcome.lost = std::max(outcome.lost, salvage.lost);
   outcome.isKnown = salvage.isKnown;
   return outcome;
}

} // namespace Agent
