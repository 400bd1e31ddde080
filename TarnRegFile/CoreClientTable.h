#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <system_error>
#include <utility>

#include "platform/tables/CorruptionException.h"
#include "platform/tables/Table.h"
#include "platform/tables/TableMount.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile::Sable {

/// Throws ShadowError of the kind damaged.
[[noreturn]] void throwDamaged(const String& coreName, const char* what);

/// Throws ShadowError of the kind notPermitted if that is what is wrong.
void throwNotPermitted(const String& coreName, const std::system_error& error);

/// Which file a table is, as far as can be told without opening it.
struct TableFile {
   dev_t device = 0;
   ino_t inode = 0;
   std::int64_t changedSeconds = 0; // numbers are used again
   std::int64_t changedNanos = 0;

   bool operator==(const TableFile&) const = default;
};

/// The file of the table of that name; none if there is no such table.
std::optional<TableFile> tableFile(const Platform::Tables::TableDirectory& directory,
                                   const String& tableName);

/// Whether there is a table of that name, and another one than `mount` has.
bool isAnotherTable(const Platform::Tables::TableDirectory& directory, const String& tableName,
                    const Platform::Tables::TableMount& mount);

/// One of a core's shared tables as its clients have it: mounted as a reader when it is first
/// looked at, if it is there by then, and as a writer, made if there is none, when it is first
/// written. What goes wrong is a ShadowError of the kinds notPermitted and damaged, or
/// std::system_error.
///
/// A table that is found damaged stays mounted until another one stands under its name, as the
/// core's owner sees to: the next access after that mounts the other one.
///
/// A part of the library's clients, on the thread of the service's loop.
template <Platform::Tables::TableRecord R>
class CoreClientTable : private Platform::Tables::Table<R>::Owner {
public:
   using Table = Platform::Tables::Table<R>;
   using Key = typename Table::Key;

   /// Told by the loop of a record that another mount has changed, or may have.
   using ChangeHandler = std::function<void(const Key&)>;

   /// Told that the table was mounted, so that anything may have changed, or was found damaged, so
   /// that no changes are told any more. In the middle of an access: it only takes note.
   using StatusHandler = std::function<void(bool isDamaged)>;

   CoreClientTable(Platform::Tables::TableService& service, const String& coreName,
                   const char* tableName, ChangeHandler changed = {},
                   StatusHandler statusChanged = {})
      : _service(service), _coreName(coreName), _changed(std::move(changed)),
        _statusChanged(std::move(statusChanged)), _table(coreName + '/' + tableName, *this) {}
   virtual ~CoreClientTable() = default;
   CoreClientTable(const CoreClientTable&) = delete;
   CoreClientTable& operator=(const CoreClientTable&) = delete;

   /// Nothing is told any more, and nothing mounted.
   void close() {
      _closed = true;
      _table.unmount();
   }

   /// Whether the table is there.
   bool exists() {
      _leaveReplaced();
      if (_table.tableMount()) [[likely]] {
         return true;
      }
      return !_closed && _guarded([&] {
         try {
            _tried = tableFile(_service.directory(), _table.name());
            _table.mount(_service, {.role = Platform::Tables::TableRole::reader, .create = false});
         } catch (const std::system_error& error) {
            if (error.code() != std::errc::no_such_file_or_directory) {
               throw;
            }
            return false;
         }
         return true;
      });
   }

   /// The same, but does not look again.
   bool isMounted() const noexcept { return _table.tableMount() != nullptr; }

   /// Whether the table was found damaged, and no other one stands under its name yet: to look at
   /// it again would find nothing else.
   bool isStillDamaged() const {
      return _isDamaged() &&
             !(isMounted() ? _isReplaced()
                           : _tried != tableFile(_service.directory(), _table.name()));
   }

   /// The record; none as well if there is no table.
   std::optional<R> get(const Key& key) {
      if (!exists()) {
         return std::nullopt;
      }
      return _guarded([&] { return _table.get(key); });
   }

   template <typename Visit>
   void forEach(const Visit& visit) {
      if (exists()) {
         _guarded([&] { _table.forEach(visit); });
      }
   }

   void put(const R& record) {
      _writable();
      _guarded([&] { _table.put(record); });
   }

   /// Removes a record and returns it. Without one there is nothing that one would have to be
   /// allowed to change, nor a table to be made.
   std::optional<R> del(const Key& key) {
      if (!get(key)) {
         return std::nullopt;
      }
      _writable();
      return _guarded([&] { return _table.del(key); });
   }

   /// What is wrong with the table if it was found damaged; else empty.
   String damage() const { return _isDamaged() ? _table.statusText() : String(); }

private:
   bool _isDamaged() const noexcept {
      return _table.mountStatus() == Platform::Tables::MountStatus::corrupted;
   }
   bool _isReplaced() const {
      return isAnotherTable(_service.directory(), _table.name(), *_table.tableMount());
   }

   /// Lets go of a damaged table in whose place there is another one.
   void _leaveReplaced() {
      if (_isDamaged() && isMounted() && _isReplaced()) [[unlikely]] {
         _table.unmount();
      }
   }

   void _writable() {
      using Platform::Tables::TableRole;
      _leaveReplaced();
      if (_table.role() != TableRole::writer) {
         // It is no loss if this fails: whoever wants to look mounts it as a reader again.
         _table.unmount();
         _guarded([&] { _table.mount(_service, {.role = TableRole::writer}); });
      }
   }

   /// Does `work` with the table, and says what goes wrong in the clients' way.
   template <typename Work>
   auto _guarded(const Work& work) -> decltype(work()) {
      try {
         return work();
      } catch (const Platform::Tables::CorruptionException& corruption) {
         if (!_isDamaged()) {
            _table.handleCorruption(corruption.what());
         }
         throwDamaged(_coreName, corruption.what());
      } catch (const std::system_error& error) {
         throwNotPermitted(_coreName, error);
         throw;
      }
   }

   void tableChanged(const Key& key) override {
      if (_changed) {
         const Key changed = key;
         _changed(changed);
      }
   }
   void tableMountStatusChanged() override {
      using Platform::Tables::MountStatus;
      const MountStatus status = _table.mountStatus();
      if (_statusChanged && (status == MountStatus::mounted || status == MountStatus::corrupted)) {
         _statusChanged(status == MountStatus::corrupted);
      }
   }
   void tableQuiescedChanged(bool) override {}

   Platform::Tables::TableService& _service;
   const String _coreName;
   const ChangeHandler _changed;
   const StatusHandler _statusChanged;
   Table _table;
   std::optional<TableFile> _tried; // what was there before the last attempt to mount it
   bool _closed = false;
};

} // namespace TarnRegFile::Sable
