#pragma once

#include <vector>

#include "platform/entity/TypeData.h"
#include "TarnRegFile/CoreRegister.h"
#include "TarnRegFile/TableEntity.h"

namespace TarnRegFile::Sable {

/// A shared table of registers and their values, keyed by address, as an entity: what the tables of
/// desired and of held values have in common.
///
/// Held through Ptr, on the thread of the event loop that the table is mounted on. The table is
/// usable once the control has mounted it. Operations that change it throw, beside what is said
/// there, what the table service does: std::system_error EACCES (generic category) when this
/// process has mounted it as a reader, EBUSY when it is quiesced, ENOTCONN when it is not mounted,
/// ENOBUFS or ENOSPC when it is full. Then nothing has changed, and nothing is published.
class TARN_API ShadowRegisterTable : public TableEntity<CoreRegister> {
public:
   static constexpr Platform::AttributeId regMapAttr{"regMap"};
   static constexpr Platform::AttributeId regMapControlAttr{"regMapControl"};

   /// The table: look-up by key, iteration, member count.
   const Table& regMap() const noexcept { return _tableOf(); }

   /// The table's own reaction to corruption, for who has met one while reading: takes the
   /// exception's message, and tells the control and the program.
   void regMapHandleCorruption(const String& message) { _tableOf().handleCorruption(message); }

   /// Inserts or replaces the record under its key, and publishes a change of `regMap` for the key;
   /// also when the record is what it was.
   void regMapIs(const CoreRegister& record) { _is(record); }

   /// A fresh record to be filled in place, and then committed or abandoned. One at a time: throws
   /// std::logic_error while another one is out.
   CoreRegister* regMapDirectWrite() { return _directWrite(); }

   /// Writes the record that regMapDirectWrite() gave, like regMapIs(). Throws std::logic_error for
   /// any other.
   void regMapCommit(const CoreRegister* record) { _commit(record); }

   /// Gives that record back unwritten. Throws as regMapCommit() does.
   void regMapAbandon(const CoreRegister* record) { _abandon(record); }

   /// Removes the record of `key`, publishes the change, and returns it. Without such a record
   /// returns the empty one and publishes nothing.
   CoreRegister regMapDel(CoreRegisterKey key) { return _del(key); }

   /// Removes every record that there is now, each with its change published. What is thrown on
   /// the way, by a notifiee for one, leaves those that are left.
   void regMapDelAll() { _delAll(); }

   /// Publishes a change for `key` without writing: for changes that others have made.
   void regMapNotify(CoreRegisterKey key) { _notify(key); }

   /// Passes the quiesced state on to the control.
   void regMapNotifyQuiesced(bool quiesced) { _notifyQuiesced(quiesced); }

   /// Passes the table's mount status on to the control.
   void regMapNotifyMountStatus() { _notifyMountStatus(); }

   /// Who mounts the table. Setting another one attaches the table to it, detaches it from the one
   /// before, and publishes; null detaches. Mounted or not, the table stays as it is. Setting the
   /// same does nothing.
   ///
   /// An entity that was left to its control has none of its own any more; setting it again takes
   /// the entity back.
   void regMapControlIs(const Ptr<CollectionControl>& control) { _controlIs(control); }
   const Ptr<CollectionControl>& regMapControl() const noexcept { return _controlOf(); }

   static const Platform::TypeData& staticType();

protected:
   ShadowRegisterTable(const String& name, const char* className);
   ~ShadowRegisterTable() override;

private:
   // For reflection.
   std::vector<CoreRegisterKey> _regMapKeys() const { return _keys(); }
   CoreRegister _regMapElement(const CoreRegisterKey& key) const { return _element(key); }
};

} // namespace TarnRegFile::Sable
