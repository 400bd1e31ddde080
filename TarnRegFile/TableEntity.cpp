#include "TarnRegFile/TableEntity.h"

#include <exception>
#include <string>
#include <utility>

#include "platform/entity/Fatal.h"
#include "platform/entity/Value.h"
#include "platform/metrics/Registry.h"
#include "TarnRegFile/CoreRegister.h"
#include "TarnRegFile/OrderedRegisterOp.h"

namespace TarnRegFile::Sable {

namespace {

constexpr const char* afterCorruption = "in no man's land";

} // namespace

template <typename R>
TableEntity<R>::TableEntity(const String& name, const char* className, const Names& names)
   : _className(className), _names(names),
     _table(name, static_cast<typename Platform::Tables::Table<R>::Owner&>(*this)) {
   _metrics = Platform::Metrics::processRegistry().registrationNew(
      {{names.is, "Records written to a register table, attempts that failed included", &_isCount},
       {names.del, "Removals from a register table, attempts that failed included", &_delCount},
       {names.notify, "Changes of a register table that were published", &_notifyCount}},
      {{"type", className}, {"table", name}});
}

template <typename R>
TableEntity<R>::~TableEntity() {
   beingDestroyedIs();
}

template <typename R>
void TableEntity<R>::_zeroReferencesNotifieeIs(Platform::ZeroReferencesNotifiee& notifiee) {
   _zeroReferencesNotifiee = &notifiee;
   notifiee.notifierIs(this);
}

// Runs a change of the table. Whatever else goes wrong is the caller's to hear of.
template <typename R>
template <typename Write>
auto TableEntity<R>::_safely(const char* function, const Write& write) {
   try {
      if (_table.mountStatus() == Platform::Tables::MountStatus::corrupted) [[unlikely]] {
         // Whoever may not write in any case is refused by the service, as ever.
         if (_table.role() == Platform::Tables::TableRole::writer && !_table.quiesced()) {
            throw Platform::Tables::CorruptionException(_table.statusText());
         }
      }
      return write();
   } catch (const Platform::Tables::CorruptionException& corruption) {
      if (_table.role() == Platform::Tables::TableRole::reader) {
         throw; // it has only looked
      }
      _stop(function, corruption.what());
   }
}

template <typename R>
void TableEntity<R>::_stop(const char* function, const char* message) noexcept {
   // Who is told may let the entity go.
   const Ptr<Platform::Node> held(this);
   // Or may write, which must not begin it all again.
   if (!std::exchange(_stopping, true)) {
      try {
         _table.handleCorruption(message);
      } catch (...) {
         // A handler that throws does not make the table any safer.
      }
   }
   Platform::fatalAssertion("TarnRegFile/" + std::string(_className), function, afterCorruption);
}

template <typename R>
void TableEntity<R>::_is(const R& record) {
   _isCount.Inc();
   _safely(_names.is, [&] { _table.put(record); });
   _notify(record.key());
}

template <typename R>
void TableEntity<R>::_commit(const R* record) {
   _isCount.Inc();
   const Key key = _safely(_names.commit, [&] { return _table.commit(record).key(); });
   _notify(key);
}

template <typename R>
R TableEntity<R>::_del(const Key& key) {
   _delCount.Inc();
   const std::optional<R> removed = _safely(_names.del, [&] { return _table.del(key); });
   if (!removed) {
      return R();
   }
   _notify(key);
   return *removed;
}

template <typename R>
void TableEntity<R>::_delAll() {
   // A reaction to one removal may remove others, or let the entity go.
   const Ptr<Platform::Node> held(this);
   for (const Key& key : _safely(_names.delAll, [&] { return _table.keys(); })) {
      _del(key);
   }
}

template <typename R>
void TableEntity<R>::_notify(const Key& key) {
   // Counted first: who is told may let the entity go.
   _notifyCount.Inc();
   publish(_names.collection, key);
}

template <typename R>
void TableEntity<R>::_notifyQuiesced(bool quiesced) {
   // The table knows its control also after the hand-over, and when another entity has taken it.
   if (CollectionControl* const control = _table.control()) {
      control->quiescedIs(quiesced);
   }
}

template <typename R>
void TableEntity<R>::_notifyMountStatus() {
   if (CollectionControl* const control = _table.control()) {
      control->mountStatusIs(_table.mountStatus());
   }
}

template <typename R>
void TableEntity<R>::_controlIs(const Ptr<CollectionControl>& control) {
   if (control == _control) {
      return;
   }
   // Both controls publish what they are told here, to who may let go of everything, or set yet
   // another control.
   const Ptr<Platform::Node> held(this);
   // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): the caller's may go meanwhile.
   const Ptr<CollectionControl> wanted(control);
   const Ptr<CollectionControl> previous = std::exchange(_control, wanted);
   const Ptr<CollectionControl> attached(_table.control());
   if (wanted) {
      if (attached && attached->entity() == held) {
         attached->entityIs(nullptr); // the entity was left to it, and is taken back
      }
      _zeroReferencesNotifiee->notifierIs(this);
   }
   std::exception_ptr first;
   try {
      if (wanted) {
         wanted->tableIs(&_table);
      } else if (attached) {
         attached->tableIs(nullptr);
      }
   } catch (...) {
      first = std::current_exception();
   }
   publish(_names.control);
   if (first) {
      std::rethrow_exception(first);
   }
}

template <typename R>
void TableEntity<R>::_handOver() noexcept {
   if (const Ptr<CollectionControl> control = std::exchange(_control, nullptr)) {
      // Another entity may have given it a table since.
      if (control->table() == &_table) {
         control->entityIs(Ptr<Platform::Node>(this));
      }
   }
}

template class TableEntity<CoreRegister>;
template class TableEntity<OrderedRegisterOp>;

} // namespace TarnRegFile::Sable
