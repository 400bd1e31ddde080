#include "platform/tables/private/Geometry.h"

#include <bit>
#include <cerrno>
#include <string_view>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/tables/private/SharedWords.h"

namespace Platform::Tables {

namespace {

constexpr std::size_t typeNameBytes = 47;

constexpr std::size_t roundedUp(std::size_t size, std::size_t unit) noexcept {
   return (size + unit - 1) / unit * unit;
}

void checkRange(std::string_view what, std::uint32_t value, std::uint32_t low, std::uint32_t high) {
   if (value < low || value > high) {
      throwError(EINVAL,
                 fmt::format("a table's {} must be {} to {}, not {}", what, low, high, value));
   }
}

void checkTypeName(std::string_view what, const std::string& name) {
   if (name.size() > typeNameBytes || name.find('\0') != std::string::npos) {
      throwError(EINVAL, fmt::format("the name of a table's {} type must be up to {} bytes, none "
                                     "of them zero",
                                     what, typeNameBytes));
   }
}

} // namespace

void checkShape(const TableShape& shape) {
   checkTypeName("key", shape.keyType);
   checkTypeName("record", shape.recordType);
   checkRange("key size", shape.keySize, 1, 256);
   checkRange("record size", shape.recordSize, 1, 65535);
   checkRange("number of records", shape.maxRecords, 1, 1U << 26);
   checkRange("number of journal entries", shape.journalEntries, 16, 1U << 20);
   if (!std::has_single_bit(shape.journalEntries)) {
      throwError(EINVAL, fmt::format("a table's number of journal entries must be a power of two, "
                                     "not {}",
                                     shape.journalEntries));
   }
}

Geometry::Geometry(const TableShape& shape) noexcept
   : keySize(shape.keySize), recordSize(shape.recordSize), maxRecords(shape.maxRecords),
     journalEntries(shape.journalEntries), keyWords(wordsFor(shape.keySize)),
     recordWords(wordsFor(shape.recordSize)) {
   // Sequence number; origin and check; key.
   journalStride = (2 + keyWords) * sizeof(Word);
   // At the most half full, so that a probe is short and always meets an empty entry.
   maxIndexLog2 = static_cast<unsigned>(std::bit_width(std::uint64_t{2} * maxRecords - 1));
   maxIndexLog2 = maxIndexLog2 < minIndexLog2 ? minIndexLog2 : maxIndexLog2;
   const std::size_t indexBytes = (std::size_t{1} << maxIndexLog2) * sizeof(Word);
   indexOffset[0] = roundedUp(journalOffset + journalEntries * journalStride, pageSize);
   indexOffset[1] = indexOffset[0] + indexBytes;
   slotsOffset = indexOffset[1] + indexBytes;
   // Meta; link of free slots; key; two buffers, each with its check. A small record stays within
   // one cache line.
   slotStride = roundedUp((2 + keyWords + 2 * (1 + recordWords)) * sizeof(Word), 64);
   fileSize = roundedUp(slotsOffset + slotStride * maxRecords, pageSize);
}

} // namespace Platform::Tables
