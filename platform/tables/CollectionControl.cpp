#include "platform/tables/CollectionControl.h"

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
   if (_table) {
      _table->unmount();
      mountStatusIs(_table->mountStatus());
   }
   // It may be what keeps the table, which detaches itself when it goes.
   const Ptr<Node> gone = std::exchange(_entity, nullptr);
}

void CollectionControl::quiesceIs(bool quiesce) {
   if (!_table) {
      throw std::logic_error(
         "a collection control has no table to quiesce: no entity was given it");
   }
   _table->quiescedIs(quiesce);
}

void CollectionControl::tableIs(TableBase* table) {
   if (_table) {
      _table->_control = nullptr;
   }
   if (table && table->_control) {
      table->_control->tableIs(nullptr); // a table has one control
   }
   _table = table;
   if (table) {
      table->_control = this;
   }
   mountStatusIs(table ? table->mountStatus() : MountStatus::unmounted);
   quiescedIs(table && table->quiesced());
}

Ptr<CollectionControl> collectionControlFactory(TableService& service,
                                                const TableBase::MountOptions& options) {
   return make<CollectionControl>(service, options);
}

} // namespace Platform::Tables
