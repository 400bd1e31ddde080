#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "platform/tables/TableBase.h"
#include "platform/tables/TableDirectory.h"
#include "platform/tables/TableShape.h"

namespace Agent {

/// Puts a new table in place of one that is damaged.
///
/// The damaged file is kept beside the tables, as NAME.damaged, with the one before it as
/// NAME.damaged.old, for who wants to look into it; more are not kept. Its memory is cut off under
/// everybody who still has it mounted, so that each of them meets the damage too, and nobody goes
/// on reading what is not true any more, or writing what nobody is going to read.
///
/// First of all nobody can write it any more, so that nothing is accepted that is not looked at.
/// What can be read of it is put into another table, NAME/salvaged, before anything is removed,
/// and that one goes with settle(), when the new table has it all. So nothing of it is lost when
/// the process is killed in the middle; whoever mounts the table next looks whether it was.
class DamagedTable {
public:
   /// Whether these bytes are a record of the table, under its key.
   using IsRecord =
      std::function<bool(std::span<const std::uint8_t> key, std::span<const std::uint8_t> record)>;

   struct Outcome {
      std::size_t kept = 0; ///< records that are in the new table
      std::size_t lost = 0; ///< records that could not be read
      bool isKnown = false; ///< whether `lost` is all of them: otherwise there may have been more
      std::string file;     ///< where the damaged one is; empty if it could not be kept
   };

   DamagedTable(Platform::Tables::TableDirectory directory, std::string name)
      : _directory(std::move(directory)), _name(std::move(name)) {}

   /// Whether a replacement that keeps records was begun and is not settled: who began it has
   /// ended in the middle.
   bool isInterrupted() const;

   /// Does the rest of a replacement that was interrupted. A record that the table has is newer,
   /// and stays; one that was removed since is there again. How many were lost is not known any
   /// more. Throws what making a table throws, CorruptionException if the table is damaged again:
   /// then it is to be replaced.
   Outcome finish(const Platform::Tables::TableShape& shape,
                  const Platform::Tables::TableBase::MountOptions& options,
                  const IsRecord& isRecord) const;

   /// Nobody in this process has it mounted. With `isRecord` every record that is undamaged and one
   /// goes into the new table; without, it is empty. Throws what making a table throws; then there
   /// may be none, and it is interrupted.
   Outcome replace(const Platform::Tables::TableShape& shape,
                   const Platform::Tables::TableBase::MountOptions& options,
                   const IsRecord& isRecord) const;

   /// Ends what finish() or replace() did: called when everything that follows from the outcome has
   /// been done. Until then it counts as interrupted.
   void settle() const;

private:
   std::string _spareName() const { return _name + "/salvaged"; }
   std::string _path(const std::string& suffix) const;
   std::string _keep() const;
   void _remove() const;
   void _close() const;

   const Platform::Tables::TableDirectory _directory;
   const std::string _name;
};

} // namespace Agent
