#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "platform/entity/Export.h"
#include "platform/entity/Types.h"
#include "platform/entity/WeakPtr.h"
#include "platform/tables/MountStatus.h"
#include "platform/tables/TableMount.h"
#include "platform/tables/TableRole.h"
#include "platform/tables/TableShape.h"

namespace Platform::Tables {

class CollectionControl;
class TableService;

/// The tie between an entity and its shared table, whatever it holds: what a collection control
/// mounts and unmounts. Table.h has the part that knows keys and records.
///
/// A member of its entity, unmounted at first. All calls on the thread of the service's event loop.
class TARN_PLATFORM_API TableBase {
public:
   /// What the entity is told of.
   class TARN_PLATFORM_API Owner {
   public:
      /// mountStatus() has changed.
      virtual void tableMountStatusChanged() = 0;
      /// quiesced() has changed.
      virtual void tableQuiescedChanged(bool quiesced) = 0;

   protected:
      ~Owner() = default;
   };

   TableBase(String name, TableShape shape, Owner& owner);

   TableBase(const TableBase&) = delete;
   TableBase& operator=(const TableBase&) = delete;

   /// The table's name in the service, and what it holds.
   const String& name() const noexcept { return _name; }
   const TableShape& shape() const noexcept { return _shape; }

   /// The entity's parent, for who wants to know where the table belongs; not kept alive.
   void parentIs(const Ptr<Node>& parent) { _parent = WeakPtr<Node>(parent); }
   Ptr<Node> parent() const { return _parent.lock(); }

   /// The control that the table is attached to; null if there is none.
   CollectionControl* control() const noexcept { return _control; }

   struct MountOptions {
      TableRole role = TableRole::reader;
      bool create = true; ///< Makes the table if there is none.
      mode_t mode = 0660;
      gid_t group = static_cast<gid_t>(-1);
   };

   /// Mounts the table: from here on it can be used, and changes that other mounts make arrive on
   /// the service's event loop. Does nothing if it is mounted. Throws what TableMount throws, and
   /// then the status is failed, or corrupted if the table is. `service` outlives the mount.
   void mount(TableService& service, const MountOptions& options);

   /// Lets the table go; it stays where it is for others. Idempotent.
   void unmount();

   MountStatus mountStatus() const noexcept { return _status; }

   /// Why the status is failed or corrupted; empty otherwise.
   const String& statusText() const noexcept { return _statusText; }

   /// The role of the mount; reader when there is none.
   TableRole role() const noexcept;

   /// A quiesced table refuses to be written by this process, and shows so to others.
   void quiescedIs(bool quiesced);
   bool quiesced() const noexcept { return _quiesced; }

   /// The mount, null when there is none. For what typed access does not offer.
   const TableMount* tableMount() const noexcept { return _mount.get(); }

   /// Records in the table. Throws std::system_error ENOTCONN (generic category) if it is not
   /// mounted, CorruptionException.
   std::size_t size() const { return _mounted().count(); }

   /// To be called by who has caught a CorruptionException of this table, with its message: sets
   /// the status and tells the service, and so the program.
   void handleCorruption(const String& message);

protected:
   virtual ~TableBase();

   /// A record of another mount may have changed.
   virtual void changed(std::span<const std::uint8_t> key) = 0;

   const TableMount& _mounted() const;
   TableMount& _mounted();

   /// Read as TableMount's, and keep account of the keys that were seen.
   std::optional<std::size_t> _get(std::span<const std::uint8_t> key,
                                   std::span<std::uint64_t> record) const;
   std::optional<std::size_t> _next(std::uint32_t& position, std::span<std::uint64_t> key,
                                    std::span<std::uint64_t> record) const;

   /// Writes, and keeps account of the keys there are.
   void _put(std::span<const std::uint8_t> key, std::span<const std::uint8_t> record);
   std::optional<std::size_t> _del(std::span<const std::uint8_t> key,
                                   std::span<std::uint64_t> record);

   /// All keys at this moment, in no order.
   std::vector<std::vector<std::uint8_t>> _keys() const;

private:
   friend class CollectionControl;
   class Changes;

   void _seen(std::span<const std::uint8_t> key) const;
   void _statusIs(MountStatus status, const String& text);
   void _corruptedIs(const TableService* service, const String& message);

   const String _name;
   const TableShape _shape;
   Owner& _owner;
   WeakPtr<Node> _parent;
   CollectionControl* _control = nullptr; // that it is attached to
   TableService* _service = nullptr;
   std::unique_ptr<TableMount> _mount;
   std::shared_ptr<Changes> _changes;
   MountStatus _status = MountStatus::unmounted;
   String _statusText;
   bool _quiesced = false;
};

} // namespace Platform::Tables
