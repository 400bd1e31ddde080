#include "TarnRegFile/TableEntity.h"

#include <exception>
#include <type_traits>

#include <fmt/format.h>

#include "platform/entity/Fatal.h"
#include "platform/entity/Value.h"
#include "platform/metrics/Registry.h"
#include "platform/trace/Trace.h"
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

// Runs a change of the table. Whatever else goes wrong is the caller's to hear of.
template <typename R>
template <typename Write>
auto TableEntity<R>::_safely(const char* function, const Write& write) {
   try {
      return write();
   } catch (const Platform::Tables::CorruptionException& corruption) {
      try {
         _table.handleCorruption(corruption.what());
      } catch (...) {
         // A handler that throws does not make the table any safer.
      }
      Platform::fatalAssertion(_className, function, afterCorruption);
   }
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
   for (const Key& key : _safely(_names.del, [&] { return _table.keys(); })) {
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
   // After the hand-over only the table knows the control.
   if (CollectionControl* const control = _control ? _control.get() : _table.control()) {
      control->quiescedIs(quiesced);
   }
}

template <typename R>
void TableEntity<R>::_notifyMountStatus() {
   if (CollectionControl* const control = _control ? _control.get() : _table.control()) {
      control->mountStatusIs(_table.mountStatus());
   }
}

template <typename R>
void TableEntity<R>::_controlIs(const Ptr<CollectionControl>& control) {
   if (control == _control) {
      return;
   }
   const Ptr<CollectionControl> previous = std::exchange(_control, control);
   if (previous && previous->table() == &_table) {
      previous->tableIs(nullptr);
   }
   if (control) {
      control->tableIs(&_table);
   }
   publish(_names.control);
}

template <typename R>
void TableEntity<R>::_handOver() noexcept {
   if (const Ptr<CollectionControl> control = std::exchange(_control, nullptr)) {
      control->entityIs(Ptr<Platform::Node>(this));
   }
}

template class TableEntity<CoreRegister>;
template class TableEntity<OrderedRegisterOp>;

} // namespace TarnRegFile::Sable
