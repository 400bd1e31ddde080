#pragma once

#include <array>
#include <cstdint>

#include "platform/tables/private/Finding.h"
#include "platform/tables/private/Geometry.h"
#include "platform/tables/private/Seal.h"
#include "platform/tables/private/SharedWords.h"

namespace Platform::Tables {

/// The memory of a mounted table, as a reader sees it: how records are found and read while writers
/// are at work, stopped, or dead in the middle of it.
///
/// How that is safe:
/// - A record has two buffers. `meta` says which one is valid, and how many bytes. A writer fills
///   the other one and then changes `meta` with one store, which is the only moment of commit. So a
///   reader never waits: what it found valid stays until the record is written twice.
/// - Each buffer has a check over its slot, the value of `meta` that makes it valid, key and bytes.
///   A copy that passes it is what some writer committed; one that does not is read again if `meta`
///   has changed, and is damage if it has not.
/// - Every other word carries a check of its own (Seal) and changes with one store.
/// - The index maps hashes to slots. Entries never move: removal leaves a tombstone, and growing
///   fills the other region and switches the descriptor. A key that was not found is looked for
///   again if the descriptor has changed meanwhile; all else that may go wrong with a stale entry,
///   the record itself tells.
///
/// Nothing read from the memory is trusted: slots, lengths and counts are checked before use, and
/// no loop depends on them alone. Where the memory vanishes there are zeros (PatchedMemory), which
/// are found out like other damage. Throws nothing.
class TableImage {
public:
   /// `base` is the file's first byte in memory.
   TableImage(const std::uint8_t* base, const Geometry& geometry, Word tableId) noexcept
      : _shape(geometry), _id(tableId), _base(base) {
      for (unsigned control = 0; control < controls; ++control) {
         _controlSalts[control] = mixed(_id + control + 1);
      }
   }

   /// The words of the control page that are sealed, in the order of their places.
   enum class Control : unsigned {
      index,      ///< Which region is in use, its size and its generation.
      count,      ///< Live records.
      highWater,  ///< Slots that were ever used.
      freeHead,   ///< First of the list of free slots, plus one; 0 if there is none.
      allocated,  ///< Slots that have memory.
      tombstones, ///< In the region in use.
      recoveries, ///< Times that a dead writer's work was put in order.
      reserved,
      journalHead, ///< Changes published so far. On a cache line of its own: readers poll it.
   };
   static constexpr unsigned controls = 9;

   /// A key as it is looked for.
   struct Key {
      const Word* words; ///< Padded with zeros to whole words. Not in shared memory.
      Word hash;         ///< keyHash() of it.
   };

   /// Where a record was found, or would go.
   struct Place {
      std::uint32_t slot = 0;
      std::uint32_t length = 0; ///< Bytes of the record.
      Word meta = 0;            ///< As stored.
      std::uint32_t entry = 0;  ///< Position in the index.
   };

   /// Whether a record's bytes are copied (and so checked) or only its place is wanted.
   enum class Content { copied, skipped };

   TARN_TABLES_INLINE Word keyHash(const Word* words) const noexcept {
      return mixed(hashOfWords(words, _shape.keySize) ^ _id);
   }

   /// Finds a record; copies it to `record`, which holds Geometry::recordWords words and is also
   /// used when the content is skipped. done, absent or corrupted; if absent, `place.entry` is
   /// where the index has room for it. Gives up after some thousand changes under its eyes:
   /// corrupted.
   Finding find(const Key& key, Word* record, Place& place, Content content) const noexcept;

   /// Finds the first live record in `slot` or a later one: `slot` becomes the slot after it. Keys
   /// and records go where the pointers say. done, absent or corrupted.
   Finding next(std::uint32_t& slot, Word* key, Word* record, Place& place) const noexcept;

   /// Reads a slot whoever it belongs to. done: `key`, `record` and `place` are filled; absent: it
   /// is free; changing; corrupted.
   Finding readSlot(std::uint32_t slot, Word* key, Word* record, Place& place) const noexcept;

   enum class ChangeState { none, change, lapped, corrupted };

   /// Reads the change number `cursor`: its key and the mount that made it. lapped: the journal has
   /// run around since.
   ChangeState change(Word cursor, Word* key, std::uint32_t& origin) const noexcept;

   /// Reads the change that would be number `cursor` if it were published: a writer has prepared
   /// it, and may have died after its commit. none or change.
   ChangeState preparedChange(Word cursor, Word* key) const noexcept;

   /// Whether nothing beyond the change number `cursor` has been prepared, so that none can have
   /// been committed: asked after a record was read, it tells whether that can be of a later
   /// change.
   bool isLatest(Word cursor) const noexcept {
      const Word round = _shape.journalEntries;
      return loadRelaxed(_journalEntry(cursor)) == (cursor < round ? 0 : cursor + 1 - round);
   }

