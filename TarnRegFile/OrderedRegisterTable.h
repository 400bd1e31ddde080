#pragma once

#include <vector>

#include "platform/entity/TypeData.h"
#include "TarnRegFile/OrderedRegisterOp.h"
#include "TarnRegFile/TableEntity.h"

namespace TarnRegFile::Sable {

/// A shared table of ordered register operations, keyed by their identity, as an entity: what the
/// tables of those asked for and of their outcomes have in common.
///
/// Held through Ptr, on the thread of the event loop that the table is mounted on. The table is
/// usable once the control has mounted it. Operations that change it throw, beside what is said
/// there, what the table service does: std::system_error EACCES (generic category) when this
/// process has mounted it as a reader, EBUSY when it is quiesced, ENOTCONN when it is not mounted,
/// ENOBUFS or ENOSPC when it is full. Then nothing has changed, and nothing is published.
class TARN_API OrderedRegisterTable : public TableEntity<OrderedRegisterOp> {
public:
   static constexpr Platform::AttributeId opAttr{"op"};
   static constexpr Platform::AttributeId opControlAttr{"opControl"};

   /// The table: look-up by key, iteration, member count.
   const Table& op() const noexcept { return _tableOf(); }

   /// The table's own reaction to corruption, for who has met one while reading: takes the
   /// exception's message, and tells the control and the program.
   void opHandleCorruption(const String& message) { _tableOf().handleCorruption(message); }

   /// Inserts or replaces the record under its key, and publishes a change of `op` for the key;
   /// also when the record is what it was.
   void opIs(const OrderedRegisterOp& record) { _is(record); }

   /// A fresh record to be filled in place, and then committed or abandoned. One at a time: throws
   /// std::logic_error while another one is out.
   OrderedRegisterOp* opDirectWrite() { return _directWrite(); }

   /// Writes the record that opDirectWrite() gave, like opIs(). Throws std::logic_error for
   /// any other.
   void opCommit(const OrderedRegisterOp* record) { _commit(record); }

   /// Gives that record back unwritten. Throws as opCommit() does.
   void opAbandon(const OrderedRegisterOp* record) { _abandon(record); }

   /// Removes the record of `key`, publishes the change, and returns it. Without such a record
   /// returns the empty one and publishes nothing.
   OrderedRegisterOp opDel(Platform::UniqueId key) { return _del(key); }

   /// Removes every record that there is now, each with its change published. What is thrown on
   /// the way, by a notifiee for one, leaves those that are left.
   void opDelAll() { _delAll(); }

   /// Publishes a change for `key` without writing: for changes that others have made.
   void opNotify(Platform::UniqueId key) { _notify(key); }

   /// Passes the quiesced state on to the control.
   void opNotifyQuiesced(bool quiesced) { _notifyQuiesced(quiesced); }

   /// Passes the table's mount status on to the control.
   void opNotifyMountStatus() { _notifyMountStatus(); }

   /// Who mounts the table. Setting another one attaches the table to it, detaches it from the one
   /// before, and publishes; null detaches. Mounted or not, the table stays as it is. Setting the
   /// same does nothing.
   ///
   /// An entity that was left to its control has none of its own any more; setting it again takes
   /// the entity back.
   void opControlIs(const Ptr<CollectionControl>& control) { _controlIs(control); }
   const Ptr<CollectionControl>& opControl() const noexcept { return _controlOf(); }

   static const Platform::TypeData& staticType();

protected:
   OrderedRegisterTable(const String& name, const char* className);
   ~OrderedRegisterTable() override;

private:
   // For reflection.
   std::vector<Platform::UniqueId> _opKeys() const { return _keys(); }
   OrderedRegisterOp _opElement(const Platform::UniqueId& key) const { return _element(key); }
};

} // namespace TarnRegFile::Sable
