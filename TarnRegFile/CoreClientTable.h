#pragma once

#include <functional>
#include <optional>
#include <system_error>
#include <utility>

#include "platform/tables/CorruptionException.h"
#include "platform/tables/Table.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile::Sable {

/// Throws ShadowError of the kind damaged.
[[noreturn]] void throwDamaged(const String& coreName, const char* what);

/// Throws ShadowError of the kind notPermitted if that is what is wrong.
void throwNotPermitted(const String& coreName, const std::system_error& error);

/// One of a core's shared tables as its clients have it: mounted as a reader when it is first
/// looked at, if it is there by then, and as a writer, made if there is none, when it is first
/// written. What goes wrong is a ShadowError of the kinds notPermitted and damaged, or
/// std::system_error.
///
/// A part of the library's clients, on the thread of the service's loop.
template <Platform::Tables::TableRecord R>
class CoreClientTable : private Platform::Tables::Table<R>::Owner {
public:
   using Table = Platform::Tables::Table<R>;
   using Key = typename Table::Key;

   /// Told by the loop of a record that another mount has changed, or may have.
   using ChangeHandler = std::function<void(const Key&)>;

   CoreClientTable(Platform::Tables::TableService& service, const String& coreName,
                   const char* tableName, ChangeHandler changed = {})
      : _service(service), _coreName(coreName), _changed(std::move(changed)),
        _table(coreName + '/' + tableName, *this) {}
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
      if (_table.tableMount()) [[likely]] {
         return true;
      }
      return !_closed && _guarded([&] {
         try {
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
   String damage() const {
      return _table.mountStatus() == Platform::Tables::MountStatus::corrupted ? _table.statusText()
                                                                              : String();
   }

private:
   void _writable() {
      using Platform::Tables::TableRole;
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
         if (_table.mountStatus() != Platform::Tables::MountStatus::corrupted) {
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
   void tableMountStatusChanged() override {}
   void tableQuiescedChanged(bool) override {}

   Platform::Tables::TableService& _service;
   const String _coreName;
   const ChangeHandler _changed;
   Table _table;
   bool _closed = false;
};

} // namespace TarnRegFile::Sable
