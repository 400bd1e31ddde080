#pragma once

#include <cstdint>

#include "platform/tables/private/TableImage.h"

namespace Platform::Tables {

/// The memory of a mounted table, as the writer that holds its lock sees it.
///
/// Every change is made in an order in which the writer may die after any instruction:
///
/// 1. All that can fail (memory, a free slot, room in the index) is seen to first.
/// 2. The inactive buffer of the slot is filled, with its check; for a new key the index entry is
///    made, which leads to a slot that is not live yet.
/// 3. The journal's next entry is prepared, which nobody looks at yet.
/// 4. `meta` is stored: the commit. Before it nothing has happened, after it all has.
/// 5. Counters and the journal's head follow.
///
/// What a dead writer left between these steps is put in order by recover(), which computes
/// everything but the records themselves again, from the records: into the index region that is not
/// in use, so that it may itself die at any time and be run again. A removal commits through `meta`
/// too; the index entry becomes a tombstone afterwards.
///
/// Used with the table's lock held; else as TableImage.
class TableEditor : public TableImage {
public:
   /// Writes through `base`, takes memory for the file `fd`, and marks its changes with `origin`.
   /// `scratch` holds Geometry::recordWords words.
   TableEditor(std::uint8_t* base, int fd, const Geometry& geometry, Word tableId,
               std::uint32_t origin, Word* scratch) noexcept
      : TableImage(base, geometry, tableId), _base(base), _fd(fd), _origin(origin),
        _scratch(scratch) {}

   /// Makes the control page and the index of a new file, which nobody else sees yet.
   Finding format() noexcept;

   /// Inserts or replaces a record of `length` bytes, as words padded with zeros. done, full,
   /// noSpace or corrupted.
   Finding put(const Key& key, const Word* record, std::uint32_t length, bool& inserted) noexcept;

   /// Removes a record, whose bytes go to `removed`, and whose length to `place`. done, absent or
   /// corrupted.
   Finding del(const Key& key, Word* removed, Place& place) noexcept;

   /// Looks at all that put() and del() of `key` would look at, and writes nothing. done or
   /// corrupted.
   Finding check(const Key& key) const noexcept;

   /// Puts in order what a dead writer left. done or corrupted. Needs no memory.
   Finding recover() noexcept;

   /// How many changes there were when this editor had published its latest.
   Word published() const noexcept { return _published; }

private:
   Word* _words(std::size_t offset) const noexcept {
      return reinterpret_cast<Word*>(_base + offset);
   }
   Word* _mutable(const Word* word) const noexcept { return const_cast<Word*>(word); }

   void _controlIs(Control control, Word value) noexcept {
      storeRelease(_mutable(_control(control)), Seal::sealed(value, _controlSalt(control)));
   }
   void _metaIs(std::uint32_t slot, Word meta) noexcept {
      storeRelease(_mutable(_slot(slot)), meta);
   }
   void _entryIs(const Index& index, Word position, Word value) noexcept {
      storeRelease(_mutable(index.entries + position),
                   Seal::sealed(value, index.entrySalt(position)));
   }
   Word _entry(const Index& index, Word position, bool& intact) const noexcept;

   /// The value of the meta that follows `meta` in this slot.
   static Word _nextMeta(Word value, std::uint32_t length, bool live) noexcept;
   Word _sealedMeta(std::uint32_t slot, Word value) const noexcept {
      return Seal::sealed(value & Seal::maxValue, _slotSalt(slot));
   }

   bool _currentIndex(Index& index) const noexcept;
   int _allocate(std::size_t offset, std::size_t size) noexcept;
   Finding _slotMemoryIs(Word highWater) noexcept;
   Finding _takeSlot(std::uint32_t& slot, Word& metaValue) noexcept;
   void _giveBack(std::uint32_t slot) noexcept;
   Finding _roomInIndex(bool& moved) noexcept;
   Finding _reindex(unsigned log2) noexcept;
   void _indexEntryDel(const Index& index, Word position) noexcept;
   Finding _prepareChange(const Key& key, Word& number) noexcept;
   void _publishChange(Word number) noexcept;
   Finding _rebuildSlots(Word highWater) noexcept;

   std::uint8_t* const _base;
   const int _fd;
   const std::uint32_t _origin;
   Word* const _scratch;
   Word _published = 0;
};

} // namespace Platform::Tables
