#pragma once

#include <cstdint>

#include "platform/tables/private/TableImage.h"

namespace Platform::Tables {

/// Looks through a table's memory for what cannot be.
class TableAudit {
public:
   /// Counts of what was found.
   struct Result {
      Word records = 0;
      Word slots = 0;
      Word freeSlots = 0;
      Word indexEntries = 0;
      Word tombstones = 0;
      Word changes = 0;
      Word recoveries = 0;
      std::uint32_t problemCount = 0;
      static constexpr std::uint32_t maxProblems = 100;
      Finding problems[maxProblems];

      void problemIs(const char* what, Word where = 0) noexcept {
         if (problemCount < maxProblems) {
            problems[problemCount++] = Finding::corrupted(what, where);
         }
      }
   };

   /// `still`: nobody writes meanwhile, so all parts have to fit together. `record` holds
   /// Geometry::recordWords words.
   static void run(const TableImage& image, bool still, Word* record, Result& result) noexcept;

private:
   static void _controlWords(const TableImage& image, Result& result) noexcept;
   static void _slots(const TableImage& image, bool still, Word* record, Result& result) noexcept;
   static void _index(const TableImage& image, bool still, Result& result) noexcept;
   static void _freeList(const TableImage& image, Result& result) noexcept;
   static void _journal(const TableImage& image, Result& result) noexcept;
};

} // namespace Platform::Tables
