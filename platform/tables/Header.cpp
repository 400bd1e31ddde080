#include "platform/tables/private/Header.h"

#include <algorithm>
#include <cstring>
#include <system_error>

#include <fmt/format.h>

#include "platform/tables/private/Geometry.h"
#include "platform/tables/private/Seal.h"

namespace Platform::Tables {

namespace {

constexpr char tableMagic[8] = {'T', 'a', 'r', 'n', 'T', 'b', 'l', '\n'};
// Changes with every change of what the bytes of a table mean.
constexpr std::uint32_t tableLayout = 1;
constexpr std::uint32_t ownByteOrder = 0x01020304;
constexpr std::uint32_t otherByteOrder = 0x04030201;

std::uint64_t checkOf(const Header& header) noexcept {
   return hashOf(&header, offsetof(Header, check));
}

std::string nameIn(const char (&text)[48]) {
   return std::string(text, ::strnlen(text, sizeof text));
}

} // namespace

Header Header::of(const TableShape& shape, std::uint64_t tableId) noexcept {
   Header header = {};
   std::copy(std::begin(tableMagic), std::end(tableMagic), header.magic);
   header.layout = tableLayout;
   header.byteOrder = ownByteOrder;
   header.keySize = shape.keySize;
   header.recordSize = shape.recordSize;
   header.maxRecords = shape.maxRecords;
   header.journalEntries = shape.journalEntries;
   header.tableId = tableId;
   shape.keyType.copy(header.keyType, sizeof header.keyType - 1);
   shape.recordType.copy(header.recordType, sizeof header.recordType - 1);
   header.check = checkOf(header);
   return header;
}

std::string Header::objection() const {
   if (!std::equal(std::begin(tableMagic), std::end(tableMagic), magic)) {
      return "it is no shared table";
   }
   if (byteOrder == otherByteOrder) {
      return "it was made by a machine of the other byte order";
   }
   if (layout != tableLayout) {
      return fmt::format("it has layout {}, and this program knows layout {}", layout, tableLayout);
   }
   if (byteOrder != ownByteOrder || check != checkOf(*this)) {
      return "its header fails its check";
   }
   try {
      checkShape(shape());
   } catch (const std::system_error& error) {
      return error.what();
   }
   return "";
}

TableShape Header::shape() const {
   return {.keyType = nameIn(keyType),
           .recordType = nameIn(recordType),
           .keySize = keySize,
           .recordSize = recordSize,
           .maxRecords = maxRecords,
           .journalEntries = journalEntries};
}

} // namespace Platform::Tables
