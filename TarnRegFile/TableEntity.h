#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "platform/entity/AttributeId.h"
#include "platform/entity/Node.h"
#include "platform/entity/OwnedNotifiee.h"
#include "platform/entity/ZeroReferencesNotifiee.h"
#include "platform/metrics/Counter.h"
#include "platform/metrics/Registration.h"
#include "platform/tables/CollectionControl.h"
#include "platform/tables/Table.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile::Sable {

/// What the entities of the shadow tables and of the ordered tables have in common: one shared
/// table, its control, and what is published and counted of it. The two families give the
/// operations their names.
///
/// A write that meets damaged shared memory tells the table's corruption handling and then stops
/// the process: a table that has seen corruption is never written again. So does a write after the
/// damage was met in another way and the table's status says so. Reading throws
/// Platform::Tables::CorruptionException and changes nothing.
///
/// An entity, on the thread of the event loop that its table is mounted on.
template <typename R>
class TARN_API TableEntity : public Platform::Node, private Platform::Tables::Table<R>::Owner {
public:
   using Table = Platform::Tables::Table<R>;
   using Record = R;
   using Key = typename Table::Key;
   using CollectionControl = Platform::Tables::CollectionControl;

   /// The name in the shared table service.
   const String& name() const noexcept { return _table.name(); }

   /// Hands the entity's parent to the table's binding.
   void handleParent(const Ptr<Platform::Node>& parent) { _table.parentIs(parent); }

protected:
   /// How a family calls things.
   struct Names {
      Platform::AttributeId collection;
      Platform::AttributeId control;
      const char* is;
      const char* commit;
      const char* del;
      const char* delAll;
      const char* notify;
   };

   TableEntity(const String& name, const char* className, const Names& names);
   ~TableEntity() override;

   /// Says which of the entity's notifiees is to be told when nobody refers to the entity.
   void _zeroReferencesNotifieeIs(Platform::ZeroReferencesNotifiee& notifiee);

   const Table& _tableOf() const noexcept { return _table; }
   Table& _tableOf() noexcept { return _table; }

   void _is(const R& record);
   R* _directWrite() { return _table.directWrite(); }
   void _commit(const R* record);
   void _abandon(const R* record) { _table.abandon(record); }
   R _del(const Key& key);
   void _delAll();
   void _notify(const Key& key);
   void _notifyQuiesced(bool quiesced);
   void _notifyMountStatus();
   void _controlIs(const Ptr<CollectionControl>& control);
   const Ptr<CollectionControl>& _controlOf() const noexcept { return _control; }

   std::vector<Key> _keys() const { return _table.keys(); }
   R _element(const Key& key) const { return _table.get(key).value_or(R()); }

   /// Leaves the entity to its control, and the control to itself.
   void _handOver() noexcept;

private:
   template <typename Write>
   auto _safely(const char* function, const Write& write);
   [[noreturn]] void _stop(const char* function, const char* message) noexcept;

   // The table's events.
   void tableChanged(const Key& key) override { _notify(key); }
   void tableMountStatusChanged() override { _notifyMountStatus(); }
   void tableQuiescedChanged(bool quiesced) override { _notifyQuiesced(quiesced); }

   const char* const _className;
   const Names _names;
   Platform::ZeroReferencesNotifiee* _zeroReferencesNotifiee = nullptr;
   bool _stopping = false;
   Ptr<CollectionControl> _control;
   Platform::Metrics::Counter _isCount;
   Platform::Metrics::Counter _delCount;
   Platform::Metrics::Counter _notifyCount;
   Platform::Metrics::Registration _metrics;
   Table _table;
};

/// Called when the last outside reference to a table's entity has gone: leaves the entity to its
/// collection control, so that the shared table stays until it is unmounted, and unsubscribes
/// itself.
template <typename Entity>
class TableZeroReferencesNotifiee : public Platform::ZeroReferencesNotifiee {
public:
   void onZeroReferences(Platform::Node& node) noexcept override {
      static_cast<Entity&>(node)._handOver();
      notifierIs(nullptr);
   }
};

} // namespace TarnRegFile::Sable
