#include "platform/tables/private/TableEditor.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

namespace Platform::Tables {

namespace {

constexpr const char* badDescriptor = "the index descriptor fails its check";
constexpr const char* badCounters = "a counter of the table fails its check";
constexpr const char* badFreeList = "the list of free slots fails its check, at slot";
constexpr const char* badState = "the state of a record fails its check, in slot";
constexpr const char* badRecord = "a record fails its check, in slot";
constexpr const char* badEntry = "an index entry fails its check:";

constexpr std::size_t pageOf(std::size_t offset) noexcept {
   return offset / Geometry::pageSize * Geometry::pageSize;
}

} // namespace

bool TableEditor::_currentIndex(Index& index) const noexcept {
   return _indexOf(loadAcquire(_control(Control::index)), index);
}

Word TableEditor::_entry(const Index& index, Word position, bool& intact) const noexcept {
   Word value = 0;
   intact = Seal::unseal(loadAcquire(index.entries + position), index.entrySalt(position), value);
   return value;
}

Word TableEditor::_nextMeta(Word value, std::uint32_t length, bool live) noexcept {
   const Word sequence = (value >> sequenceShift) + 1;
   // The buffer that was inactive becomes active. A removal leaves the buffers as they are.
   const Word active = live ? ~value & activeBit : value & activeBit;
   return sequence << sequenceShift | Word{length} << lengthShift | active | (live ? liveBit : 0);
}

int TableEditor::_allocate(std::size_t offset, std::size_t size) noexcept {
   const std::size_t begin = pageOf(offset);
   int error = 0;
   do {
      error = ::posix_fallocate(_fd, static_cast<off_t>(begin),
                                static_cast<off_t>(offset + size - begin));
   } while (error == EINTR);
   return error;
}

Finding TableEditor::format() noexcept {
   // The journal is read before it was ever run around, so its memory has to be there as well.
   if (const int error = _allocate(0, _shape.indexOffset[0])) {
      return {.kind = Finding::Kind::noSpace, .error = error};
   }
   for (const Control control :
        {Control::count, Control::highWater, Control::freeHead, Control::allocated,
         Control::tombstones, Control::recoveries, Control::reserved, Control::journalHead}) {
      _controlIs(control, 0);
   }
   _controlIs(Control::index, packedIndex(0, Geometry::minIndexLog2, 1));
   for (const std::size_t region : _shape.indexOffset) {
      if (const int error = _allocate(region, sizeof(Word) << Geometry::minIndexLog2)) {
         return {.kind = Finding::Kind::noSpace, .error = error};
      }
   }
   return _reindex(Geometry::minIndexLog2);
}

Finding TableEditor::_slotMemoryIs(Word highWater) noexcept {
   Word allocated = 0;
   if (!control(Control::allocated, allocated) || allocated > _shape.maxRecords ||
       highWater > allocated) {
      return Finding::corrupted(badCounters);
   }
   if (highWater < allocated) {
      return {};
   }
   // A quarter more each time: few system calls, and little memory for nothing.
   const Word more = std::clamp<Word>(allocated / 4, 64, 65536);
   const Word wanted = std::min<Word>(allocated + more, _shape.maxRecords);
   if (const int error = _allocate(_shape.slotsOffset + allocated * _shape.slotStride,
                                   (wanted - allocated) * _shape.slotStride)) {
      return {.kind = Finding::Kind::noSpace, .error = error};
   }
   _controlIs(Control::allocated, wanted);
   return {};
}

Finding TableEditor::_takeSlot(std::uint32_t& slot, Word& metaValue) noexcept {
   Word freeHead = 0;
   Word highWater = 0;
   if (!control(Control::freeHead, freeHead) || !control(Control::highWater, highWater) ||
       highWater > _shape.maxRecords || freeHead > highWater) {
      return Finding::corrupted(badCounters);
   }
   if (freeHead != 0) {
      slot = static_cast<std::uint32_t>(freeHead - 1);
      Word next = 0;
      if (!Seal::unseal(loadRelaxed(_slot(slot)), _slotSalt(slot), metaValue) ||
          (metaValue & liveBit) || !Seal::unseal(loadRelaxed(_link(slot)), _linkSalt(slot), next)) {
         return Finding::corrupted(badFreeList, slot);
      }
      _controlIs(Control::freeHead, next);
      return {};
   }
   if (highWater == _shape.maxRecords) {
      return {.kind = Finding::Kind::full};
   }
   const Finding memory = _slotMemoryIs(highWater);
   if (!memory.isDone()) {
      return memory;
   }
   slot = static_cast<std::uint32_t>(highWater);
   metaValue = 0;
   // Every slot below the mark has a state that can be checked.
   _metaIs(slot, _sealedMeta(slot, metaValue));
   _controlIs(Control::highWater, highWater + 1);
   return {};
}

void TableEditor::_giveBack(std::uint32_t slot) noexcept {
   Word freeHead = 0;
   if (control(Control::freeHead, freeHead)) {
      storeRelaxed(_mutable(_link(slot)), Seal::sealed(freeHead, _linkSalt(slot)));
      _controlIs(Control::freeHead, Word{slot} + 1);
   }
}

Finding TableEditor::_roomInIndex(bool& moved) noexcept {
   moved = false;
   Index index;
   Word count = 0;
   Word tombstones = 0;
   if (!_currentIndex(index)) {
      return Finding::corrupted(badDescriptor);
   }
   if (!control(Control::count, count) || !control(Control::tombstones, tombstones) ||
       count > _shape.maxRecords) {
      return Finding::corrupted(badCounters);
   }
   const Word size = index.mask + 1;
   if ((count + tombstones + 1) * 4 <= size * 3) {
      return {};
   }
   // At the most half full afterwards; the same size if it is tombstones that fill it.
   unsigned log2 = index.log2;
   while (log2 < _shape.maxIndexLog2 && (count + 1) * 2 > Word{1} << log2) {
      ++log2;
   }
   if (log2 > index.log2) {
      // Of both regions, so that neither the way back nor a recovery ever needs memory.
      for (const std::size_t region : _shape.indexOffset) {
         if (const int error = _allocate(region, sizeof(Word) << log2)) {
            return {.kind = Finding::Kind::noSpace, .error = error};
         }
      }
   }
   moved = true;
   return _reindex(log2);
}

Finding TableEditor::_reindex(unsigned log2) noexcept {
   Index old;
   Word highWater = 0;
   if (!_currentIndex(old)) {
      return Finding::corrupted(badDescriptor);
   }
   if (!control(Control::highWater, highWater) || highWater > _shape.maxRecords) {
      return Finding::corrupted(badCounters);
   }
   const Word descriptor = Seal::sealed(packedIndex(old.generation + 1, log2, old.region ^ 1),
                                        _controlSalt(Control::index));
   Index index;
   if (!_indexOf(descriptor, index)) {
      return Finding::corrupted(badDescriptor);
   }
   for (Word position = 0; position <= index.mask; ++position) {
      _entryIs(index, position, emptyEntry);
   }
   Word key[wordsFor(256)];
   for (std::uint32_t slot = 0; slot < highWater; ++slot) {
      // All of the record: one whose key is damaged would be put where nobody looks for it, and so
      // seem absent from then on.
      Place place;
      const Finding finding = readSlot(slot, key, _scratch, place);
      if (finding.kind == Finding::Kind::absent) {
         continue;
      }
      if (!finding.isDone()) {
         return Finding::corrupted(badRecord, slot);
      }
      const Word hash = keyHash(key);
      Word position = hash & index.mask;
      for (Word n = 0;; ++n) {
         bool intact = false;
         const Word found = _entry(index, position, intact);
         if (!intact || n > index.mask) {
            return Finding::corrupted(badEntry, position);
         }
         if (found == emptyEntry) {
            break;
         }
         position = (position + 1) & index.mask;
      }
      _entryIs(index, position, (Word{slot} + 1) << tagBits | tagOf(hash));
   }
   _controlIs(Control::tombstones, 0);
   storeRelease(_mutable(_control(Control::index)), descriptor);
   return {};
}

void TableEditor::_indexEntryDel(const Index& index, Word position) noexcept {
   Word tombstones = 0;
   bool intact = false;
   if (!control(Control::tombstones, tombstones)) {
      return;
   }
   const Word following = _entry(index, (position + 1) & index.mask, intact);
   if (!intact || following != emptyEntry) {
      _entryIs(index, position, tombstone);
      _controlIs(Control::tombstones, tombstones + 1);
      return;
   }
   // No probe goes on from here, so neither this entry nor tombstones before it have a use. Counted
   // down first: too low a count is mended by the next filling of the index.
   _entryIs(index, position, emptyEntry);
   for (position = (position - 1) & index.mask;
        _entry(index, position, intact) == tombstone && intact && tombstones > 0;
        position = (position - 1) & index.mask) {
      _controlIs(Control::tombstones, --tombstones);
      _entryIs(index, position, emptyEntry);
   }
}

TARN_TABLES_INLINE Finding TableEditor::_prepareChange(const Key& key, Word& number) noexcept {
   if (!control(Control::journalHead, number)) {
      return Finding::corrupted(badCounters);
   }
   Word* const entry = _mutable(_journalEntry(number));
   const Word sequence = number + 1;
   // Invalid while it is made: a reader that has been overtaken must not take half of each.
   storeRelaxed(entry, 0);
   fenceRelease();
   storeRelaxed(entry + 1, Word{_origin} << 32 | _changeCheck(sequence, _origin, key.hash));
   copyIn(entry + 2, key.words, _shape.keyWords);
   storeRelease(entry, sequence);
   return {};
}

inline void TableEditor::_publishChange(Word number) noexcept {
   _controlIs(Control::journalHead, number + 1);
   _published = number + 1;
}

Finding TableEditor::put(const Key& key, const Word* record, std::uint32_t length,
                         bool& inserted) noexcept {
   Place place;
   Finding finding = find(key, _scratch, place, Content::skipped);
   inserted = finding.kind == Finding::Kind::absent;
   if (!finding.isDone() && !inserted) {
      return finding;
   }
   Index index;
   Word count = 0;
   Word value = 0;
   if (inserted) {
      bool moved = false;
      finding = _roomInIndex(moved);
      if (finding.isDone() && moved) {
         finding = find(key, _scratch, place, Content::skipped);
         finding = finding.kind == Finding::Kind::absent ? Finding{} : finding;
      }
      if (finding.isDone() && (!_currentIndex(index) || !control(Control::count, count))) {
         finding = Finding::corrupted(badCounters);
      }
      if (finding.isDone()) {
         finding = _takeSlot(place.slot, value);
      }
      if (!finding.isDone()) {
         return finding;
      }
   } else {
      Seal::unseal(place.meta, _slotSalt(place.slot), value);
   }
   const Word next = _nextMeta(value, length, true);
   const Word meta = _sealedMeta(place.slot, next);
   // What is overwritten now was valid before the last commit: a reader that still copies it must
   // come to see that commit.
   fenceRelease();
   if (inserted) {
      copyIn(_mutable(_key(place.slot)), key.words, _shape.keyWords);
   }
   Word* const buffer = _mutable(_buffer(place.slot, activeOf(next)));
   copyIn(buffer + 1, record, wordsFor(length));
   storeRelaxed(buffer, _contentCheck(place.slot, meta, key.hash, record, length));
   if (inserted) {
      bool intact = false;
      if (_entry(index, place.entry, intact) == tombstone && intact) {
         Word tombstones = 0;
         if (control(Control::tombstones, tombstones) && tombstones > 0) {
            _controlIs(Control::tombstones, tombstones - 1);
         }
      }
      _entryIs(index, place.entry, (Word{place.slot} + 1) << tagBits | tagOf(key.hash));
   }
   Word number = 0;
   finding = _prepareChange(key, number);
   if (!finding.isDone()) {
      return finding;
   }
   _metaIs(place.slot, meta);
   if (inserted) {
      _controlIs(Control::count, count + 1);
   }
   _publishChange(number);
   return {};
}

Finding TableEditor::del(const Key& key, Word* removed, Place& place) noexcept {
   Finding finding = find(key, removed, place, Content::copied);
   if (!finding.isDone()) {
      return finding;
   }
   Index index;
   Word count = 0;
   Word value = 0;
   if (!_currentIndex(index) || !control(Control::count, count) || count == 0 ||
       !Seal::unseal(place.meta, _slotSalt(place.slot), value)) {
      return Finding::corrupted(badCounters);
   }
   Word number = 0;
   finding = _prepareChange(key, number);
   if (!finding.isDone()) {
      return finding;
   }
   _metaIs(place.slot, _sealedMeta(place.slot, _nextMeta(value, 0, false)));
   _indexEntryDel(index, place.entry);
   _controlIs(Control::count, count - 1);
   _giveBack(place.slot);
   _publishChange(number);
   return {};
}

Finding TableEditor::check(const Key& key) const noexcept {
   Place place;
   const Finding finding = find(key, _scratch, place, Content::copied);
   const bool isThere = finding.isDone();
   if (!isThere && finding.kind != Finding::Kind::absent) {
      return finding;
   }
   Index index;
   if (!_currentIndex(index)) {
      return Finding::corrupted(badDescriptor);
   }
   Word count = 0;
   Word highWater = 0;
   Word freeHead = 0;
   Word allocated = 0;
   Word tombstones = 0;
   Word head = 0;
   if (!control(Control::count, count) || !control(Control::highWater, highWater) ||
       !control(Control::freeHead, freeHead) || !control(Control::allocated, allocated) ||
       !control(Control::tombstones, tombstones) || !control(Control::journalHead, head) ||
       allocated > _shape.maxRecords || highWater > allocated || count > highWater ||
       freeHead > highWater || (isThere && count == 0)) {
      return Finding::corrupted(badCounters);
   }
   if (isThere) {
      return {};
   }
   if (freeHead != 0) {
      const auto slot = static_cast<std::uint32_t>(freeHead - 1);
      Word value = 0;
      if (!Seal::unseal(loadRelaxed(_slot(slot)), _slotSalt(slot), value) || (value & liveBit) ||
          !Seal::unseal(loadRelaxed(_link(slot)), _linkSalt(slot), value)) {
         return Finding::corrupted(badFreeList, slot);
      }
   }
   if ((count + tombstones + 1) * 4 > (index.mask + 1) * 3) {
      // The index is going to be filled anew, from all records.
      Word words[wordsFor(256)];
      for (std::uint32_t slot = 0; slot < highWater; ++slot) {
         const Finding read = readSlot(slot, words, _scratch, place);
         if (!read.isDone() && read.kind != Finding::Kind::absent) {
            return Finding::corrupted(badRecord, slot);
         }
      }
   }
   return {};
}

Finding TableEditor::_rebuildSlots(Word highWater) noexcept {
   Word count = 0;
   Word freeHead = 0;
   for (std::uint32_t slot = 0; slot < highWater; ++slot) {
      Word value = 0;
      if (!Seal::unseal(loadRelaxed(_slot(slot)), _slotSalt(slot), value)) {
         return Finding::corrupted(badState, slot);
      }
      if (value & liveBit) {
         ++count;
      } else {
         storeRelaxed(_mutable(_link(slot)), Seal::sealed(freeHead, _linkSalt(slot)));
         freeHead = Word{slot} + 1;
      }
   }
   _controlIs(Control::freeHead, freeHead);
   _controlIs(Control::count, count);
   return {};
}

Finding TableEditor::recover() noexcept {
   Index index;
   Word highWater = 0;
   Word head = 0;
   Word recoveries = 0;
   if (!_currentIndex(index)) {
      return Finding::corrupted(badDescriptor);
   }
   if (!control(Control::highWater, highWater) || highWater > _shape.maxRecords ||
       !control(Control::journalHead, head) || !control(Control::recoveries, recoveries)) {
      return Finding::corrupted(badCounters);
   }
   Finding finding = _rebuildSlots(highWater);
   if (finding.isDone()) {
      finding = _reindex(index.log2);
   }
   if (!finding.isDone()) {
      return finding;
   }
   // The change that the dead writer had prepared may have been committed; whoever is told of it
   // for nothing just looks at an unchanged record.
   Word key[wordsFor(256)];
   if (preparedChange(head, key) == ChangeState::change) {
      _publishChange(head);
   }
   _controlIs(Control::recoveries, recoveries + 1);
   return {};
}

} // namespace Platform::Tables
