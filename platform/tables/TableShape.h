#pragma once

#include <cstdint>
#include <string>

namespace Platform::Tables {

/// What a table is made for: fixed when it is created, the same for everybody who mounts it.
struct TableShape {
   /// Names of the types of key and record, up to 47 bytes each: what a mount for other types is
   /// refused by, and what people are shown.
   std::string keyType;
   std::string recordType;
   std::uint32_t keySize = 0;    ///< Bytes of every key: 1 to 256.
   std::uint32_t recordSize = 0; ///< Bytes of the longest record: 1 to 65,535.
   /// Records that the table can ever hold, 1 to 2^26. Memory is taken as they come; this only
   /// bounds it.
   std::uint32_t maxRecords = 1U << 20;
   /// Changes that the table remembers for readers that are behind, 16 to 2^20; a reader that has
   /// missed more looks through the whole table. A power of two.
   std::uint32_t journalEntries = 4096;

   bool operator==(const TableShape&) const = default;
};

} // namespace Platform::Tables
