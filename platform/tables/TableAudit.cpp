#include "platform/tables/private/TableAudit.h"

#include <algorithm>

namespace Platform::Tables {

namespace {

constexpr const char* badCounter = "a counter of the table fails its check: number";
constexpr const char* badIndex = "the index descriptor fails its check";

} // namespace

void TableAudit::_controlWords(const TableImage& image, Result& result) noexcept {
   using Control = TableImage::Control;
   Word ignored = 0;
   const struct {
      Control control;
      Word& value;
   } words[] = {{Control::index, ignored},
                {Control::count, ignored},
                {Control::highWater, result.slots},
                {Control::freeHead, ignored},
                {Control::allocated, ignored},
                {Control::tombstones, result.tombstones},
                {Control::recoveries, result.recoveries},
                {Control::reserved, ignored},
                {Control::journalHead, result.changes}};
   for (const auto& word : words) {
      if (!image.control(word.control, word.value)) {
         result.problemIs(badCounter, static_cast<Word>(word.control));
      }
   }
   if (result.slots > image.geometry().maxRecords) {
      result.problemIs("more slots than the table can have:", result.slots);
      result.slots = 0;
   }
}

void TableAudit::_slots(const TableImage& image, bool still, Word* record,
                        Result& result) noexcept {
   Word key[wordsFor(256)];
   for (std::uint32_t slot = 0; slot < result.slots; ++slot) {
      TableImage::Place place;
      Finding finding;
      unsigned attempts = 0;
      do {
         finding = image.readSlot(slot, key, record, place);
      } while (finding.kind == Finding::Kind::changing && ++attempts < 10000);
      if (finding.kind == Finding::Kind::absent) {
         ++result.freeSlots;
         continue;
      }
      if (!finding.isDone()) {
         result.problemIs(finding.what, finding.where);
         continue;
      }
      ++result.records;
      if (still) {
         const TableImage::Key wanted{key, image.keyHash(key)};
         const Finding found = image.find(wanted, record, place, TableImage::Content::skipped);
         if (!found.isDone() || place.slot != slot) {
            result.problemIs("a record is not to be found through the index, in slot", slot);
         }
      }
   }
}

void TableAudit::_index(const TableImage& image, bool still, Result& result) noexcept {
   const Word* const control = image._control(TableImage::Control::index);
   const Word descriptor = loadAcquire(control);
   TableImage::Index index;
   if (!image._indexOf(descriptor, index)) {
      result.problemIs(badIndex);
      return;
   }
   const std::uint32_t problemsBefore = result.problemCount;
   const Word slots = still ? result.slots : image.geometry().maxRecords;
   result.indexEntries = index.mask + 1;
   Word used = 0;
   Word tombstones = 0;
   for (Word position = 0; position <= index.mask; ++position) {
      Word value = 0;
      if (!Seal::unseal(loadAcquire(index.entries + position), index.entrySalt(position), value)) {
         result.problemIs("an index entry fails its check:", position);
      } else if (value >> TableImage::tagBits > slots) {
         result.problemIs("an index entry leads nowhere:", position);
      } else if (value >> TableImage::tagBits != 0) {
         ++used;
      } else if (value == TableImage::tombstone) {
         ++tombstones;
      }
   }
   if (!still) {
      fenceAcquire();
      if (loadRelaxed(control) != descriptor) {
         result.problemCount = problemsBefore; // it is being filled for another use
      }
      return;
   }
   if (used != result.records) {
      result.problemIs("the index has another number of entries than there are records:", used);
   }
   if (tombstones != result.tombstones) {
      result.problemIs("the number of tombstones in the index is not what it is said to be:",
                       tombstones);
   }
}

void TableAudit::_freeList(const TableImage& image, Result& result) noexcept {
   Word next = 0;
   Word length = 0;
   if (!image.control(TableImage::Control::freeHead, next)) {
      return; // has been found
   }
   for (; next != 0 && length <= result.freeSlots; ++length) {
      if (next > result.slots) {
         result.problemIs("the list of free slots leads nowhere, after slots:", length);
         return;
      }
      const auto slot = static_cast<std::uint32_t>(next - 1);
      Word meta = 0;
      if (!Seal::unseal(loadAcquire(image._slot(slot)), image._slotSalt(slot), meta) ||
          (meta & TableImage::liveBit) ||
          !Seal::unseal(loadRelaxed(image._link(slot)), image._linkSalt(slot), next)) {
         result.problemIs("the list of free slots fails its check, at slot", slot);
         return;
      }
   }
   if (length != result.freeSlots) {
      result.problemIs("the list of free slots has another length than there are free slots:",
                       length);
   }
}

void TableAudit::_journal(const TableImage& image, Result& result) noexcept {
   // The oldest is the one that the next change overwrites.
   const Word known = std::min<Word>(result.changes, image.geometry().journalEntries - 1);
   Word key[wordsFor(256)];
   for (Word number = result.changes - known; number < result.changes; ++number) {
      std::uint32_t origin = 0;
      if (image.change(number, key, origin) == TableImage::ChangeState::corrupted) {
         result.problemIs("an entry of the journal fails its check: number", number);
      }
   }
}

void TableAudit::run(const TableImage& image, bool still, Word* record, Result& result) noexcept {
   _controlWords(image, result);
   _slots(image, still, record, result);
   _journal(image, result);
   _index(image, still, result);
   if (!still) {
      return;
   }
   _freeList(image, result);
   Word count = 0;
   if (image.control(TableImage::Control::count, count) && count != result.records) {
      result.problemIs("there are another number of records than are counted:", count);
   }
   Word allocated = 0;
   if (image.control(TableImage::Control::allocated, allocated) && allocated < result.slots) {
      result.problemIs("fewer slots have memory than are used:", allocated);
   }
}

} // namespace Platform::Tables
