#include "platform/tables/CollectionControl.h"

#include <exception>
#include <memory>
#include <stdexcept>
#include <utility>

#include "platform/entity/TypeBuilder.h"

namespace Platform::Tables {

CollectionControl::CollectionControl(TableService& service, const TableBase::MountOptions& options)
   : _service(service), _options(options) {}

CollectionControl::~CollectionControl() {
   beingDestroyedIs();
   unmount();
   tableIs(nullptr);
}

const TypeData& CollectionControl::staticType() {
   using Self = CollectionControl;
   static const TypeData type =
      TypeBuilder<Self>("Platform::Tables::CollectionControl", Node::staticType())
         .attribute<&Self::role>("role")
         .attribute<&Self::tableName>("tableName")
         .attribute<&Self::mountStatus>("mountStatus")
         .attribute<&Self::statusText>("statusText")
         .attribute<&Self::quiesced>("quiesced")
         .operation<&Self::mount>("mount")
         .operation<&Self::unmount>("unmount")
         .operation<&Self::quiesceIs>("quiesceIs", {"quiesce"})
         .build();
   return type;
}

void CollectionControl::mount() {
   if (!_table) {
      throw std::logic_error("a collection control has no table to mount: no entity was given it");
   }
   _table->mount(_service, _options);
}

void CollectionControl::unmount() {
   // Whoever hears of the status may let the control go, detach it, unmount again, or leave the
   // entity to it only now.
   const Ptr<CollectionControl> held(this);
   const Ptr<Node> entity = std::exchange(_entity, nullptr);
   const auto release = [this](void*) { _entity = nullptr; };
   const std::unique_ptr<void, decltype(release)> released(this, release);
   if (_table) {
      _table->unmount();
   }
   if (_table) {
      mountStatusIs(_table->mountStatus());
   }
}

void CollectionControl::quiesceIs(bool quiesce) {
   if (!_table) {
      throw std::logic_error(
         "a collection control has no table to quiesce: no entity was given it");
   }
   _table->quiescedIs(quiesce);
}

void CollectionControl::tableIs(TableBase* table) {
   // Everything is in place before anybody is told, as who is told may attach and detach, or let
   // go of what is seen here.
   const Ptr<CollectionControl> held(this);
   if (_table) {
      _table->_control = nullptr;
   }
   Ptr<CollectionControl> previous;
   if (table && table->_control) {
      previous = Ptr<CollectionControl>(table->_control); // a table has one control
      previous->_table = nullptr;
   }
   _table = table;
   if (table) {
      table->_control = this;
   }
   std::exception_ptr first;
   if (previous) {
      try {
         previous->_follow();
      } catch (...) {
         first = std::current_exception();
      }
   }
   _follow();
   if (first) {
      std::rethrow_exception(first);
   }
}

void CollectionControl::_follow() {
   mountStatusIs(_table ? _table->mountStatus() : MountStatus::unmounted);
   quiescedIs(_table && _table->quiesced());
}

Ptr<CollectionControl> collectionControlFactory(TableService& service,
                                                const TableBase::MountOptions& options) {
   return make<CollectionControl>(service, options);
}

} // namespace Platform::Tables
