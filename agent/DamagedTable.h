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

   /// Nobody in this process has it mounted. With `isRecord` every record that is undamaged and one
   /// goes into the new table; without, it is empty. Throws what making a table throws; then there
   /// may be none.
   Outcome replace(const Platform::Tables::TableShape& shape,
                   const Platform::Tables::TableBase::MountOptions& options,
                   const IsRecord& isRecord) const;

private:
   std::string _path(const std::string& suffix) const;
   std::string _keep() const;

   const Platform::Tables::TableDirectory _directory;
   const std::string _name;
};

} // namespace Agent
