#include "platform/tables/private/TableImage.h"

#include <algorithm>

namespace Platform::Tables {

namespace {

// A reader that is overtaken so often is not unlucky: something writes without end or reason.
constexpr unsigned maxAttempts = 10000;

constexpr std::size_t maxKeyWords = wordsFor(256);

constexpr const char* badState = "the state of a record fails its check, in slot";
constexpr const char* badLength = "the length of a record is too large, in slot";

// Nearly always a single word, for which a call would cost more than the comparison.
bool equalsShared(const Word* words, const Word* shared, std::size_t count) noexcept {
   for (std::size_t i = 0; i < count; ++i) {
      if (words[i] != loadRelaxed(shared + i)) {
         return false;
      }
   }
   return true;
}

} // namespace

bool TableImage::_indexOf(Word descriptor, Index& index) const noexcept {
   Word value = 0;
   if (!Seal::unseal(descriptor, _controlSalt(Control::index), value)) {
      return false;
   }
   index.region = static_cast<unsigned>(value & 1);
   index.log2 = static_cast<unsigned>(value >> 1 & 0x7F);
   index.generation = value >> 8;
   if (index.log2 < Geometry::minIndexLog2 || index.log2 > _shape.maxIndexLog2) {
      return false;
   }
   index.entries = _words(_shape.indexOffset[index.region]);
   index.mask = (Word{1} << index.log2) - 1;
   // The generation salts the entries, so that those of an older filling of the region show.
   index.salt = _id ^ (index.generation + 1) * 0xFF51AFD7ED558CCDU;
   return true;
}

bool TableImage::_indexIsKnown(Word descriptor) const noexcept {
   Index index;
   if (!_indexOf(descriptor, index)) {
      return false;
   }
   _knownIndex = index;
   _knownDescriptor = descriptor;
   return true;
}

// The record in `place` does not match what was found there: damage, or changed meanwhile.
Finding TableImage::_mismatch(const Place& place) const noexcept {
   fenceAcquire();
   if (loadRelaxed(_slot(place.slot)) != place.meta) {
      return {.kind = Finding::Kind::changing};
   }
   return Finding::corrupted("a record fails its check, in slot", place.slot);
}

TARN_TABLES_INLINE Finding TableImage::_probe(const Key& key, Word* record, Place& place,
                                              Content content) const noexcept {
   const Index& index = _knownIndex;
   const Word tag = tagOf(key.hash);
   Word position = key.hash & index.mask;
   bool roomFound = false;
   for (Word n = 0; n <= index.mask; ++n, position = (position + 1) & index.mask) {
      Word value = 0;
      if (!Seal::unseal(loadAcquire(index.entries + position), index.entrySalt(position), value)) {
         return Finding::corrupted("an index entry fails its check:", position);
      }
      const Word slotPlusOne = value >> tagBits;
      if (slotPlusOne == 0) {
         if (!roomFound) {
            roomFound = true;
            place.entry = static_cast<std::uint32_t>(position);
         }
         if (value == emptyEntry) {
            return Finding::absent();
         }
         continue;
      }
      if ((value & tagMask) != tag) {
         continue;
      }
      if (slotPlusOne > _shape.maxRecords) {
         return Finding::corrupted("an index entry leads nowhere:", position);
      }
      const auto slot = static_cast<std::uint32_t>(slotPlusOne - 1);
      const Word meta = loadAcquire(_slot(slot));
      Word state = 0;
      if (!Seal::unseal(meta, _slotSalt(slot), state)) {
         return Finding::corrupted(badState, slot);
      }
      if (!(state & liveBit)) {
         continue; // removed, or not yet committed
      }
      const std::uint32_t length = lengthOf(state);
      if (length > _shape.recordSize) {
         return Finding::corrupted(badLength, slot);
      }
      const Word* const buffer = _buffer(slot, activeOf(state));
      const Word check = loadRelaxed(buffer);
      const bool isWanted = equalsShared(key.words, _key(slot), _shape.keyWords);
      if (isWanted && content == Content::skipped) {
         place = {slot, length, meta, static_cast<std::uint32_t>(position)};
         return {};
      }
      copyOut(record, buffer + 1, wordsFor(length));
      if (isWanted) {
         const bool intact = check == _contentCheck(slot, meta, key.hash, record, length);
         place = {slot, length, meta, static_cast<std::uint32_t>(position)};
         return intact ? Finding{} : _mismatch(place);
      }
      // Another key with the same tag, once in a million times; or this key, damaged.
      Word other[maxKeyWords];
      copyOut(other, _key(slot), _shape.keyWords);
      if (check != _contentCheck(slot, meta, keyHash(other), record, length)) {
         return _mismatch({slot, length, meta, 0});
      }
   }
   return Finding::corrupted("the index has no end");
}

Finding TableImage::find(const Key& key, Word* record, Place& place,
                         Content content) const noexcept {
   for (unsigned attempt = 0; attempt < maxAttempts; ++attempt) {
      const Word descriptor = loadAcquire(_control(Control::index));
      if (!_indexInUse(descriptor)) {
         return Finding::corrupted("the index descriptor fails its check");
      }
      const Finding finding = _probe(key, record, place, content);
      if (finding.isDone()) {
         return finding; // the record has proved itself
      }
      // A key that is absent, and damage, count only if the index was in use to the end.
      fenceAcquire();
      if (finding.kind != Finding::Kind::changing &&
          loadRelaxed(_control(Control::index)) == descriptor) {
         return finding;
      }
   }
   return Finding::corrupted("it changes faster than it can be read");
}

Finding TableImage::readSlot(std::uint32_t slot, Word* key, Word* record,
                             Place& place) const noexcept {
   const Word meta = loadAcquire(_slot(slot));
   Word state = 0;
   if (!Seal::unseal(meta, _slotSalt(slot), state)) {
      return Finding::corrupted(badState, slot);
   }
   if (!(state & liveBit)) {
      return Finding::absent();
   }
   place = {slot, lengthOf(state), meta, 0};
   if (place.length > _shape.recordSize) {
      return Finding::corrupted(badLength, slot);
   }
   const Word* const buffer = _buffer(slot, activeOf(state));
   const Word check = loadRelaxed(buffer);
   copyOut(key, _key(slot), _shape.keyWords);
   copyOut(record, buffer + 1, wordsFor(place.length));
   const bool intact = check == _contentCheck(slot, meta, keyHash(key), record, place.length);
   return intact ? Finding{} : _mismatch(place);
}

Finding TableImage::next(std::uint32_t& slot, Word* key, Word* record,
                         Place& place) const noexcept {
   Word highWater = 0;
   if (!control(Control::highWater, highWater) || highWater > _shape.maxRecords) {
      return Finding::corrupted("the number of slots fails its check");
   }
   unsigned attempts = 0;
   while (slot < highWater) {
      const Finding finding = readSlot(slot, key, record, place);
      if (finding.kind == Finding::Kind::changing) {
         if (++attempts == maxAttempts) {
            return Finding::corrupted("a record changes faster than it can be read, in slot", slot);
         }
         continue;
      }
      attempts = 0;
      ++slot;
      if (finding.kind != Finding::Kind::absent) {
         return finding;
      }
   }
   return Finding::absent();
}

TableImage::ChangeState TableImage::change(Word cursor, Word* key,
                                           std::uint32_t& origin) const noexcept {
   Word head = 0;
   if (!control(Control::journalHead, head) || head < cursor) {
      return ChangeState::corrupted;
   }
   if (head == cursor) {
      return ChangeState::none;
   }
   const Word* const entry = _journalEntry(cursor);
   const Word sequence = loadAcquire(entry);
   const Word tail = loadRelaxed(entry + 1);
   copyOut(key, entry + 2, _shape.keyWords);
   fenceAcquire();
   const bool intact = sequence == cursor + 1 && loadRelaxed(entry) == sequence;
   if (intact) {
      origin = static_cast<std::uint32_t>(tail >> 32);
      if ((tail & 0xFFFFFFFF) == _changeCheck(sequence, origin, keyHash(key))) {
         return ChangeState::change;
      }
      return ChangeState::corrupted;
   }
   // Overwritten if the head, which is at most one behind, has come around.
   if (!control(Control::journalHead, head)) {
      return ChangeState::corrupted;
   }
   return head - cursor >= _shape.journalEntries ? ChangeState::lapped : ChangeState::corrupted;
}

TableImage::ChangeState TableImage::preparedChange(Word cursor, Word* key) const noexcept {
   const Word* const entry = _journalEntry(cursor);
   const Word sequence = loadAcquire(entry);
   const Word tail = loadRelaxed(entry + 1);
   copyOut(key, entry + 2, _shape.keyWords);
   fenceAcquire();
   const auto origin = static_cast<std::uint32_t>(tail >> 32);
   const bool intact = sequence == cursor + 1 && loadRelaxed(entry) == sequence &&
                       (tail & 0xFFFFFFFF) == _changeCheck(sequence, origin, keyHash(key));
   return intact ? ChangeState::change : ChangeState::none;
}

} // namespace Platform::Tables
