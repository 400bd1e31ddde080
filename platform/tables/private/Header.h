#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/tables/TableShape.h"

namespace Platform::Tables {

/// The immutable first page of a table's file, as it is stored: in the byte order of the machine,
/// which is part of what is checked.
struct Header {
   char magic[8];
   std::uint32_t layout;
   std::uint32_t byteOrder;
   std::uint32_t keySize;
   std::uint32_t recordSize;
   std::uint32_t maxRecords;
   std::uint32_t journalEntries;
   std::uint64_t tableId; // random; salts every check of the table
   char keyType[48];
   char recordType[48];
   std::uint64_t check; // over all of the above

   /// Of a new table.
   static Header of(const TableShape& shape, std::uint64_t tableId) noexcept;

   /// Why this is not the header of a table that this program can use, or empty. A copy of the
   /// page, never the shared memory itself.
   std::string objection() const;

   /// Only of a header without objection.
   TableShape shape() const;
};
static_assert(sizeof(Header) == 144);

} // namespace Platform::Tables
