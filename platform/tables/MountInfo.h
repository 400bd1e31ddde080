#pragma once

#include <cstdint>
#include <string>

#include "platform/tables/TableRole.h"

namespace Platform::Tables {

/// One mount of a table, as it has registered itself.
struct MountInfo {
   std::uint32_t index = 0; ///< Its place among the table's mounts.
   std::uint32_t pid = 0;   ///< As its own process namespace numbers it.
   TableRole role = TableRole::reader;
   bool quiesced = false;
   std::string program; ///< The name of the program, cut to 63 bytes.
};

} // namespace Platform::Tables
