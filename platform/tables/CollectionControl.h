#pragma once

#include "platform/entity/AttributeId.h"
#include "platform/entity/Export.h"
#include "platform/entity/Node.h"
#include "platform/entity/Ptr.h"
#include "platform/entity/Types.h"
#include "platform/tables/MountStatus.h"
#include "platform/tables/TableBase.h"
#include "platform/tables/TableRole.h"

namespace Platform::Tables {

class TableService;

/// Mounts the shared table of one entity, and says how it stands with it.
///
///    auto control = collectionControlFactory(service, {.role = TableRole::writer});
///    config->regMapControlIs(control);    // the entity attaches its table
///    control->mount();
///
/// An entity that nobody refers to any more leaves itself to its control, so that the table stays
/// mounted until the control is told to unmount it, or goes.
///
/// Held through Ptr, by the program and by the entity. On the thread of the service's event loop.
class TARN_PLATFORM_API CollectionControl : public Node {
public:
   static constexpr AttributeId mountStatusAttr{"mountStatus"};
   static constexpr AttributeId quiescedAttr{"quiesced"};

   /// `service` outlives the control.
   CollectionControl(TableService& service, const TableBase::MountOptions& options);
   ~CollectionControl() override;

   static const TypeData& staticType();
   const TypeData& typeData() const override { return staticType(); }

   TableRole role() const noexcept { return _options.role; }

   /// The name of the attached table; empty when there is none.
   String tableName() const { return _table ? _table->name() : String(); }

   /// How the table stands, as far as the entity has reported it.
   MountStatus mountStatus() const noexcept { return _mountStatus; }

   /// Why it is failed or corrupted; empty otherwise.
   String statusText() const { return _table ? _table->statusText() : String(); }

   /// Whether this process's mount is quiesced, as the entity has reported it.
   bool quiesced() const noexcept { return _quiesced; }

   /// Mounts the attached table. Throws std::logic_error when there is none, and what
   /// TableBase::mount() throws; the status says so too.
   void mount();

   /// Unmounts the table, and then lets go of the entity, if that was left to it. Idempotent.
   void unmount();

   /// Asks for writes by this process to be refused, or to be allowed again.
   void quiesceIs(bool quiesce);

   // For the entity.

   /// Attaches the entity's table, which outlives the attachment; null detaches it.
   void tableIs(TableBase* table);
   TableBase* table() const noexcept { return _table; }

   void mountStatusIs(MountStatus status) { store(_mountStatus, status, mountStatusAttr); }
   void quiescedIs(bool quiesced) { store(_quiesced, quiesced, quiescedAttr); }

   /// Keeps the entity alive until its table is unmounted.
   void entityIs(const Ptr<Node>& entity) { _entity = entity; }
   const Ptr<Node>& entity() const noexcept { return _entity; }

private:
   /// Says what the attached table says.
   void _follow();

   TableService& _service;
   const TableBase::MountOptions _options;
   TableBase* _table = nullptr;
   Ptr<Node> _entity;
   MountStatus _mountStatus = MountStatus::unmounted;
   bool _quiesced = false;
};

TARN_PLATFORM_API Ptr<CollectionControl>
collectionControlFactory(TableService& service, const TableBase::MountOptions& options = {});

} // namespace Platform::Tables