   /// Value of a control word. False: it is damaged.
   bool control(Control control, Word& value) const noexcept {
      return Seal::unseal(loadAcquire(_control(control)), _controlSalt(control), value);
   }

   const Geometry& geometry() const noexcept { return _shape; }

protected:
   friend class TableAudit;

   /// The index region in use.
   struct Index {
      const Word* entries;
      Word mask;
      Word salt;
      unsigned region;
      unsigned log2;
      Word generation;

      Word entrySalt(Word position) const noexcept { return salt + position * 0x9E3779B97F4A7C15U; }
   };

   // An index entry's value: slot plus one, tag. Slot 0 is none: with tag 0 the entry is empty,
   // with tag 1 it is a tombstone.
   static constexpr int tagBits = 20;
   static constexpr Word tagMask = (Word{1} << tagBits) - 1;
   static constexpr Word emptyEntry = 0;
   static constexpr Word tombstone = 1;
   static Word tagOf(Word hash) noexcept { return hash >> (64 - tagBits); }

   // A slot's meta value: sequence, length, active buffer, live.
   static constexpr Word liveBit = 1;
   static constexpr Word activeBit = 2;
   static constexpr int lengthShift = 2;
   static constexpr int sequenceShift = 18;
   static std::uint32_t lengthOf(Word meta) noexcept {
      return static_cast<std::uint32_t>(meta >> lengthShift & 0xFFFF);
   }
   static unsigned activeOf(Word meta) noexcept { return (meta & activeBit) ? 1 : 0; }

   static Word packedIndex(Word generation, unsigned log2, unsigned region) noexcept {
      return generation << 8 | log2 << 1 | region;
   }

   /// The index that a stored descriptor describes. False: there can be no such.
   bool _indexOf(Word descriptor, Index& index) const noexcept;

   /// The index in use, as long as the stored descriptor is what it was the last time.
   bool _indexInUse(Word descriptor) const noexcept {
      // Nothing is known at first, and a damaged descriptor may look like that.
      return (descriptor == _knownDescriptor && _knownIndex.entries) || _indexIsKnown(descriptor);
   }
   bool _indexIsKnown(Word descriptor) const noexcept;

   Finding _probe(const Key& key, Word* record, Place& place, Content content) const noexcept;
   Finding _mismatch(const Place& place) const noexcept;

   /// Of a record's bytes, as words padded with zeros, in a buffer that the stored `meta` makes
   /// valid.
   TARN_TABLES_INLINE Word _contentCheck(std::uint32_t slot, Word meta, Word hashOfKey,
                                         const Word* record, std::uint32_t length) const noexcept {
      const Word owner = (meta ^ _slotSalt(slot)) * 0xFF51AFD7ED558CCDU + hashOfKey;
      return mixed(hashOfWords(record, length) ^ owner);
   }
   Word _changeCheck(Word sequence, std::uint32_t origin, Word hashOfKey) const noexcept {
      return mixed(mixed(sequence ^ _id) + origin + hashOfKey) >> 32;
   }

   Word _controlSalt(Control control) const noexcept {
      return _controlSalts[static_cast<unsigned>(control)];
   }
   Word _slotSalt(std::uint32_t slot) const noexcept { return _id + slot * 0xC2B2AE3D27D4EB4FU; }
   Word _linkSalt(std::uint32_t slot) const noexcept { return ~_slotSalt(slot); }

   const Word* _words(std::size_t offset) const noexcept {
      return reinterpret_cast<const Word*>(_base + offset);
   }
   const Word* _control(Control control) const noexcept {
      return _words(Geometry::controlOffset + 64) + static_cast<unsigned>(control);
   }
   const Word* _journalEntry(Word number) const noexcept {
      return _words(Geometry::journalOffset +
                    (number & (_shape.journalEntries - 1)) * _shape.journalStride);
   }
   const Word* _slot(std::uint32_t slot) const noexcept {
      return _words(_shape.slotsOffset + _shape.slotStride * slot);
   }
   const Word* _link(std::uint32_t slot) const noexcept { return _slot(slot) + 1; }
   const Word* _key(std::uint32_t slot) const noexcept { return _slot(slot) + 2; }
   const Word* _buffer(std::uint32_t slot, unsigned which) const noexcept {
      return _slot(slot) + 2 + _shape.keyWords + which * (1 + _shape.recordWords);
   }

   const Geometry _shape;
   const Word _id;

private:
   const std::uint8_t* const _base;
   std::array<Word, controls> _controlSalts; // computed once, as every write needs several
   // What the descriptor said when it was last looked at; a mount is used by one thread.
   mutable Word _knownDescriptor = 0;
   mutable Index _knownIndex = {};
};

} // namespace Platform::Tables
