#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/tables/TableShape.h"

namespace Platform::Tables {

/// Where everything is in a table's file. Follows from the shape alone, so that nothing in the file
/// has to be believed.
///
///     page 0    immutable: what the table is (Header)
///     page 1    control words: lock, index descriptor, counters, journal head (Control)
///     journal   a ring of the latest changes
///     index 0   two regions of hash index, of which one is in use;
///     index 1   growing and mending fill the other and switch
///     slots     the records; they never move
///
/// The file is as long as the largest table, with holes: memory is only taken for what is used.
struct Geometry {
   explicit Geometry(const TableShape& shape) noexcept;

   static constexpr std::size_t pageSize = 4096;
   static constexpr std::size_t headerOffset = 0;
   static constexpr std::size_t controlOffset = pageSize;
   static constexpr std::size_t journalOffset = 2 * pageSize;
   /// The smallest index: it fills a page.
   static constexpr unsigned minIndexLog2 = 9;

   std::uint32_t keySize;
   std::uint32_t recordSize;
   std::uint32_t maxRecords;
   std::uint32_t journalEntries;

   std::size_t keyWords;
   std::size_t recordWords;
   std::size_t journalStride; // bytes
   unsigned maxIndexLog2;
   std::size_t indexOffset[2];
   std::size_t slotsOffset;
   std::size_t slotStride; // bytes
   std::size_t fileSize;
};

/// Throws std::system_error EINVAL (generic category) naming what is outside its range.
void checkShape(const TableShape& shape);

} // namespace Platform::Tables
