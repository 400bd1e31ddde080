#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/entity/Export.h"
#include "platform/tables/CorruptionException.h"
#include "platform/tables/MountInfo.h"
#include "platform/tables/TableDirectory.h"
#include "platform/tables/TableRole.h"
#include "platform/tables/TableShape.h"

namespace Platform::Tables {

/// A shared table as one process has it mounted: records of bytes under keys of bytes, in memory
/// that any process may map. What typed tables (Table.h) stand on.
///
/// Reading never waits for anybody, whatever state writers are in, and needs no right to write the
/// table. Writers take turns; one that dies at any instant leaves nothing undone: what it had
/// committed is there, the rest never happened, and the next writer goes on. Every write is seen by
/// all who look after it has returned.
///
/// Owned by whoever mounts; destroying it unmounts. Used by one thread at a time. A child process
/// forked off may read through it, and no more. A program that has a handler for SIGBUS of its own
/// installs it before its first mount.
///
/// Functions that look at the table throw CorruptionException where it is damaged, a file that was
/// cut off included; those that change it also std::system_error: EACCES for a reader's mount,
/// EBUSY for a quiesced one, EPERM in a forked child, ETIMEDOUT when another writer has held the
/// table for five seconds (all of the generic category).
class TARN_PLATFORM_API TableMount {
public:
   struct Options {
      TableRole role = TableRole::reader;
      /// What the table has to be made for: a table of another key, record or sizes is refused.
      /// Without it any table is taken, which is for tools.
      std::optional<TableShape> shape = std::nullopt;
      /// Makes the table if there is none; needs `shape`. A reader may do so as well, and then
      /// waits for what writers put in.
      bool create = false;
      /// Of the files that are made: mode, of which the writing bits decide who may be a writer,
      /// and group, -1 for that of the process.
      mode_t mode = 0660;
      gid_t group = static_cast<gid_t>(-1);
   };

   /// Mounts the table `name`. A writer looks through all of it first.
   ///
   /// Throws std::system_error: ENOENT (system category) if there is none; EINVAL (generic) if it
   /// is made for something else, or the shape is out of range; EMFILE (generic) if it has been
   /// mounted 1,023 times; failed system calls. CorruptionException if the file is no table, has
   /// another layout, or is damaged.
   TableMount(const TableDirectory& directory, const std::string& name, const Options& options);
   ~TableMount();

   TableMount(const TableMount&) = delete;
   TableMount& operator=(const TableMount&) = delete;

   const std::string& name() const noexcept;
   TableRole role() const noexcept;

   /// What the table was made for.
   const TableShape& shape() const noexcept;

   /// Words that a record's copy may need: what `record` holds in the functions below.
   std::size_t recordWords() const noexcept;
   std::size_t keyWords() const noexcept;

   /// Which write of which record: two that are equal are of one write, and of one key. (But for
   /// one whose record has been written 2^30 times in between, or a multiple of that.)
   struct Stamp {
      std::uint64_t state = 0; ///< 0 is no record's
      std::uint32_t slot = 0;

      friend bool operator==(const Stamp&, const Stamp&) = default;
   };

   /// Finds a record. Copies its bytes to `record` and returns how many there are; none if no
   /// record has the key. Keys are as long as the table says, else std::system_error EINVAL
   /// (generic).
   std::optional<std::size_t> get(std::span<const std::uint8_t> key,
                                  std::span<std::uint64_t> record) const;

   /// The same, with the stamp of the write that made the record so; unchanged if there is none.
   std::optional<std::size_t> get(std::span<const std::uint8_t> key,
                                  std::span<std::uint64_t> record, Stamp& stamp) const;

   /// Inserts or replaces a record of 0 to recordSize bytes, more are EINVAL (generic). Returns
   /// whether the key is new. Throws also std::system_error ENOBUFS (generic) when the table is
   /// full, and ENOSPC (system) when there is no memory for more; nothing has changed then.
   bool put(std::span<const std::uint8_t> key, std::span<const std::uint8_t> record);

   /// Removes a record, copies its bytes to `record` and returns how many there were; none if there
   /// was no such record.
   std::optional<std::size_t> del(std::span<const std::uint8_t> key,
                                  std::span<std::uint64_t> record);

   /// Looks at all that a put() or del() of `key` would look at, and changes nothing: throws what
   /// these would throw of damage, of the lock, and of who may write. For who must not be stopped
   /// by a write that meets damage; what others damage after that is not known.
   void checkWrite(std::span<const std::uint8_t> key) const;

   /// Records in the table.
   std::size_t count() const;

   /// Steps through the table: finds the next record from `position` on, which starts at 0 and is
   /// moved behind it. Returns its length, none at the end. In no order; what others write
   /// meanwhile may be seen or not, each record being whole.
   std::optional<std::size_t> next(std::uint32_t& position, std::span<std::uint64_t> key,
                                   std::span<std::uint64_t> record) const;
   std::optional<std::size_t> next(std::uint32_t& position, std::span<std::uint64_t> key,
                                   std::span<std::uint64_t> record, Stamp& stamp) const;

   /// What happened since the last call, by other mounts.
   enum class Change {
      none,
      changed, ///< the record of a key was inserted, replaced or removed, or at least looked so
      missed,  ///< more than the table remembers: any record may have changed
   };

   /// The next change that another mount made, whose key goes to `key`.
   Change nextChange(std::span<std::uint64_t> key);

   /// Whether what was just read may be of a change that nextChange() has still to tell. Cheap.
   bool isBehind() const noexcept;

   /// The change that a writer has prepared, and perhaps committed before it died; it is told again
   /// once another writer publishes it. For who was woken without finding a change.
   bool preparedChange(std::span<std::uint64_t> key) const;

   /// Asks to be woken at the next change by others. False: there is one already.
   bool arm();

   /// Whether arm() has an effect: writers cannot be told by a reader that may not write NAME.ctl,
   /// which therefore has to look from time to time.
   bool canBeWoken() const noexcept;

   /// The descriptor of the file by which sleepers are woken: it is written to, and closed after
   /// writing. Stays the mount's; for inotify.
   int bellFd() const noexcept;

   /// A quiesced mount refuses to write, and says so to whoever lists the mounts. For a process
   /// that hands its tables over, or wants them to stand still. Throws std::system_error.
   void quiescedIs(bool quiesced);
   bool quiesced() const noexcept;

   /// All mounts of the table in all processes; none if this one may not know. Throws
   /// std::system_error.
   std::vector<MountInfo> mounts() const;

   /// What a look through the table finds.
   struct Audit {
      std::size_t records = 0;
      std::size_t slots = 0; ///< Ever used, so at most so many records at once so far.
      std::size_t freeSlots = 0;
      std::size_t indexEntries = 0; ///< Size of the index in use.
      std::size_t tombstones = 0;
      std::uint64_t changes = 0;         ///< Ever published.
      std::uint64_t recoveries = 0;      ///< From writers that died at work.
      std::size_t bytes = 0;             ///< Memory that the table takes.
      std::vector<std::string> problems; ///< Up to 100 of them; none: nothing is wrong.
   };

   /// Looks through all of the table. A writer does so with the table held still and checks that
   /// everything fits together; a reader, beside writers, checks everything by itself.
   Audit audit() const;

private:
   class Impl;
   std::unique_ptr<Impl> _impl;
};

} // namespace Platform::Tables
